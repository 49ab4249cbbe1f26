#include "publish/pace.h"

#include <poll.h>

#include <ctime>

namespace publish {

bool Pace::Await() {
    using std::chrono::steady_clock;
    if (watch.WhyEnded() != EndWatch::Cause::None) {
        return false;
    }
    if (!step) {
        return true;
    }
    if (!due) {
        due = steady_clock::now() + *step;
        return true;
    }
    for (auto left = *due - steady_clock::now(); left > left.zero(); left = *due - steady_clock::now()) {
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
        const timespec time{seconds.count(), (left - seconds).count()};
        pollfd ended{watch.Descriptor(), POLLIN, 0};
        if (::ppoll(&ended, 1, &time, nullptr) > 0) {
            return false;
        }
    }
    *due += *step;
    return true;
}

} // namespace publish
