"""Subscribers that never read, while a publisher floods their topic.

They are cut, which their next wait learns by result code 9; the memory of the server stays bounded, and others receive.
"""

import time

from attack import BIN, DONE, SECONDS, Attack, main
from raw_client import CTL, FINISH_SUBS, START_SUBS, SUBS, SUBSCRIBE, WAIT

CUT = 9
SUBSCRIBERS = 10
FLOOD_SECONDS = max(SECONDS, 3.0)
MOST_SECONDS_TO_CUT_ALL = 60.0
MOST_MEMORY_KIB = 544 * 1024  # what one process may leave unread takes 512 MiB at most


class DeafSubscribers(Attack):
    log_level = "off"
    memory_allowance_kib = 16 * 1024

    def attack(self):
        ctl, subs = self.joined(CTL), self.joined(SUBS)
        deaf = [self.register(ctl) for _ in range(SUBSCRIBERS)]
        flood = self.start(f"{BIN}/checked_pair", "push", "flood", "10000000")
        flood.expect("ready")
        most = 0
        end = time.monotonic() + FLOOD_SECONDS
        latest_end = end + MOST_SECONDS_TO_CUT_ALL
        # A slow machine needs longer to fill the last queue, which has the budget of its process to itself.
        while deaf or time.monotonic() < end:
            most = max(most, self.usage().memory_kib - self.before.memory_kib)
            self.assertLess(most, MOST_MEMORY_KIB)
            self.assertLess(time.monotonic(), latest_end, f"{len(deaf)} subscribers were not cut")
            if deaf and time.monotonic() >= end:
                status, code, _ = subs.call(SUBS, WAIT, deaf[0])
                self.assertEqual(status, 0)
                self.assertIn(code, (0, CUT))
                if code == CUT:
                    deaf.pop(0)
                    continue
            time.sleep(0.02)
        flood.end_input()
        flood.expect_exit(DONE)
        ctl.close()
        subs.close()
        self.load(f"{SUBSCRIBERS} subscribers, a flood of {FLOOD_SECONDS:.0f} s; at most {most / 1024:.1f} MiB more")

    def register(self, ctl):
        """Returns: the subscriber's id, as it travels."""
        registration = ctl.call(CTL, START_SUBS, b"deaf\0")[2][:8]
        self.assertEqual(ctl.call(CTL, SUBSCRIBE, registration + b"flood\0")[:2], (0, 0))
        status, code, body = ctl.call(CTL, FINISH_SUBS, registration + b"\1")
        self.assertEqual((status, code), (0, 0))
        return body[:8]


if __name__ == "__main__":
    main(DeafSubscribers)
