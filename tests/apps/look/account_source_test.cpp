// What is said of a server that does not work on: what its account shows must not be taken for the present.

#include "look/account_source.h"

#include "hand_made.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::HasSubstr;

TEST(AccountSourceTest, WarningAbout_AServerAtWork_IsEmpty) {
    EXPECT_EQ(look::WarningAbout(hand_made::Account().server), "");
}

TEST(AccountSourceTest, WarningAbout_AServerThatHasEnded_SaysHow) {
    auto server = hand_made::Account().server;
    server.isAlive = false;
    EXPECT_THAT(look::WarningAbout(server), HasSubstr("did not stop in order"));
    server.state = instruments::ServerState::Stopped;
    EXPECT_THAT(look::WarningAbout(server), HasSubstr("has stopped"));
}

TEST(AccountSourceTest, WarningAbout_APausedServer_SaysSo) {
    auto server = hand_made::Account().server;
    server.isPaused = true;
    EXPECT_THAT(look::WarningAbout(server), HasSubstr("process 200) is paused"));
}

TEST(AccountSourceTest, AMissingFile_IsNoAccount) {
    EXPECT_THROW(look::AccountSource("/nonexistent/account"), instruments::NoAccountError);
}

TEST(AccountSourceTest, AFileThatIsNoAccount_IsRefused) {
    EXPECT_THROW(look::AccountSource("/dev/null"), instruments::AccountError);
}

} // namespace
