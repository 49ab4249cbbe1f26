// Defends the probes that tracing tools find in a program: that they are there under their names with their arguments
// is probes_test.py's part; this is the program that has one of each, and goes on behind them.
#include "account/probes.h"

#include <gtest/gtest.h>

namespace {

namespace probes = msgbus_server::probes;

TEST(ProbesTest, AProbeThatNobodyTraces_DoesNothing) {
    probes::Push(1, -5, 0);
    probes::FanOut(3);
    probes::Taken(2, 1);
    probes::Dropped(2, 7, "cut");
    probes::Registered("publisher", 1, 4711);
}

} // namespace
