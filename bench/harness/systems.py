"""The systems compared: how each server starts, and what its figures mean."""

import dataclasses
import os
import shutil
import socket

from .processes import Child, Failure, wait_for

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
FETCHED = os.path.join(ROOT, ".deps", "bench", "usr", "sbin")     # what bench/fetch_nats brings


@dataclasses.dataclass(frozen=True)
class System:
    """One bus. `start(context)` returns (server process or None, address for its driver)."""
    name: str
    label: str
    server: str             # the program, looked up beside the drivers, in FETCHED and on PATH
    start: object
    brokered: bool          # a server is in the path of every value
    acknowledges: bool      # a publish returns on a reply from the server
    acknowledgement: str    # what it means that a publish has returned
    no_loss: str            # how loss is prevented
    packages: str           # Debian's; the first one is of the version that is measured
    version_option: str = ""            # makes the program print its version
    most_subscribers: int = 1_000_000   # the most that one publisher can have
    variant: str = ""                   # the system it is a variant of: same driver, takes part in M1 to M4 only
    leftovers: tuple = ()               # files outside its directory that a stopped driver leaves behind

    @property
    def driver_program(self):
        return f"bench_{self.variant or self.name}"

    @property
    def ours(self):
        return OURS in (self.name, self.variant)

    def missing(self, bin_directory):
        """The reason why this machine cannot measure the system, or None."""
        needs = " (./dev bench-setup installs it)" if self.packages else ""
        if not os.access(os.path.join(bin_directory, self.driver_program), os.X_OK):
            return f"its driver {self.driver_program} was not built{needs}"
        if self.program(bin_directory) is None:
            return f"{self.server} was not found{needs}"
        return None

    def program(self, bin_directory):
        return shutil.which(self.server, path=os.pathsep.join((bin_directory, FETCHED, os.environ.get("PATH", ""))))


@dataclasses.dataclass(frozen=True)
class Context:
    """Where and how a server runs."""
    program: str
    directory: str
    cpus: object

    def path(self, name):
        return os.path.join(self.directory, name)

    def write(self, name, text):
        with open(self.path(name), "w", encoding="utf-8") as file:
            file.write(text)
        return self.path(name)

    def child(self, arguments, environment=None):
        return Child("server", [self.program, *arguments], self.directory, self.cpus, environment)


def _accepts(path):
    def check():
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as probe:
            return probe.connect_ex(path) == 0
    return check


def _started(server, ready, what):
    """Waits until a server is ready. Ends the server when that takes too long."""
    try:
        wait_for(ready, what, server)
    except Failure:
        server.stop()
        raise
    return server


# As with the other buses, a subscriber that falls behind in a benchmark is not cut.
_UNLIMITED_QUEUES = [option for limit in ("values", "bytes", "bytes-per-process", "bytes-total")
                     for option in ("--limit", f"queued-{limit}={2**31 - 1}")]


def _start_msgbus(*options):
    def start(context):
        directory = context.path("runtime")
        os.mkdir(directory, 0o700)
        server = context.child([*options, *_UNLIMITED_QUEUES, "--log-level", "warning", "--ready-fd", "1"],
                               {**os.environ, "BORVEN_RUNTIME_DIR": directory})
        try:
            server.line(20)
        except Failure:
            server.stop()
            raise
        return server, directory
    return start


def _start_redis(context):
    # Unix socket instead of TCP, no persistence: Redis manual, "Diagnosing latency issues". Without a limit on the output
    # buffers of subscribers, a slow one is not disconnected: redis.conf, client-output-buffer-limit.
    path = context.path("socket")
    server = context.child(["--port", "0", "--unixsocket", path, "--save", "", "--appendonly", "no",
                            "--client-output-buffer-limit", "pubsub 0 0 0", "--loglevel", "warning",
                            "--dir", context.directory])
    return _started(server, _accepts(path), "its socket"), path


def _start_nats(context):
    # NATS manual, "Server configuration", "Limits": a slow consumer is disconnected when it has more than max_pending bytes
    # waiting, or when a write takes longer than write_deadline.
    configuration = context.write("nats.conf", f"""
host: 127.0.0.1
port: -1
ports_file_dir: "{context.directory}"
max_pending: 4GB
write_deadline: "120s"
""")
    server = context.child(["-c", configuration])
    ports = context.path(f"nats-server_{server.pid}.ports")
    _started(server, lambda: os.path.exists(ports) and os.path.getsize(ports) > 0, "its ports file")
    with open(ports, encoding="utf-8") as file:
        text = file.read()
    return server, "nats://" + text.split("nats://", 1)[1].split('"', 1)[0]


def _start_mosquitto(context):
    # mosquitto.conf(5): 0 is no limit for max_queued_messages, above which messages are dropped, and for
    # max_inflight_messages. set_tcp_nodelay has no meaning on a unix socket.
    path = context.path("socket")
    configuration = context.write("mosquitto.conf", f"""
listener 0 {path}
user root
allow_anonymous true
persistence false
max_queued_messages 0
max_inflight_messages 0
log_type error
""")
    server = context.child(["-c", configuration])
    return _started(server, _accepts(path), "its socket"), path


def _start_dbus(context):
    # dbus-daemon(1), "limit": the daemon drops a connection that exceeds them.
    path = context.path("socket")
    limits = ("max_incoming_bytes", "max_outgoing_bytes", "max_message_size", "service_start_timeout",
              "max_completed_connections", "max_incomplete_connections", "max_connections_per_user",
              "max_match_rules_per_connection", "max_replies_per_connection")
    configuration = context.write("dbus.conf", f"""
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path={path}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default"><allow send_destination="*"/><allow receive_sender="*"/><allow own="*"/></policy>
  {"".join(f'<limit name="{name}">1000000000</limit>' for name in limits)}
</busconfig>
""")
    server = context.child(["--config-file=" + configuration, "--nofork", "--nopidfile", "--print-address"])
    return _started(server, _accepts(path), "its socket"), "unix:path=" + path


def _start_zeromq(context):
    # zmq_setsockopt(3): the driver sets ZMQ_SNDHWM and ZMQ_RCVHWM to 0, no limit, without which PUB sockets drop messages.
    # One I/O thread is what zmq_ctx_set(3) advises below one gigabyte per second.
    server = context.child(["serve", "--address", context.directory])
    return _started(server, _accepts(context.path("in")), "its socket"), context.directory


def _start_iceoryx(context):
    configuration = context.write("roudi.toml", """
[general]
version = 1

[[segment]]

[[segment.mempool]]
size = 64
count = 100000
""")
    server = context.child(["-c", configuration, "-m", "off", "-l", "warning"])
    try:
        while "ready for clients" not in server.line(20):
            pass
    except Failure:
        server.stop()
        raise
    return server, "roudi"


def _start_cyclonedds(context):
    # The manual, "Configuration file reference". Only loopback, which Linux does not mark as capable of multicast, so that
    # the processes find each other through the list of peers. A writer asks for an acknowledgement with a heartbeat, at
    # most one per HeartbeatInterval (100 ms by default): with the least interval, it goes out with each value. Shared memory
    # needs a history that keeps only the last values ("Limitations of shared memory"), so it would lose some.
    context.write("cyclonedds.xml", """
<CycloneDDS><Domain Id="any">
  <General><Interfaces><NetworkInterface name="lo"/></Interfaces><AllowMulticast>false</AllowMulticast></General>
  <Discovery><ParticipantIndex>auto</ParticipantIndex><Peers><Peer address="127.0.0.1"/></Peers></Discovery>
  <Internal><HeartbeatInterval min="1 us" minsched="1 us" max="100 ms">1 us</HeartbeatInterval></Internal>
</Domain></CycloneDDS>
""")
    return None, context.directory


OURS = "msgbus"
_OURS_ACKNOWLEDGED = "the server's reply to Push: the value is in the inbound queue"
_OURS_NO_LOSS = "a full inbound queue (1025 values) refuses the push, which is repeated; queues of subscribers hold up to 2 GiB"

SYSTEMS = (
    System(OURS, "this bus", "msgbusd", _start_msgbus(), True, True, _OURS_ACKNOWLEDGED, _OURS_NO_LOSS, "",
           version_option="--version"),
    System("msgbus-static", "this bus, static", "msgbusd", _start_msgbus("--static"), True, True, _OURS_ACKNOWLEDGED,
           _OURS_NO_LOSS, "", version_option="--version", variant=OURS),
    System("redis", "Redis", "redis-server", _start_redis, True, True,
           "the reply to PUBLISH: the value is in every subscriber's output buffer",
           "output buffers of subscribers without a limit, persistence off, unix socket",
           "redis-server libhiredis-dev", version_option="--version"),
    System("nats", "NATS", "nats-server", _start_nats, True, True,
           "the PONG to a PING sent behind the PUB (flush): the value has been routed",
           "4 GB of pending data per connection before the server drops it, no limit in the client, loopback TCP",
           "libnats-dev", version_option="--version"),
    System("mosquitto", "mosquitto", "mosquitto", _start_mosquitto, True, True,
           "PUBACK of a QoS 1 publish",
           "QoS 1 to the subscriber as well, its queue without a limit, unix socket",
           "mosquitto libmosquitto-dev", version_option="-h"),
    System("dbus", "D-Bus", "dbus-daemon", _start_dbus, True, True,
           "the daemon's reply to a Ping sent behind the signal: the signal has been routed",
           "limits of a private daemon raised to 1 GB, unix socket",
           "dbus-daemon libsystemd-dev", version_option="--version"),
    System("zeromq", "ZeroMQ proxy", "bench_zeromq", _start_zeromq, True, True,
           "the proxy's reply (REQ to ROUTER), sent when the value is in every subscriber's queue (XPUB)",
           "no high-water marks, unix sockets",
           "libzmq3-dev cppzmq-dev"),
    System("iceoryx", "iceoryx", "iox-roudi", _start_iceoryx, False, False,
           "none: publish returns when the value is in every subscriber's queue in shared memory; no broker in the path",
           "a full queue (256 values) blocks the publisher",
           "iceoryx libiceoryx-posh-dev", version_option="--version", most_subscribers=256,
           leftovers=("/tmp/bench-{pid}", "/tmp/bench-{pid}.lock")),
    System("cyclonedds", "Cyclone DDS", "bench_cyclonedds", _start_cyclonedds, False, True,
           "dds_wait_for_acks: the process of every reader has the value; no broker in the path",
           "reliable writers and readers that keep all values; loopback UDP",
           "cyclonedds-dev cyclonedds-tools"),
)
