#include "support/watchdog.h"

#include "support/journal.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>

namespace test_support {

Watchdog::Watchdog(std::chrono::seconds limit)
    : thread([this, limit] {
          std::unique_lock lock(mutex);
          if (changed.wait_for(lock, limit, [this] { return finished; })) {
              return;
          }
          const auto* test = testing::UnitTest::GetInstance()->current_test_info();
          std::cerr << "Watchdog: " << (test != nullptr ? test->name() : "(no test)") << " hangs after "
                    << limit.count() << " s\n";
          PrintJournal();
          std::abort();
      }) {}

Watchdog::~Watchdog() {
    {
        const std::lock_guard lock(mutex);
        finished = true;
    }
    changed.notify_all();
    thread.join();
}

void PrintJournal() {
    std::cerr << "--- what happened\n";
    for (const auto& entry : Journal::Instance().All()) {
        std::cerr << entry << '\n';
    }
    std::cerr << "---" << std::endl;
}

} // namespace test_support
