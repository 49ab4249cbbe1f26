// Defends ns/name_loss.h: a name that is taken from a living server comes back, or the server learns that it is lost.
#include "ns/name_loss.h"

#include "support.h"

#include <mutex>

namespace platform_test {
namespace {

/// Keeps the names that are reported lost, for as long as it exists.
class LostNames final {
public:
    LostNames() { NsOnNameLost(&LostNames::OnLost, this); }
    LostNames(const LostNames&) = delete;
    LostNames& operator=(const LostNames&) = delete;
    ~LostNames() { NsOnNameLost(nullptr, nullptr); }

    std::vector<std::string> All() const {
        const std::lock_guard lock(mutex);
        return names;
    }

private:
    static void OnLost(const char* name, void* self) {
        auto& lost = *static_cast<LostNames*>(self);
        const std::lock_guard lock(lost.mutex);
        lost.names.emplace_back(name);
    }

    mutable std::mutex mutex; // guards all below
    std::vector<std::string> names;
};

using NameLossTest = PlatformTest;

TEST_F(NameLossTest, ANameThatDisappears_IsBack_AndIsNotLost) {
    const LostNames lost;
    const Handle server = RegisterStatic();
    const Echoers echoers(server.Get());
    for (int i = 0; i < 3; ++i) {
        RemoveName("line");
        KnHandle handle = KnInvalidHandle;
        Await("the name should be back", [&] { return ServiceLocatorConnect("line", 1000, &handle) == KnStatusOk; });
        EXPECT_EQ(KnStatusOk, CallWith(handle, 1));
        EXPECT_EQ(KnStatusOk, KnHandleClose(handle));
    }
    EXPECT_THAT(lost.All(), ::testing::IsEmpty());
}

TEST_F(NameLossTest, ANameThatAnotherServerHasClaimed_IsReportedOnce_AndItsClientsAreServedOn) {
    const LostNames lost;
    const Handle server = RegisterStatic();
    const Handle other = RegisterStatic("other");
    const Echoers echoers(server.Get());
    const Handle client = ConnectStatic();
    TakeName("line");
    Await("the name should be lost", [&] { return !lost.All().empty(); });
    EXPECT_EQ(KnStatusOk, CallWith(client.Get(), 1));
    TakeName("other"); // a second look at all names
    Await("the other name should be lost", [&] { return lost.All().size() == 2; });
    EXPECT_THAT(lost.All(), ::testing::ElementsAre("line", "other"));
    EXPECT_EQ(KnStatusOk, CallWith(client.Get(), 1));
}

TEST_F(NameLossTest, AServerThatHasLostItsName_MayEnd) {
    const LostNames lost;
    {
        const Handle server = RegisterStatic();
        TakeName("line");
        Await("the name should be lost", [&] { return !lost.All().empty(); });
    }
    const Handle another = RegisterStatic("another");
}

TEST_F(NameLossTest, AHandlerThatWasReplaced_IsNotCalled) {
    const LostNames replaced;
    const Handle server = RegisterStatic();
    const LostNames lost;
    TakeName("line");
    Await("the name should be lost", [&] { return !lost.All().empty(); });
    EXPECT_THAT(replaced.All(), ::testing::IsEmpty());
}

TEST_F(NameLossTest, WithoutAHandler_NothingElseHappens) {
    const Handle server = RegisterStatic();
    const Handle second = RegisterStatic("second");
    const Echoers echoers(second.Get());
    TakeName("line");
    EXPECT_EQ(KnStatusOk, CallWith(ConnectStatic("second").Get(), 1));
}

} // namespace
} // namespace platform_test
