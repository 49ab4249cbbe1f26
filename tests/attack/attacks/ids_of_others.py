"""A client uses the ids of other processes: it pushes as their publisher, waits for their values, unregisters them, and
takes over their handshakes.

Each is answered as for an id that nothing has, and has no effect: the pair loses and doubles nothing.
"""

import os
import signal

from attack import Attack, main
from raw_client import (CTL, FINISH_SUBS, PROVIDER, PUSH, START_SUBS, SUBS, SUBSCRIBE, UNREGISTER_PUBLISHER,
                        UNREGISTER_SUBSCRIBER, WAIT, int64)

NOT_REGISTERED, UNKNOWN = 1, 8
IDS = range(60)


class IdsOfOthers(Attack):
    log_level = "off"

    def attack(self):
        reading, writing = os.pipe()
        victim = self.fork(lambda: self.begin_a_handshake(writing))
        handshake = os.read(reading, 8)
        ctl, provider, subs = (self.joined(service) for service in (CTL, PROVIDER, SUBS))
        count = 0
        for _ in self.rounds():
            for number in map(int64, IDS):
                self.assertEqual(ctl.call(CTL, UNREGISTER_PUBLISHER, number)[:2], (0, UNKNOWN))
                self.assertEqual(ctl.call(CTL, UNREGISTER_SUBSCRIBER, number)[:2], (0, UNKNOWN))
                self.assertEqual(subs.call(SUBS, WAIT, number)[:2], (0, NOT_REGISTERED))
                self.assertEqual(provider.call(PROVIDER, PUSH, number + int64(10**15))[:2], (0, 0))
            for method, rest in ((SUBSCRIBE, b"topic\0"), (FINISH_SUBS, b"\0"), (FINISH_SUBS, b"\1")):
                status, code, _ = ctl.call(CTL, method, handshake + rest)
                self.assertEqual((status, code != 0), (0, True))
            count += len(IDS) * 4 + 3
        for client in (ctl, provider, subs):
            client.close()
        self.end_child(victim)
        for end in (reading, writing):
            os.close(end)
        self.load(f"{count:,} requests with ids of others")

    def begin_a_handshake(self, report):
        os.write(report, self.joined(CTL).call(CTL, START_SUBS, b"victim\0")[2][:8])
        signal.pause()


if __name__ == "__main__":
    main(IdsOfOthers)
