#include "support/watchdog.h"

#include "support/journal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <iterator>

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
    constexpr std::ptrdiff_t most = 300;
    const auto all = Journal::Instance().All();
    std::cerr << "--- what happened (" << all.size() << " entries)\n";
    for (auto entry = all.end() - std::min(most, std::ssize(all)); entry != all.end(); ++entry) {
        std::cerr << *entry << '\n';
    }
    std::cerr << "---" << std::endl;
}

} // namespace test_support
