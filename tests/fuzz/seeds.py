"""Writes the seed inputs of the fuzzers to FOLDER/FUZZER/NAME, and their list to FOLDER/FUZZER.list.

The source of each fuzzer describes at its top how it reads an input.
"""

import struct
import sys
from pathlib import Path

RECORD = 1056
PROVIDER, CTL, SUBS = 0, 1, 2
REGISTER, START, SUBSCRIBE, FINISH, UNREGISTER_PUBLISHER, UNREGISTER_SUBSCRIBER = range(6)


def record(interface, method, body=b"", size=RECORD):
    data = struct.pack("<HHI16x", interface, method, size) + body
    return struct.pack("<H", len(data)) + data


def int64(*values):
    return struct.pack(f"<{len(values)}q", *values)


def request_records():
    # Publisher 1, subscriber 2 of the topics "t" and "u".
    meet = (record(CTL, REGISTER, b"t") + record(CTL, START, b"name") + record(CTL, SUBSCRIBE, int64(0) + b"t")
            + record(CTL, SUBSCRIBE, int64(0) + b"u") + record(CTL, FINISH, int64(0) + b"\1"))
    push = record(PROVIDER, 0, int64(1, 42))
    wait = record(SUBS, 0, int64(2))
    long_topic = (record(CTL, REGISTER, b"x" * 1032) + record(CTL, REGISTER, b"y" * 1024)
                  + record(CTL, START) + record(CTL, SUBSCRIBE, int64(0) + b"y" * 1024)
                  + record(CTL, FINISH, int64(0) + b"\1") + record(PROVIDER, 0, int64(2, -1))
                  + record(SUBS, 0, int64(3)))
    stories = {
        "delivery": meet + push + push + wait + wait,
        "wait_ended": meet + wait + wait,
        "wait_of_nobody": record(SUBS, 0, int64(-1)) + record(SUBS, 0, int64(1)),
        "conflicts": meet + record(CTL, REGISTER, b"t") + record(CTL, START) + record(CTL, SUBSCRIBE, int64(1))
        + record(CTL, SUBSCRIBE, int64(1)) + record(CTL, SUBSCRIBE, int64(9)) + record(CTL, FINISH, int64(9)),
        "cancelled": record(CTL, START) + record(CTL, FINISH, int64(0)),
        "leaving": meet + push + record(CTL, UNREGISTER_PUBLISHER, int64(1)) + push
        + record(CTL, UNREGISTER_SUBSCRIBER, int64(2)) + wait,
        "unterminated": long_topic,
        "unknown": record(PROVIDER, 1) + record(CTL, 6) + record(SUBS, 1) + record(3, 0) + record(65535, 65535),
        "sizes": record(PROVIDER, 0, size=0) + record(PROVIDER, 0, size=0xFFFFFFFF) + record(PROVIDER, 0, size=24),
    }
    return {f"{name}_{way}": bytes([way]) + story for name, story in stories.items() for way in range(3)}


def shared_pages():
    call = bytes([0])

    def action(choice, data=b"", client=0):
        return bytes([choice, client]) + data

    def request(method, wrong_interface=0, wrong_size=0, shift=0, client=0):
        return action(3, bytes([wrong_interface, method, wrong_size, shift]) + b"body".ljust(64, b"\0"), client)

    good = request(1)
    full = struct.pack("<H", RECORD)
    late = bytes([0]) + full + bytes([1, 0, 5])
    forged = action(16, b"\0" + struct.pack("<HB", 6, 5))
    stories = {
        "calls": call * 3,
        "good": good + call + good + call,
        "refused": request(3) + call + request(1, 3) + call + request(1, 0, 1) + call + request(1, 0, 1, 31) + call,
        "any_pieces": action(2, struct.pack("<I", 0x1FFFF)) + call,
        "wrong_sequence": action(4, struct.pack("<Q", 9 << 32)) + action(15) + call,
        "zeroed": good + call + action(7, b"\0") + action(15) + call,
        "scribbled": action(6, struct.pack("<HB", 64, 64) + bytes(range(64))) + action(15) + call,
        "asleep": action(5, struct.pack("<I", 1)) + action(9, struct.pack("<Q", 2**64 - 2)) + action(10, b"\0")
        + good + call,
        "ringing": action(14, b"\x4f") + call + action(14, b"\x4f") + call,
        "gone": good + action(12, b"\2") + call + action(13) + call,
        "two": bytes([1]) + good + request(0, client=1) + call,
        "talks": action(11, b"\x10" + b"uninvited message"[:16]) + call,
        # The server takes the first request, whose page changes before the reply.
        "meanwhile": good + call + bytes([1, 0, 7, 0xFF]) + call,
        # The server defers its replies, with offers, whose word is forged before they are taken back. The first call is
        # served before the first request of the other client.
        "offered": good + call + late + call + late * 2 + forged + bytes([17]) * 3 + call,
        "deferred": good + call + late + call + bytes([0]) + full + bytes([1, 1, 0, 7, 0xFF, 5]) + late
        + bytes([17]) * 3 + call,
    }
    return {f"{name}_{kind}": bytes([kind]) + story for name, story in stories.items() for kind in range(2)}


def joins():
    greeting = struct.pack("<IHH", 0x48565242, 2, RECORD)

    def step(choice, visitor=0, data=b""):
        return bytes([choice, visitor]) + data

    def send(data, visitor=0):
        return step(2, visitor, bytes([len(data)]) + data)

    return {
        "static": step(0) + send(greeting),
        "service": step(1) + send(greeting) + step(5),
        "refused": step(0) + send(greeting[:-1]),
        "empty": step(0) + send(b""),
        "long": step(0) + send(greeting + b"x"),
        "older": step(0) + send(greeting[:4] + b"\1\0" + greeting[6:]),
        "version": step(0) + send(greeting[:4] + b"\3\0" + greeting[6:]),
        "descriptors": step(0) + step(3, 0, b"\3\x08" + greeting),
        "half_closed": step(0) + step(4, 0, b"\1") + send(greeting),
        "left": step(1) + send(greeting) + step(6) + step(5),
        "many": b"".join(step(visitor % 2, visitor) + send(greeting, visitor) for visitor in range(6)) + step(5) * 3,
        "talks": step(0) + send(greeting) + send(greeting),
        "other_name": step(1) + send(greeting) + step(7, 0, b"\4\4nameserv") + step(5),
    }


def hostile_servers():
    good = bytes([7])

    def answer(choice, data=b""):
        return bytes([choice]) + data

    def reply(interface, method, size, body=b"", filling=0):
        return bytes([0, method, interface, size, filling, len(body)]) + body

    def call(choice):
        return bytes([10 + choice])

    register, finish, push, unregister, wait, close = map(call, range(6))
    number = int64(7)
    value = reply(2, 0, 2, b"topic\0", 0)
    offers = bytes([2, 1]) + struct.pack("<HHB", 0, 5, 0)
    return {
        "good": good + reply(1, 0, 1, number) + register + reply(0, 0, 0) + push + value + wait,
        "unterminated": good + reply(2, 0, 2, b"", 0x74) + wait,
        "refused": good + reply(1, 3, 3, b"\2\0") + finish + reply(1, 5, 3, b"\10\0") + unregister,
        "wrong_size": good + reply(1, 0, 4, number) + register,
        "status": good + bytes([1]) + struct.pack("<I", 9 << 24) + push,
        "offers": good + offers + value + wait * 8,
        "forged_offers": good + offers[:2] + struct.pack("<HHBI", 199, 0xFFFF, 1, 1049) + value + wait * 4,
        "scribbled": good + bytes([3]) + struct.pack("<HB", 1152, 32) + bytes(range(32)) + push + bytes([4, 0xFF]) + wait,
        "ended": good + bytes([8, 2]) + push + push,
        "talks": good + bytes([7, 4]) + b"hail" + push + bytes([6]) + push,
        "closed": good + close + push + wait,
        "answer": answer(0, struct.pack("<IHHiI", 0x41565242, 1, RECORD, 0, 0) + b"\x0f"),
        "answer_status": answer(1, struct.pack("<i", -7)),
        "strangers": answer(2, b"\1\1"),
        "few": answer(3, b"\2"),
        "many": answer(4, b"\5"),
        "other_layout": answer(5, struct.pack("<IIII", 0x53565242, 1, 2240, RECORD)),
    }


def account_files():
    threads, errors, events, publishers, subscribers, clients, text, pages, header = range(9)
    highest = 2**64 - 1

    def word(part, index, value):
        return struct.pack("<BHQ", part, index, value)

    return {
        "whole": b"\0",
        "cut": b"\x20",
        "empty": b"\1",
        "other_magic": b"\0" + word(header, 0, 0),
        "region_moved": b"\0" + word(header, 3, highest),
        "texts_of_zeros": b"\0" + b"".join(word(text, index, 0) for index in range(20)),
        "text_outside": b"\0" + b"".join(word(subscribers, index, highest) for index in range(0, 60, 4)),
        "times": b"\0" + b"".join(word(part, index, value) for part in (publishers, subscribers, threads)
                                  for index in range(8) for value in (2**63, 2**63 - 1)),
        "events": b"\0" + b"".join(word(events, index, highest) for index in range(0, 40, 3)),
        "errors": b"\0" + word(errors, 3, highest) + word(errors, 9, 0xFF),
        "clients": b"\0" + word(clients, 1, highest) + word(pages, 0, highest),
        "ends_of_the_header": b"\0" + b"".join(word(header, 65535 - index, highest) for index in range(40)),
    }


def recordings():
    header, footer, schema, channel, message, chunk, index = range(1, 8)
    attachment, metadata, data_end, unknown = 0x09, 0x0C, 0x0F, 0x80
    magic = b"\x89MCAP0\r\n"

    def text(data):
        return struct.pack("<I", len(data)) + data

    def mapping(**entries):
        return text(b"".join(text(key.replace("_", ".", 1).encode()) + text(value) for key, value in entries.items()))

    def record(opcode, content, length=None):
        return struct.pack("<BQ", opcode, len(content) if length is None else length) + content

    def channel_of(number, topic, encoding=b"cdr", **metadata_of):
        return record(channel, struct.pack("<HH", number, 1) + text(topic) + text(encoding) + mapping(**metadata_of))

    def message_of(number, value, time=1, encapsulation=b"\0\1\0\0"):
        return record(message, struct.pack("<HIQQ", number, 0, time, time) + encapsulation + struct.pack("<q", value))

    def chunk_of(records, compression=b"", size=None, crc=0):
        size = len(records) if size is None else size
        return record(chunk, struct.pack("<QQQI", 1, 2, size, crc) + text(compression)
                      + struct.pack("<Q", len(records)) + records)

    def file(*records):
        return magic + record(header, text(b"ros2") + text(b"seed")) + b"".join(records)

    def schema_of(name, definition):
        return record(schema, struct.pack("<H", 1) + text(name) + text(b"ros2msg") + text(definition))

    int64 = schema_of(b"std_msgs/msg/Int64", b"int64 data")
    float64 = schema_of(b"std_msgs/msg/Float64", b"float64 data")
    end = record(data_end, bytes(4)) + record(footer, bytes(20)) + magic
    values = channel_of(1, b"t") + message_of(1, 5) + message_of(1, -(2**63), 2) + message_of(2, 1)
    note = record(metadata, text(b"note") + mapping(key=b"text"))
    whole, records, packed = b"\0", b"\1", b"\2"
    return {
        "whole": whole + file(int64, values, note, end), "cut": whole + file(int64, values)[:-5],
        "no_data": whole + file(end), "only_magic": whole + magic, "no_magic": whole + b"text",
        "twice": whole + file(int64, values, end, int64, values, end),
        "values": records + int64 + values + note, "chunk": records + int64 + chunk_of(values),
        "chunk_in_chunk": records + int64 + chunk_of(chunk_of(values)), "packed": packed + int64 + values + note,
        "claims_much": records + chunk_of(values, b"zstd", 2**28), "claims_too_much": records + chunk_of(values, b"zstd", 2**62),
        "checksum": records + int64 + chunk_of(values, crc=1), "lz4": records + int64 + chunk_of(values, b"lz4"),
        "long_record": records + int64 + record(message, b"", 2**63), "long_in_chunk": packed + record(message, b"", 2**63),
        "big_endian": packed + int64 + channel_of(1, b"t") + message_of(1, 1, encapsulation=bytes(4)),
        "topic_bytes": packed + int64 + channel_of(1, b"t", msgbus_topic_hex=b"ff0g") + message_of(1, 1),
        "described": packed + float64 + channel_of(1, b"t", msgbus_description=b"float64") + message_of(1, 1),
        "json": packed + int64 + channel_of(1, b"t", b"json") + record(message, bytes(22) + b"{}"),
        "times": packed + int64 + channel_of(1, b"t") + message_of(1, 1, 2**64 - 1) + message_of(1, 1, 0),
        "skipped": records + record(index, bytes(6)) + record(attachment, bytes(40)) + record(unknown, b"x") + int64 + values,
        "short": records + b"".join(record(opcode, b"\1") for opcode in range(1, 16)),
    }


def monitor_requests():
    tcp, crowded, ill, unreadable, unknown_topic, not_owner, stays_open, leaves = (1 << bit for bit in range(8))
    token = "Authorization: Bearer 0123456789abcdef\r\n"
    description = "fixed;step=1/10;unit=V"

    def request(target, method="GET", headers="", body="", version="1.1"):
        length = f"Content-Length: {len(body)}\r\n" if body else ""
        return f"{method} {target} HTTP/{version}\r\nHost: localhost\r\n{headers}{length}\r\n{body}".encode()

    def put(headers="", body=description):
        return request("/v1/topics/temperature/description", "PUT", headers, body)

    state, health = request("/v1/state"), request("/healthz")
    chunked = (b"PUT /v1/topics/a%2Fb/description HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n"
               b"5;x=y\r\nfixed\r\n11\r\n;step=1/10;unit=V\r\n0\r\nTrailer: t\r\n\r\n")
    stories = {
        "state": (0, state), "topics": (0, request("/v1/topics")), "topic": (0, request("/v1/topics/temperatur%65")),
        "other_topic": (0, request("/v1/topics/a/b%")), "subscribers": (0, request("/v1/subscribers")),
        "events": (0, request("/v1/events?a=b&after=5")), "all_events": (0, request("/v1/events?after=0")),
        "events_again": (0, request("/v1/events", headers="Last-Event-ID: 99\r\n")),
        "no_event": (0, request("/v1/events?after=-1") + request("/v1/events", headers="Last-Event-ID: x\r\n")),
        "metrics": (0, request("/metrics")), "health": (0, health), "ill": (ill, health), "put": (0, put() + state),
        "chunked": (0, chunked + health), "awaits_go_on": (0, put("Expect: 100-continue\r\n") + health),
        "awaits_in_vain": (0, put("Expect: 100-continue\r\n").replace(b"HTTP/1.1", b"HTTP/1.0")),
        "not_valid": (0, put(body="fixed;step=0")), "not_owner": (not_owner, put()),
        "no_publisher": (unknown_topic, put()), "no_room": (unknown_topic | not_owner, put()),
        "unreadable": (unreadable, state + request("/v1/topics/x") + health), "crowded": (crowded, state + health),
        "old": (0, request("/healthz", version="1.0")), "future": (0, request("/healthz", version="2.0")),
        "old_that_stays": (0, request("/healthz", headers="Connection: keep-alive\r\n", version="1.0") + state),
        "closes": (0, request("/healthz", headers="Connection: close\r\n") + state),
        "heads": (0, request("/v1/state", "HEAD") + request("/v1/events", "HEAD") + request("/x", "HEAD") + health),
        "methods": (0, request("/v1/state", "DELETE") + request("/v1/topics/a", "POST", body="x") + health),
        "elsewhere": (0, request("/") + request("http://localhost/healthz") + request("*", "OPTIONS")),
        "with_token": (tcp, request("/v1/state", headers=token) + put(token) + health),
        "without_token": (tcp, state + request("/metrics", headers=token.replace("f", "e"))),
        "other_host": (tcp, request("/v1/state", headers=token).replace(b"localhost", b"example.org")),
        "long_header": (0, request("/healthz", headers="X: " + "x" * 600 + "\r\n")),
        "long_line": (0, request("/v1/topics/" + "x" * 600)),
        "long_together": (0, request("/v1/topics/" + "x" * 300, headers="X: " + "x" * 300 + "\r\n") + health),
        "long_body": (0, put(body="x" * 600)), "long_chunk": (0, chunked.replace(b"x=y", b"x" * 5000)),
        "partial": (0, state[:-2]), "partial_body": (stays_open, put()[:-2]), "empty_lines": (0, b"\r\n\r\n" + state),
        "not_http": (0, b"\x16\x03\x01\0\0hello\r\n\r\n"), "many": (0, state * 8), "gone": (leaves, state * 8),
        "stream_gone": (leaves, request("/v1/events")), "nothing": (0, b""),
    }
    return {f"{name}_{pieces}": bytes([flags, pieces]) + text
            for name, (flags, text) in stories.items() for pieces in (0, 6)}


def command_lines():
    lines = [
        "msgbus", "msgbus --help", "msgbus --version", "msgbus pub --help", "msgbus nonsense",
        "msgbus pub topic 1 2 3", "msgbus pub topic -- -9223372036854775808 9223372036854775807",
        "msgbus pub --static -v topic 5", "msgbus pub -l topic", "msgbus pub -l topic 1",
        "msgbus pub --reconnect 1.5s topic 0x1", "msgbus pub --reconnect 0 topic 1",
        "msgbus sub --name me topic", "msgbus sub --name me -n 3 -W 200ms --json a b", "msgbus sub topic",
        "msgbus sub --name=me --static --dynamic topic", "msgbus sub --name me -n 0 topic",
        "msgbus sub --name me -W 1e12ms topic", "msgbus sub --name me -W nan topic",
        "msgbus list", "msgbus list subscribers --json", "msgbus info name --account file", "msgbus get topic -W 1.5s",
        "msgbus hz topic -n 3 --json", "msgbus top -d 200ms --sort lag --reverse", "msgbus top --once --json",
        "msgbus watch -a -n 1", "msgbus check --lag-warn 1 --age-crit 5s --format json", "msgbus check --format xml",
        "msgbus report -o file --log file", "msgbus autopsy --previous --json", "msgbus autopsy --previous --account file",
        "msgbus record file.mcap a --split 1h --max-disk 10G", "msgbus record f --match * --ring 60s --on loss --on a<1.5",
        "msgbus record f a --ring 1m --ring-bytes 1k --force -n 2", "msgbus stream a b --port 0 --any-user",
        "msgbus sub a --match [a-c]* --wait=2s --idle 1s --format %t:%v", "msgbus pub topic --now -r 0.5 --repeat forever",
        "msgbus pub -t topic -l --skip-empty --wait-topic 5s --description unit=V", "msgbus list --wait=1s",
        "msgbus play file --speed 2 --loop --topic a=b --from 1s", "msgbus inspect file --json", "msgbus export file --to csv",
        "msgbus trace topic", "msgbus doctor --json", "msgbus bench --quick", "msgbus delay topic -n 3", "msgbus dashboard",
        "msgbus errors 8", "msgbus help pub", "msgbus help nonsense", "msgbus completion bash",
        "msgbusd --mode static --group 0 --limit topics=3 --slow-subscriber a*=drop-oldest:9", "msgbusd --print-config",
        "msgbusd --check-config --config file", "msgbusd --limits", "msgbusd --retain a* --monitor 127.0.0.1:9 --bare",
        "msgbusd", "msgbusd --static", "msgbusd --dynamic --static", "msgbusd --log-level debug",
        "msgbusd --log-level=4 --no-parked-waits --no-flush-wake", "msgbusd --ready-fd 1", "msgbusd --ready-fd -1",
        "msgbusd --log-level=none", "msgbusd --help", "msgbusd --version", "msgbusd extra",
    ]
    return {f"line_{number:02}": line.replace(" ", "\0").encode() for number, line in enumerate(lines)}


def main():
    folder = Path(sys.argv[1])
    for fuzzer, seeds in (("fuzz_request_record", request_records()), ("fuzz_shared_page", shared_pages()),
                          ("fuzz_join", joins()), ("fuzz_hostile_server", hostile_servers()),
                          ("fuzz_account_file", account_files()),
                          ("fuzz_recording", recordings()), ("fuzz_monitor_request", monitor_requests()),
                          ("fuzz_command_line", command_lines())):
        (folder / fuzzer).mkdir(parents=True, exist_ok=True)
        for name, seed in seeds.items():
            (folder / fuzzer / name).write_bytes(seed)
        (folder / f"{fuzzer}.list").write_text(",".join(str(folder / fuzzer / name) for name in seeds))


if __name__ == "__main__":
    main()
