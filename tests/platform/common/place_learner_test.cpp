// Defends the choice of a place to sleep: no thread is moved where that cannot gain, the faster place is used, and the
// other one is tried again.
#include "common/place_learner.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

using common::PlaceLearner;
using Place = common::PlaceLearner::Place;
using namespace std::chrono_literals;

struct Delays {
    std::chrono::nanoseconds free;
    std::chrono::nanoseconds confined;

    std::chrono::nanoseconds In(Place place) const { return place == Place::Free ? free : confined; }
};

/// Sleeps `times` times with `delays`. Returns: how often confined.
int SleepConfined(PlaceLearner& learner, int times, const Delays& delays) {
    int confined = 0;
    for (int i = 0; i < times; ++i) {
        const Place place = learner.Choose();
        confined += place == Place::Confined ? 1 : 0;
        learner.Note(place, delays.In(place));
    }
    return confined;
}

TEST(PlaceLearnerTest, Choose_AtFirst_IsFreeUntilEightDelaysAreKnown) {
    PlaceLearner learner;
    EXPECT_EQ(SleepConfined(learner, 8, {100us, 10us}), 0);
    EXPECT_EQ(SleepConfined(learner, 8, {100us, 10us}), 8);
}

TEST(PlaceLearnerTest, Choose_WhereWakingIsCheap_IsNeverConfined) {
    PlaceLearner learner;
    EXPECT_EQ(SleepConfined(learner, 10'000, {14us, 1us}), 0);
}

TEST(PlaceLearnerTest, Choose_WhereConfinedIsFaster_IsConfinedButForRareTries) {
    PlaceLearner learner;
    SleepConfined(learner, 16, {100us, 10us});
    EXPECT_EQ(SleepConfined(learner, 64, {100us, 10us}), 63);
    EXPECT_EQ(SleepConfined(learner, 128, {100us, 10us}), 127);
    EXPECT_EQ(SleepConfined(learner, 256, {100us, 10us}), 255);
}

TEST(PlaceLearnerTest, Choose_WhereConfinedIsSlower_IsFreeButForRareTries) {
    PlaceLearner learner;
    SleepConfined(learner, 16, {30us, 300us});
    EXPECT_EQ(SleepConfined(learner, 64, {30us, 300us}), 1);
    EXPECT_EQ(SleepConfined(learner, 128, {30us, 300us}), 1);
}

TEST(PlaceLearnerTest, Choose_WhereConfinedIsLittleFaster_IsFree) {
    PlaceLearner learner;
    SleepConfined(learner, 16, {40us, 31us});
    EXPECT_EQ(SleepConfined(learner, 63, {40us, 31us}), 0);
}

TEST(PlaceLearnerTest, Choose_TriesTheWorsePlaceAtLeastEvery4096thTime) {
    PlaceLearner learner;
    SleepConfined(learner, 16, {30us, 300us});
    EXPECT_GE(SleepConfined(learner, 100'000, {30us, 300us}), 100'000 / 4096);
}

TEST(PlaceLearnerTest, Choose_WhenTheBetterPlaceBecomesBad_ChangesSoon) {
    PlaceLearner learner;
    SleepConfined(learner, 1000, {100us, 10us});
    EXPECT_LT(SleepConfined(learner, 60, {100us, 900us}), 10);
}

TEST(PlaceLearnerTest, Choose_WhenTheWorsePlaceBecomesGood_ChangesAfterSomeTries) {
    PlaceLearner learner;
    SleepConfined(learner, 1000, {100us, 400us});
    SleepConfined(learner, 100'000, {100us, 5us});
    EXPECT_GT(SleepConfined(learner, 60, {100us, 5us}), 50);
}

TEST(PlaceLearnerTest, Note_OfOneVeryLongDelayOfAFreeThread_IsNoReasonToConfineIt) {
    PlaceLearner learner;
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(SleepConfined(learner, 30, {5us, 1us}), 0) << i;
        learner.Note(Place::Free, 24h);
    }
}

TEST(PlaceLearnerTest, Note_OfOneVeryLongDelayOfAConfinedThread_IsNoReasonToFreeIt) {
    PlaceLearner learner;
    SleepConfined(learner, 80, {100us, 10us});
    for (int i = 0; i < 4; ++i) {
        learner.Note(Place::Confined, 24h);
        EXPECT_EQ(learner.Choose(), Place::Confined) << i;
        SleepConfined(learner, 20, {100us, 10us});
    }
}

TEST(PlaceLearnerTest, Note_OfVeryLongDelaysInARowOfAConfinedThread_FreesIt) {
    PlaceLearner learner;
    SleepConfined(learner, 80, {100us, 10us});
    for (int i = 0; i < 4; ++i) {
        learner.Note(Place::Confined, 24h);
    }
    EXPECT_EQ(learner.Choose(), Place::Free);
}

TEST(PlaceLearnerTest, Note_OfANegativeDelay_CountsAsNone) {
    PlaceLearner learner;
    SleepConfined(learner, 8, {-1h, 0us});
    EXPECT_EQ(learner.Choose(), Place::Free);
    SleepConfined(learner, 16, {100us, 10us});
    EXPECT_EQ(learner.Choose(), Place::Confined) << "what came later counts in full";
}

} // namespace
