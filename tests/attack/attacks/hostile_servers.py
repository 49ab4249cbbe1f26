"""The client library meets a hostile server: silence, wrong answers, wrong and unexpected descriptors, pages of another
layout, scribbled words, lies in replies and offers, and an end at each of these steps.

A client reports an error and exits; it neither crashes nor hangs once the connection has ended.
"""

import fcntl
import os
import select
import socket

from attack import BIN, DONE, FAILED, LIMIT_OF_HANGS, MODE, NO_SERVER, REFUSED, TIMED_OUT, Attack, main
from hostile_server import SEALS, HostileServer, answer, bell, page

TIME_TO_MISBEHAVE = 0.1  # seconds
OUTCOMES = (DONE, FAILED, REFUSED, NO_SERVER, TIMED_OUT)


def silence(_server, _connection):
    pass


def hang_up(_server, connection):
    connection.close()


def answers(content):
    return lambda server, connection: server.send(connection, content)


def passes(*makers):
    """A good answer with other descriptors than those of a connection."""
    return lambda server, connection: server.send(connection, answer(), [make() for make in makers])


def hang_up_after_the_join(server, connection):
    server.join(connection)
    connection.close()


def half_close_after_the_join(server, connection):
    server.join(connection)
    connection.shutdown(server.random.choice((socket.SHUT_RD, socket.SHUT_WR)))


def talk_after_the_join(server, connection):
    server.join(connection)
    for _ in range(10):
        server.send(connection, server.random.randbytes(64), [os.dup(0)])


def full_pipe():
    """Returns: the end of a pipe on which a write blocks; its reader stays open for as long as the process."""
    reading, writing = os.pipe()
    os.set_blocking(writing, False)
    try:
        while os.write(writing, bytes(4096)):
            pass
    except BlockingIOError:
        os.set_blocking(writing, True)
    full_pipe.readers.append(reading)
    return writing


full_pipe.readers = []


def broken_pipe():
    reading, writing = os.pipe()
    os.close(reading)
    return writing


def stranger():
    return os.open("/dev/null", os.O_RDWR)


WRONG_ANSWERS = (answer()[:-1], answer() + b"x", answer(magic=1), b"x", answer(version=2), answer(size=1), answer() * 1000,
                 bytes(16), *(answer(status) for status in (-2**31, -100, -42, -14, -9, -7, -4, -1, 1, 2**31 - 1)))
WRONG_PAGES = (stranger, bell, lambda: page(seals=0), lambda: page(seals=SEALS & ~fcntl.F_SEAL_SHRINK), lambda: page(size=0),
               lambda: page(size=4095), lambda: page(size=8192), lambda: page(seals=SEALS | fcntl.F_SEAL_WRITE),
               lambda: page(magic=0), lambda: page(layout=1), lambda: page(layout=3), lambda: page(slot_size=1),
               lambda: page(record_size=1055))
WRONG_BELLS = (stranger, full_pipe, broken_pipe, page, lambda: os.open("/", os.O_RDONLY), lambda: os.dup(0))

BEHAVIOURS = (
    silence, hang_up,
    *(answers(wrong) for wrong in WRONG_ANSWERS),
    passes(), passes(page), passes(page, bell), passes(page, bell, bell, bell), passes(page, *[bell] * 100),
    *(passes(wrong, bell, bell) for wrong in WRONG_PAGES),
    *(passes(page, wrong, bell) for wrong in WRONG_BELLS),
    *(passes(page, bell, wrong) for wrong in WRONG_BELLS),
    lambda server, connection: server.join(connection),  # and then silence
    hang_up_after_the_join, half_close_after_the_join, talk_after_the_join,
    *[HostileServer.scribble, HostileServer.answer_with_lies] * 4,
)


class AHostileServer(Attack):

    def prepare(self):
        """The server of this attack is its own."""

    def conclude(self):
        """There is nothing to compare."""

    def attack(self):
        clients = 0
        for number in self.rounds():
            for place, behaviour in enumerate(BEHAVIOURS):
                server = HostileServer(self.runtime, MODE, behaviour, seed=f"{number} {place}")
                try:
                    victims = self.victims()
                    for victim in victims:
                        self.wait_a_moment(victim)
                finally:
                    server.close()
                for victim in victims:
                    self.assertIn(victim.wait(LIMIT_OF_HANGS), OUTCOMES, f"{victim}: behaviour {place}, round {number}")
                clients += len(victims)
        self.load(f"{clients:,} clients, {len(BEHAVIOURS)} ways to misbehave")

    def victims(self):
        return [self.start(f"{BIN}/checked_pair", "read", "t"), self.start(f"{BIN}/checked_pair", "push", "t", "10000"),
                self.msgbus("pub", "t", "1", "2", "3", "--reconnect", "0"),
                self.msgbus("sub", "t", "--name", "victim", "--reconnect", "0", "-W", "5s")]

    @staticmethod
    def wait_a_moment(victim):
        pidfd = os.pidfd_open(victim.popen.pid)
        select.select([pidfd], [], [], TIME_TO_MISBEHAVE / 4)
        os.close(pidfd)


if __name__ == "__main__":
    main(AHostileServer)
