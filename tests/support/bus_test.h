#pragma once

#include "support/journal.h"
#include "support/log_capture.h"
#include "support/watchdog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace test_support {

/// Base of every test of the bus: an empty journal, a log back end that keeps all, and an end to hangs.
class BusTest : public testing::Test {
public:
    BusTest() { journal.Clear(); }
    ~BusTest() override {
        if (HasFailure()) {
            PrintJournal();
        }
    }

protected:
    Journal& journal = Journal::Instance();
    Watchdog watchdog{std::chrono::seconds(60)};
    LogCapture log;
};

} // namespace test_support
