"""Writes the inputs that the fuzzers begin with, FOLDER/FUZZER/NAME, and FOLDER/FUZZER.list, which names them all.

How each is read stands at the top of its fuzzer."""

import struct
import sys
from pathlib import Path

RECORD = 1056
PROVIDER, CTL, SUBS = 0, 1, 2
REGISTER, START, SUBSCRIBE, FINISH, UNREGISTER_PUBLISHER, UNREGISTER_SUBSCRIBER = range(6)


def Request(interface, method, body=b"", size=RECORD):
    record = struct.pack("<HHI16x", interface, method, size) + body
    return struct.pack("<H", len(record)) + record


def Number(*values):
    return struct.pack(f"<{len(values)}q", *values)


def RequestRecords():
    # Publisher 1, subscriber 2 of the topics "t" and "u".
    meet = (Request(CTL, REGISTER, b"t") + Request(CTL, START, b"name") + Request(CTL, SUBSCRIBE, Number(0) + b"t")
            + Request(CTL, SUBSCRIBE, Number(0) + b"u") + Request(CTL, FINISH, Number(0) + b"\1"))
    push = Request(PROVIDER, 0, Number(1, 42))
    wait = Request(SUBS, 0, Number(2))
    long_topic = (Request(CTL, REGISTER, b"x" * 1032) + Request(CTL, REGISTER, b"y" * 1024)
                  + Request(CTL, START) + Request(CTL, SUBSCRIBE, Number(0) + b"y" * 1024)
                  + Request(CTL, FINISH, Number(0) + b"\1") + Request(PROVIDER, 0, Number(2, -1))
                  + Request(SUBS, 0, Number(3)))
    stories = {
        "delivery": meet + push + push + wait + wait,
        "wait_ended": meet + wait + wait,
        "wait_of_nobody": Request(SUBS, 0, Number(-1)) + Request(SUBS, 0, Number(1)),
        "conflicts": meet + Request(CTL, REGISTER, b"t") + Request(CTL, START) + Request(CTL, SUBSCRIBE, Number(1))
        + Request(CTL, SUBSCRIBE, Number(1)) + Request(CTL, SUBSCRIBE, Number(9)) + Request(CTL, FINISH, Number(9)),
        "cancelled": Request(CTL, START) + Request(CTL, FINISH, Number(0)),
        "leaving": meet + push + Request(CTL, UNREGISTER_PUBLISHER, Number(1)) + push
        + Request(CTL, UNREGISTER_SUBSCRIBER, Number(2)) + wait,
        "unterminated": long_topic,
        "unknown": Request(PROVIDER, 1) + Request(CTL, 6) + Request(SUBS, 1) + Request(3, 0) + Request(65535, 65535),
        "sizes": Request(PROVIDER, 0, size=0) + Request(PROVIDER, 0, size=0xFFFFFFFF) + Request(PROVIDER, 0, size=24),
    }
    return {f"{name}_{way}": bytes([way]) + story for name, story in stories.items() for way in range(3)}


def SharedPages():
    call = bytes([0])

    def deed(choice, data=b"", client=0):
        return bytes([choice, client]) + data

    def request(method, wrong_interface=0, wrong_size=0, shift=0, client=0):
        return deed(3, bytes([wrong_interface, method, wrong_size, shift]) + b"body".ljust(64, b"\0"), client)

    good = request(1)
    stories = {
        "calls": call * 3,
        "good": good + call + good + call,
        "refused": request(3) + call + request(1, 3) + call + request(1, 0, 1) + call + request(1, 0, 1, 31) + call,
        "any_pieces": deed(2, struct.pack("<I", 0x1FFFF)) + call,
        "wrong_sequence": deed(4, struct.pack("<Q", 9 << 32)) + deed(15) + call,
        "zeroed": good + call + deed(7, b"\0") + deed(15) + call,
        "scribbled": deed(6, struct.pack("<HB", 64, 64) + bytes(range(64))) + deed(15) + call,
        "asleep": deed(5, struct.pack("<I", 1)) + deed(9, struct.pack("<Q", 2**64 - 2)) + deed(10, b"\0")
        + good + call,
        "ringing": deed(14, b"\x4f") + call + deed(14, b"\x4f") + call,
        "gone": good + deed(12, b"\2") + call + deed(13) + call,
        "two": bytes([1]) + good + request(0, client=1) + call,
        "talks": deed(11, b"\x10" + b"uninvited message"[:16]) + call,
        # Takes the request of the first, whose page changes before the reply.
        "meanwhile": good + call + bytes([1, 0, 7, 0xFF]) + call,
    }
    return {f"{name}_{kind}": bytes([kind]) + story for name, story in stories.items() for kind in range(2)}


def Joins():
    greeting = struct.pack("<IHH", 0x48565242, 1, RECORD)

    def step(choice, visitor=0, data=b""):
        return bytes([choice, visitor]) + data

    def say(data, visitor=0):
        return step(2, visitor, bytes([len(data)]) + data)

    return {
        "static": step(0) + say(greeting),
        "service": step(1) + say(greeting) + step(5),
        "refused": step(0) + say(greeting[:-1]),
        "empty": step(0) + say(b""),
        "long": step(0) + say(greeting + b"x"),
        "version": step(0) + say(greeting[:4] + b"\2\0" + greeting[6:]),
        "descriptors": step(0) + step(3, 0, b"\3\x08" + greeting),
        "half_closed": step(0) + step(4, 0, b"\1") + say(greeting),
        "left": step(1) + say(greeting) + step(6) + step(5),
        "many": b"".join(step(visitor % 2, visitor) + say(greeting, visitor) for visitor in range(6)) + step(5) * 3,
        "talks": step(0) + say(greeting) + say(greeting),
        "other_name": step(1) + say(greeting) + step(7, 0, b"\4\4nameserv") + step(5),
    }


def CommandLines():
    lines = [
        "msgbus", "msgbus --help", "msgbus --version", "msgbus pub --help", "msgbus nonsense",
        "msgbus pub topic 1 2 3", "msgbus pub topic -- -9223372036854775808 9223372036854775807",
        "msgbus pub --static -v topic 5", "msgbus pub -l topic", "msgbus pub -l topic 1",
        "msgbus pub --reconnect 1.5s topic 0x1", "msgbus pub --reconnect 0 topic 1",
        "msgbus sub --name me topic", "msgbus sub --name me -n 3 -W 200ms --json a b", "msgbus sub topic",
        "msgbus sub --name=me --static --dynamic topic", "msgbus sub --name me -n 0 topic",
        "msgbus sub --name me -W 1e12ms topic", "msgbus sub --name me -W nan topic",
        "msgbusd", "msgbusd --static", "msgbusd --dynamic --static", "msgbusd --log-level debug",
        "msgbusd --log-level=4 --no-fast-wait --no-flush-wake", "msgbusd --ready-fd 1", "msgbusd --ready-fd -1",
        "msgbusd --log-level=none", "msgbusd --help", "msgbusd --version", "msgbusd extra",
    ]
    return {f"line_{number:02}": line.replace(" ", "\0").encode() for number, line in enumerate(lines)}


def Main():
    folder = Path(sys.argv[1])
    for fuzzer, seeds in (("fuzz_request_record", RequestRecords()), ("fuzz_shared_page", SharedPages()),
                          ("fuzz_join", Joins()), ("fuzz_command_line", CommandLines())):
        (folder / fuzzer).mkdir(parents=True, exist_ok=True)
        for name, seed in seeds.items():
            (folder / fuzzer / name).write_bytes(seed)
        (folder / f"{fuzzer}.list").write_text(",".join(str(folder / fuzzer / name) for name in seeds))


if __name__ == "__main__":
    Main()
