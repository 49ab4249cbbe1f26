// Defends the origin of log records: it is found whatever the compiler makes of the path of a source.
#include "common/log_origin.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using common::LogOrigin;
using common::OriginOf;
using common::PathInTree;

/// Returns: the path of the caller, as a record gets it.
std::string_view Here(const char* file = __builtin_FILE()) {
    return file;
}

const std::string Root(common::log_origin_detail::Root);

TEST(LogOrigin, TheBusIsItsFolderAndEverythingElseTheServer) {
    EXPECT_EQ(OriginOf(Root + "messagebus/src/messagebus.cpp"), LogOrigin::Bus);
    EXPECT_EQ(OriginOf(Root + "messagebus/include/bos_dynamic_ipc_server.h"), LogOrigin::Bus);
    EXPECT_EQ(OriginOf(Root + "server/src/bus_server.cpp"), LogOrigin::Server);
    EXPECT_EQ(OriginOf(Root + "platform/host/src/base/stderr_log.cpp"), LogOrigin::Server);
    EXPECT_EQ(OriginOf(Root + "tests/messagebus/messagebus_test.cpp"), LogOrigin::Server);
    EXPECT_EQ(OriginOf(""), LogOrigin::Server);
}

TEST(LogOrigin, AFolderOfThatNameAboveTheTree_IsNotTheBus) {
    EXPECT_EQ(OriginOf(Root + "elsewhere/messagebus/file.cpp"), LogOrigin::Server);
}

TEST(LogOrigin, ThePathOfACallInThisFile_IsThatInTheTree) {
    EXPECT_EQ(PathInTree(Here()), "tests/platform/common/log_origin_test.cpp");
}

TEST(LogOrigin, APathFromElsewhere_IsLeftAsItIs) {
    EXPECT_EQ(PathInTree("file.cpp"), "file.cpp");
    EXPECT_EQ(PathInTree("/usr/include/header.h"), "/usr/include/header.h");
}

} // namespace
