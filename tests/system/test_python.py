"""The Python module with a real server: each call, each error with its code, signals, asyncio, fork."""

import asyncio
import copy
import gc
import os
import pickle
import select
import shutil
import signal
import subprocess
import sys
import sysconfig
import threading
import time
import unittest.mock

from harness import BIN, DONE, FAILED, MODE, PATIENCE, BusTest, main, wait_until

MODULE = os.path.join(os.path.dirname(os.path.abspath(__file__)), os.pardir, os.pardir, "client", "python")
LIBRARY = os.path.join(BIN, os.pardir, "lib", "libmsgbus.so.0")
sys.path.insert(0, MODULE)
os.environ.setdefault("MSGBUS_LIBRARY", LIBRARY)
os.environ.setdefault("PYTHONDONTWRITEBYTECODE", "1")

import msgbus  # noqa: E402
from msgbus._library import library  # noqa: E402


class PythonTest(BusTest):
    """A test whose own process uses the bus, too."""

    def setUp(self):
        super().setUp()
        variables = unittest.mock.patch.dict(os.environ, BORVEN_RUNTIME_DIR=self.runtime, BORVEN_BUS=MODE)
        variables.start()
        self.addCleanup(variables.stop)
        self.environment["PYTHONPATH"] = MODULE

    def subscriber(self, *topics, name="reader", **options):
        subscriber = msgbus.Subscriber(name, topics, **options)
        self.addCleanup(subscriber.close)
        return subscriber

    def publisher(self, topic, **options):
        publisher = msgbus.Publisher(topic, **options)
        self.addCleanup(self.close_quietly, publisher)
        return publisher

    @staticmethod
    def close_quietly(publisher):
        try:
            publisher.close()
        except msgbus.Error:
            pass  # the server is gone

    def python(self, text):
        """Starts a program that has the module."""
        return self.start(sys.executable, "-u", "-c", "import msgbus, os, signal, sys, threading, time\n" + text)

    def look(self, *arguments):
        """Returns: what the command of msgbus prints."""
        return subprocess.run([f"{BIN}/msgbus", *arguments], env=self.environment, timeout=PATIENCE, text=True,
                              capture_output=True, check=True).stdout

    def assert_raises(self, kind, code, call, *arguments, **options):
        """Fails unless the call raises exactly this. Returns: the exception."""
        with self.assertRaises(msgbus.Error) as caught:
            call(*arguments, **options)
        self.assertIs(type(caught.exception), kind, caught.exception)
        self.assertEqual(caught.exception.code, code)
        self.assertGreater(len(str(caught.exception)), 0)
        return caught.exception


class PythonModule(PythonTest):

    def test_values_arrive(self):
        self.server()
        subscriber = self.subscriber("heat", "rain", name="display")
        heat = self.publisher("heat")
        rain = self.publisher("rain")
        self.assertEqual((heat.topic, subscriber.name), ("heat", "display"))
        self.assertNotEqual(heat.id, rain.id)
        self.assertGreaterEqual(subscriber.id, 0)
        heat.push(-2**63)
        self.assertEqual(subscriber.next(), ("heat", -2**63))
        rain.push(2**63 - 1, timeout=PATIENCE)
        self.assertEqual(subscriber.next(timeout=PATIENCE), msgbus.Message("rain", 2**63 - 1))
        self.assertTrue(rain.try_push(True))
        self.assertEqual(heat.push_all([1, 2]), 2)
        self.assertEqual(heat.push_all(iter(range(3, 5)), timeout=PATIENCE), 2)
        self.assertEqual(heat.push_all([]), 0)
        heat.drain()
        heat.drain(timeout=PATIENCE)
        values = [subscriber.next(PATIENCE) for _ in range(5)]
        self.assertEqual([message.value for message in values if message.topic == "heat"], [1, 2, 3, 4])
        self.assertEqual(subscriber.lost(), msgbus.Loss(0, 0, 0))

    def test_values_of_a_long_stream_are_complete_and_in_order(self):
        self.server()
        subscriber = self.subscriber("t")
        publisher = self.publisher("t")
        thread = threading.Thread(target=publisher.push_all, args=(range(30000),))
        thread.start()
        for expected, (topic, value) in enumerate(subscriber):
            self.assertEqual((topic, value), ("t", expected))
            if expected == 29999:
                break
        thread.join()

    def test_a_topic_need_not_be_ascii_nor_utf_8(self):
        self.server()
        for topic in ("Wärme", os.fsdecode(b"\xff\x80")):
            subscriber = self.subscriber(topic)
            self.publisher(topic).push(1)
            self.assertEqual(subscriber.next(PATIENCE), (topic, 1))
        long = "x" + 511 * "ä"
        subscriber = self.subscriber(long)
        self.publisher(long).push(1)
        self.assertEqual(os.fsencode(subscriber.next(PATIENCE).topic), os.fsencode(long)[:1022])

    def test_values_carry_floats(self):
        for number in (0.0, -0.0, 1.5, -3.25e300, float("inf")):
            self.assertEqual(str(msgbus.decode_double(msgbus.encode_double(number))), str(number))
        self.assertEqual(msgbus.encode_double(1.0), 0x3FF0000000000000)
        self.server()
        subscriber = self.subscriber("t")
        self.publisher("t").push(msgbus.encode_double(-21.5))
        self.assertEqual(msgbus.decode_double(subscriber.next(PATIENCE).value), -21.5)

    def test_a_loop_ends_after_a_cancel(self):
        self.server()
        subscriber = self.subscriber("t")
        publisher = self.publisher("t")
        received = []

        def read():
            for message in subscriber:
                received.append(message.value)

        thread = threading.Thread(target=read)
        thread.start()
        publisher.push_all([1, 2, 3])
        wait_until(self, lambda: len(received) == 3, "the values")
        subscriber.cancel()
        thread.join(PATIENCE)
        self.assertFalse(thread.is_alive())
        self.assert_raises(msgbus.Closed, -106, subscriber.next)
        self.assertEqual(subscriber.id, -1)
        subscriber.cancel()
        subscriber.close()
        subscriber.close()
        self.assert_raises(msgbus.Closed, -106, subscriber.next, timeout=0)
        self.assert_raises(msgbus.Closed, -106, subscriber.lost)
        self.assert_raises(msgbus.Closed, -106, subscriber.fileno)
        self.assertEqual(list(subscriber), [])

    def test_a_cancel_drops_what_was_not_taken(self):
        self.server()
        subscriber = self.subscriber("t")
        self.publisher("t").push_all(range(100))
        subscriber.next(PATIENCE)
        subscriber.cancel()
        self.assertEqual(list(subscriber), [])

    def test_close_from_another_thread_ends_a_wait(self):
        self.server()
        for _ in range(20):
            subscriber = self.subscriber("t")
            thread = threading.Thread(target=list, args=(subscriber,))
            thread.start()
            subscriber.close()
            thread.join(PATIENCE)
            self.assertFalse(thread.is_alive())

    def test_a_loop_that_meets_the_close_of_another_thread_ends(self):
        self.server()
        subscriber = self.subscriber("t")
        destroy = library.msgbus_subscriber_destroy
        received = []

        def read_and_destroy(handle):
            thread = threading.Thread(target=lambda: received.append(list(subscriber)))
            thread.start()
            thread.join()
            destroy(handle)

        with unittest.mock.patch.object(library, "msgbus_subscriber_destroy", read_and_destroy):
            subscriber.close()
        self.assertEqual(received, [[]])

    def test_blocks_and_the_end_of_an_object_unregister(self):
        self.server()
        with msgbus.Publisher("t") as publisher:
            self.assertGreaterEqual(publisher.id, 0)
        self.assertEqual(publisher.id, -1)
        publisher.close()
        self.assert_raises(msgbus.Closed, -106, publisher.push, 1)
        self.assert_raises(msgbus.Closed, -106, publisher.push_all, [1])
        self.assert_raises(msgbus.Closed, -106, publisher.try_push, 1)
        self.assert_raises(msgbus.Closed, -106, publisher.drain)
        publisher = msgbus.Publisher("t")
        del publisher
        gc.collect()
        self.publisher("t")
        with msgbus.Subscriber("reader", ["t"]) as subscriber:
            self.assertGreaterEqual(subscriber.id, 0)
        self.assertEqual(subscriber.id, -1)

    def test_conflicts(self):
        self.server()
        self.publisher("t")
        refusal = self.assert_raises(msgbus.Refused, 8, msgbus.Publisher, "t")
        self.assertIn("'t'", str(refusal))
        self.assert_raises(msgbus.Refused, 8, msgbus.Subscriber, "n", ["t", "t"])

    def test_arguments_that_cannot_be_used_are_refused(self):
        self.server()
        for topic in ("", "x" * 1024, "a\0b"):
            self.assert_raises(msgbus.InvalidArgument, -105, msgbus.Publisher, topic)
            self.assert_raises(msgbus.InvalidArgument, -105, msgbus.Subscriber, topic, ["t"])
            self.assert_raises(msgbus.InvalidArgument, -105, msgbus.Subscriber, "n", [topic])
        self.assert_raises(msgbus.InvalidArgument, -105, msgbus.Publisher, "t", call_timeout=-1)
        self.assert_raises(msgbus.InvalidArgument, -105, msgbus.Subscriber, "n", ["t"], route="scenic")
        for call in (lambda: msgbus.Publisher(b"t"), lambda: msgbus.Subscriber("n", "topics"),
                     lambda: msgbus.Subscriber("n", [1])):
            self.assertRaises(TypeError, call)
        publisher = self.publisher("t")
        subscriber = self.subscriber("t")
        for value in (2**63, -2**63 - 1):
            self.assertRaises(OverflowError, publisher.push, value)
            self.assertRaises(OverflowError, publisher.try_push, value)
            self.assertRaises(OverflowError, publisher.push_all, [1, value])
        self.assertRaises(TypeError, publisher.push, 1.0)
        self.assertRaises(TypeError, publisher.push, "1")
        self.assert_raises(msgbus.TimedOut, -104, subscriber.next, timeout=0)

    def test_a_time_limit(self):
        self.server()
        subscriber = self.subscriber("t")
        for timeout in (-1, 0, 0.001, 0.05):
            self.assert_raises(msgbus.TimedOut, -104, subscriber.next, timeout)
        self.assertRaises(TimeoutError, subscriber.next, 0)
        self.publisher("t").push(1)
        self.assertEqual(subscriber.next(float("inf")).value, 1)

    def test_times_that_are_none_are_refused(self):
        self.server()
        publisher = self.publisher("t")
        subscriber = self.subscriber("t")
        nan = float("nan")
        for call in (subscriber.next, publisher.drain, lambda moment: publisher.push(1, moment),
                     lambda moment: publisher.push_all([1], moment), lambda moment: asyncio.run(subscriber.anext(moment)),
                     lambda moment: msgbus.Subscriber("n", ["u"], call_timeout=moment)):
            self.assert_raises(msgbus.InvalidArgument, -105, call, nan)
            self.assertRaises(TypeError, call, "1")
        for moment in (-1e-9, -1e300, -2**5000, -float("inf")):
            error = self.assert_raises(msgbus.InvalidArgument, -105, msgbus.Publisher, "u", wait_for_topic=moment)
            self.assertEqual(str(error), "the wait_for_topic is negative")
        for moment in (1e300, 2**5000, float("inf")):
            publisher.push(1, moment)
            self.assertEqual(subscriber.next(moment).value, 1)
            self.publisher("u", call_timeout=moment, wait_for_topic=moment).close()
        for moment in (-1e300, -2**5000, -float("inf")):
            self.assert_raises(msgbus.TimedOut, -104, subscriber.next, moment)

    def test_a_copy_would_share_the_registration(self):
        self.server()
        for end in (self.publisher("t"), self.subscriber("t")):
            for call in (copy.copy, copy.deepcopy, pickle.dumps):
                with self.assertRaisesRegex(TypeError, "cannot be copied or pickled"):
                    call(end)

    def test_a_module_in_a_prefix_finds_the_library_there(self):
        prefix = os.path.join(os.path.dirname(self.runtime), "prefix")
        packages = os.path.join(prefix, "lib", "python3", "dist-packages")
        shutil.copytree(os.path.join(MODULE, "msgbus"), os.path.join(packages, "msgbus"))
        self.environment["PYTHONPATH"] = packages
        del self.environment["MSGBUS_LIBRARY"]
        for folder in (sysconfig.get_config_var("MULTIARCH"), "."):
            home = os.path.join(prefix, "lib", folder)
            os.makedirs(home, exist_ok=True)
            copy = shutil.copy(LIBRARY, home)
            beneath = shutil.copy(os.path.join(os.path.dirname(LIBRARY), "libborven_host.so.0"), home)
            program = self.python("from msgbus._library import library; print(os.path.realpath(library._name))")
            program.expect(os.path.realpath(copy))
            program.expect_exit(DONE)
            os.unlink(copy)
            os.unlink(beneath)

    def test_without_the_library_the_reason_is_told(self):
        self.environment["MSGBUS_LIBRARY"] = "/nowhere/libmsgbus.so.0"
        program = self.python("")
        program.expect_error("ImportError: cannot load libmsgbus.so.0: /nowhere/libmsgbus.so.0")
        program.expect_exit(FAILED)

    def test_errors_survive_pickling(self):
        for kind, code in ((msgbus.Refused, 9), (msgbus.TimedOut, -104), (msgbus.NoMemory, -107)):
            error = pickle.loads(pickle.dumps(kind("a sentence", code)))
            self.assertEqual((type(error), str(error), error.code), (kind, "a sentence", code))

    def test_without_a_server(self):
        self.assert_raises(msgbus.NoServer, -101, msgbus.Publisher, "t")
        self.assert_raises(msgbus.NoServer, -101, msgbus.Subscriber, "n", ["t"], wait_for_server=0.1)

    def test_waits_for_a_server_and_for_a_topic(self):
        notices = []
        waiting = threading.Event()

        def note(notice, sentence):
            notices.append((notice, bool(sentence)))
            waiting.set()

        ready = []
        thread = threading.Thread(target=lambda: ready.append(
            msgbus.Publisher("t", wait_for_server=PATIENCE, on_notice=note)))
        thread.start()
        self.assertTrue(waiting.wait(PATIENCE))
        self.server()
        thread.join(PATIENCE)
        self.assertEqual(notices, [(msgbus.Notice.WAITING_FOR_SERVER, True)])

        notices.clear()
        waiting.clear()
        self.assert_raises(msgbus.Refused, 8, msgbus.Publisher, "t", wait_for_topic=0.1)
        thread = threading.Thread(target=lambda: ready.append(
            msgbus.Publisher("t", wait_for_topic=PATIENCE, on_notice=note)))
        thread.start()
        self.assertTrue(waiting.wait(PATIENCE))
        ready[0].close()
        thread.join(PATIENCE)
        self.assertEqual(notices, [(msgbus.Notice.WAITING_FOR_TOPIC, True)])
        ready[1].close()

    def test_a_killed_server_is_reported(self):
        server = self.server()
        subscriber = self.subscriber("t")
        publisher = self.publisher("t")
        failures = []

        def read():
            try:
                subscriber.next()
            except msgbus.Error as error:
                failures.append(error)

        thread = threading.Thread(target=read)
        thread.start()
        server.kill()
        thread.join(PATIENCE)
        self.assertIs(type(failures[0]), msgbus.ServerGone)
        self.assertEqual(failures[0].code, -102)
        self.assert_raises(msgbus.ServerGone, -102, subscriber.next)
        self.assert_raises(msgbus.ServerGone, -102, publisher.push, 1)
        error = self.assert_raises(msgbus.ServerGone, -102, publisher.push_all, [1, 2])
        self.assertEqual(error.pushed, 0)
        with self.assertRaises(msgbus.ServerGone):
            with publisher:
                publisher.push(1)

    def test_a_server_that_does_not_answer_holds_nobody(self):
        server = self.server()
        subscriber = self.subscriber("t")
        publisher = self.publisher("t")
        impatient = self.publisher("u", call_timeout=0.05)
        server.pause()
        self.assert_raises(msgbus.NoAnswer, -103, publisher.push, 1, timeout=0.05)
        self.assert_raises(msgbus.TimedOut, -104, publisher.drain, timeout=0.01)
        self.assert_raises(msgbus.NoAnswer, -103, impatient.push, 1)
        self.assert_raises(msgbus.TimedOut, -104, subscriber.next, 0.01)
        server.signal(signal.SIGCONT)
        publisher.drain(PATIENCE)
        self.assertEqual(subscriber.next(PATIENCE), ("t", 1))

    def test_a_cancel_that_waits_for_its_answer_holds_no_receiver(self):
        server = self.server()
        subscriber = self.subscriber("t", call_timeout=PATIENCE)
        server.pause()
        thread = threading.Thread(target=subscriber.cancel)
        thread.start()
        wait_until(self, lambda: subscriber._is_canceled, "the thread to cancel")
        self.assert_raises(msgbus.Closed, -106, subscriber.next, 0)
        self.assertTrue(thread.is_alive())
        server.signal(signal.SIGCONT)
        thread.join()

    def test_a_restarted_server_is_found(self):
        notices = []
        server = self.server()
        options = {"reconnect_for": PATIENCE, "on_notice": lambda notice, sentence: notices.append(notice)}
        subscriber = self.subscriber("t", **options)
        publisher = self.publisher("t", **options)
        publisher.push(1)
        self.assertEqual(subscriber.next(PATIENCE).value, 1)
        server.kill()
        self.assert_raises(msgbus.TimedOut, -104, subscriber.next, 0.01)
        self.server()
        publisher.push(2)
        self.assertEqual(subscriber.next(PATIENCE).value, 2)
        self.assertEqual(sorted(notices), [msgbus.Notice.SERVER_LOST] * 2 + [msgbus.Notice.REGISTERED_AGAIN] * 2)
        self.assertEqual(subscriber.lost().reconnections, 1)

    def test_what_a_notice_raises_the_call_raises(self):
        def fail(notice, sentence):
            raise LookupError(sentence)

        self.assertRaises(LookupError, msgbus.Publisher, "t", wait_for_server=PATIENCE, on_notice=fail)
        server = self.server()
        subscriber = self.subscriber("t", reconnect_for=PATIENCE, on_notice=fail)
        publisher = self.publisher("t", reconnect_for=PATIENCE, on_notice=fail)
        server.kill()
        self.server()
        self.assertRaises(LookupError, publisher.push, 1)
        self.assertRaises(LookupError, subscriber.next)

    def test_publishers_that_come_leave_and_die_are_told_in_order_with_the_values(self):
        self.server()
        events = []
        subscriber = self.subscriber("t", on_publisher=events.append)
        with self.publisher("t") as publisher:
            first = publisher.id
            publisher.push_all([1, 2])
        program = self.python("""
publisher = msgbus.Publisher('t')
publisher.push(3)
print(publisher.id)
time.sleep(1000)
""")
        second = int(program.next_line())
        for _ in range(3):
            events.append(subscriber.next(PATIENCE).value)
        program.kill()
        while len(events) < 8:
            with self.assertRaises(msgbus.TimedOut):
                subscriber.next(0.01)
        state = msgbus.PublisherState
        self.assertEqual(events, [("t", state.NONE, 0), ("t", state.CAME, first), 1, 2, ("t", state.LEFT, first),
                                  ("t", state.CAME, second), 3, ("t", state.DIED, second)])

    def test_what_a_report_raises_hides_no_other(self):
        self.server()
        events = []

        def on_publisher(notice):
            events.append(notice.state)
            raise LookupError

        subscriber = self.subscriber("t", on_publisher=on_publisher, stale_after=0.01)
        publisher = self.publisher("t")
        publisher.push(1)
        for _ in range(2):
            self.assertRaises(LookupError, subscriber.next, PATIENCE)
        self.assertEqual(subscriber.next(PATIENCE), ("t", 1))
        self.assertRaises(LookupError, subscriber.next, PATIENCE)
        state = msgbus.PublisherState
        self.assertEqual(events, [state.NONE, state.CAME, state.SILENT])

    def test_a_publisher_learns_how_many_subscribers_there_are(self):
        self.server()
        counts = []
        publisher = self.publisher("t", on_subscribers=counts.append)
        other = self.publisher("u")
        self.assertEqual((publisher.subscribers(), other.subscribers()), (0, 0))
        with self.subscriber("t", "u"):
            wait_until(self, lambda: (publisher.subscribers(), other.subscribers()) == (1, 1), "both know of the subscriber")
        wait_until(self, lambda: publisher.subscribers() == 0, "the subscriber has gone")
        self.assertEqual(counts, [0, 1, 0])

    def test_a_subscriber_may_start_with_the_last_value(self):
        self.server()
        publisher = self.publisher("t")
        publisher.push_all([1, 2])
        subscriber = self.subscriber("t", start_with_last=True)
        publisher.push(3)
        self.assertEqual([subscriber.next(PATIENCE).value for _ in range(2)], [2, 3])

    def test_a_publisher_describes_its_values(self):
        self.server()
        self.publisher("t", description="fixed;step=1/10;unit=V").push(215)
        wait_until(self, lambda: self.look("get", "t").startswith("215 (21.5 V) "), "the description")
        self.assertRaises(msgbus.InvalidArgument, self.publisher, "u", description="no type")

    def test_one_that_left_too_much_unread_is_told(self):
        self.server("--slow-subscriber", "reader=cut:100")
        subscriber = self.subscriber("t")
        self.publisher("t").push_all(range(5000))
        received = []
        with self.assertRaises(msgbus.Refused) as caught:
            received.extend(iter(lambda: subscriber.next(PATIENCE), None))
        self.assertEqual(caught.exception.code, 9)
        self.assertEqual(subscriber.lost().reason, 9)
        self.assertGreater(subscriber.lost().values, 0)

    def test_the_descriptor_announces_values(self):
        self.server()
        subscriber = self.subscriber("t")
        publisher = self.publisher("t")
        self.assertRaises(msgbus.TimedOut, subscriber.next, 0)
        self.assertGreaterEqual(subscriber.fileno(), 0)
        publisher.push_all(range(100))
        received = []
        while len(received) < 100:  # one value at a time, although more have come
            self.assertEqual(select.select([subscriber], [], [], PATIENCE)[0], [subscriber])
            try:
                received.append(subscriber.next(0).value)
            except msgbus.TimedOut:
                pass  # readable without a reason
        self.assertEqual(received, list(range(100)))
        subscriber.cancel()
        self.assertEqual(select.select([subscriber], [], [], PATIENCE)[0], [subscriber])
        self.assert_raises(msgbus.Closed, -106, subscriber.next, 0)

    def test_a_second_receiver_at_once_is_refused(self):
        self.server()
        subscriber = self.subscriber("t")
        thread = threading.Thread(target=list, args=(subscriber,))
        thread.start()
        wait_until(self, lambda: subscriber._receiver, "the thread to wait")
        self.assertRaises(RuntimeError, subscriber.next, 0)
        subscriber.cancel()
        thread.join(PATIENCE)

    def test_threads_take_turns_on_a_publisher(self):
        self.server()
        subscriber = self.subscriber("t")
        publisher = self.publisher("t")
        threads = [threading.Thread(target=publisher.push_all, args=([number] * 500,)) for number in range(4)]
        for thread in threads:
            thread.start()
        values = [subscriber.next(PATIENCE).value for _ in range(2000)]
        for thread in threads:
            thread.join()
        self.assertEqual([values.count(number) for number in range(4)], [500] * 4)

    def test_a_child_leaves_the_registrations_of_its_parent_alone(self):
        self.server()
        subscriber = self.subscriber("t")
        publisher = self.publisher("t")
        child = os.fork()
        if child == 0:
            status = 1
            try:
                self.assertRaises(msgbus.ServerGone, publisher.push, 7)
                self.assertRaises(msgbus.ServerGone, subscriber.next)
                subscriber.close()
                with msgbus.Subscriber("child", ["u"]) as own, msgbus.Publisher("u") as other:
                    other.push(8)
                    self.assertEqual(own.next(PATIENCE), ("u", 8))
                status = 0
            finally:
                os._exit(status)
        self.assertEqual(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), 0)
        publisher.push(9)
        self.assertEqual(subscriber.next(PATIENCE), ("t", 9))

    def test_a_child_does_not_wait_for_a_thread_of_its_parent(self):
        server = self.server()
        subscriber = self.subscriber("t")
        other = self.subscriber("t")
        publisher = self.publisher("t", call_timeout=PATIENCE)
        publisher.push_all(range(10))
        subscriber.next(PATIENCE)  # and the others are taken with it
        server.pause()
        threads = [threading.Thread(target=publisher.push, args=(10,)), threading.Thread(target=list, args=(other,))]
        for thread in threads:
            thread.start()
        wait_until(self, lambda: other._receiver and "unlocked" not in repr(publisher._lock), "the threads to call")
        child = os.fork()
        if child == 0:
            status = 1
            try:
                for call in (subscriber.next, lambda: next(subscriber), other.next, lambda: publisher.push(1),
                             publisher.close):
                    self.assertRaises(msgbus.ServerGone, call)
                subscriber.close()
                other.close()
                status = 0
            finally:
                os._exit(status)
        self.assertEqual(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), 0)
        server.signal(signal.SIGCONT)
        self.assertEqual([subscriber.next(PATIENCE).value for _ in range(10)], list(range(1, 11)))
        other.cancel()
        for thread in threads:
            thread.join()


class PythonSignals(PythonTest):

    READS = """
subscriber = msgbus.Subscriber("reader", ["t"])
publisher = msgbus.Publisher("t")
"""

    def test_ctrl_c_ends_a_wait(self):
        self.server()
        for call in ("subscriber.next()", "subscriber.next(3600)", "list(subscriber)"):
            program = self.python(self.READS + f"""
try:
    print("ready")
    {call}
except KeyboardInterrupt:
    print("interrupted", subscriber.id >= 0)
publisher.push(5)
print(*subscriber.next())
""")
            program.expect("ready")
            program.signal(signal.SIGINT)
            program.expect("interrupted True")
            program.expect("t 5")
            program.expect_exit(DONE)

    def test_ctrl_c_behind_a_take_loses_no_value(self):
        self.server()
        subscriber = self.subscriber("t")
        self.publisher("t").push_all(range(1000))
        take = library.msgbus_subscriber_take
        received = []

        def take_and_interrupt(*arguments):
            take(*arguments)
            raise KeyboardInterrupt

        while len(received) < 1000:
            with unittest.mock.patch.object(library, "msgbus_subscriber_take", take_and_interrupt):
                self.assertRaises(KeyboardInterrupt, subscriber.next)
            received.append(subscriber.next(PATIENCE).value)
            while subscriber._ready:
                received.append(subscriber.next().value)
        self.assertEqual(received, list(range(1000)))

    def test_ctrl_c_before_a_take_repeats_no_value(self):
        self.server()
        subscriber = self.subscriber("t")
        self.publisher("t").push_all([1, 2])
        self.assertEqual([subscriber.next(PATIENCE).value for _ in range(2)], [1, 2])
        with unittest.mock.patch.object(library, "msgbus_subscriber_take",
                                        unittest.mock.Mock(side_effect=KeyboardInterrupt)):
            self.assertRaises(KeyboardInterrupt, subscriber.next)
        self.assert_raises(msgbus.TimedOut, -104, subscriber.next, 0)

    def test_ctrl_c_at_any_moment_neither_loses_nor_repeats_a_value_of_a_loop(self):
        self.server()
        program = self.python(self.READS + """
Interrupt = type("Interrupt", (Exception,), {})

is_armed = False

def interrupt(*_):
    global is_armed
    if is_armed:
        is_armed = False
        raise Interrupt

def publish():
    for value in range(5000):
        publisher.push(value)
        time.sleep(0)

signal.signal(signal.SIGALRM, interrupt)
thread = threading.Thread(target=publish)
thread.start()
signal.setitimer(signal.ITIMER_REAL, 0.0002, 0.0002)
received = []
interrupts = 0
while len(received) < 5000:
    try:
        is_armed = True
        for message in subscriber:
            received.append(message.value)
            if len(received) == 5000:
                break
        is_armed = False
    except Interrupt:
        interrupts += 1
signal.setitimer(signal.ITIMER_REAL, 0)
print(received == list(range(5000)), interrupts > 0)
thread.join()
""")
        program.expect("True True")
        program.expect_exit(DONE)

    def test_ctrl_c_while_a_notice_comes_is_not_lost(self):
        server = self.server()
        program = self.python("""
publisher = msgbus.Publisher("t", reconnect_for=3600, on_notice=lambda notice, sentence: print(notice.name))
print("ready")
sys.stdin.readline()
try:
    publisher.push(1)
except KeyboardInterrupt:
    print("interrupted")
""")
        program.expect("ready")
        server.kill()
        program.write("go\n")
        program.expect("SERVER_LOST")
        program.signal(signal.SIGINT)
        self.server()
        program.expect("interrupted")
        program.expect_exit(DONE)

    def test_ctrl_c_ends_a_wait_for_a_server(self):
        program = self.python("""
def note(notice, sentence):
    print("waiting")
try:
    msgbus.Subscriber("reader", ["t"], wait_for_server=3600, on_notice=note)
except KeyboardInterrupt:
    print("interrupted")
""")
        program.expect("waiting")
        program.signal(signal.SIGINT)
        program.expect("interrupted")
        program.expect_exit(DONE)

    def test_a_handler_may_cancel(self):
        self.server()
        program = self.python(self.READS + """
signal.signal(signal.SIGTERM, lambda number, frame: subscriber.cancel())
print("ready")
print(list(subscriber), subscriber.id)
""")
        program.expect("ready")
        program.signal(signal.SIGTERM)
        program.expect("[] -1")
        program.expect_exit(DONE)

    def test_a_program_may_end_without_closing_anything(self):
        self.server()
        program = self.python(self.READS + """
threading.Thread(target=subscriber.next, daemon=True).start()
publisher.push_all([1, 2])
""")
        program.expect_exit(DONE)
        self.publish("t", 1)
        self.expect_working()


class PythonAsyncio(PythonTest):

    def test_a_hundred_subscribers_in_one_loop(self):
        self.server()
        count, length = 100, 200
        subscribers = [self.subscriber("t", name=f"r{number}") for number in range(count)]
        publisher = self.publisher("t")

        async def read(subscriber):
            values = []
            async for topic, value in subscriber:
                values.append(value)
                if len(values) == length:
                    return values

        async def run():
            readers = [asyncio.create_task(read(subscriber)) for subscriber in subscribers]
            for value in range(length):
                publisher.push(value)
                await asyncio.sleep(0)
            return await asyncio.wait_for(asyncio.gather(*readers), PATIENCE)

        for values in asyncio.run(run()):
            self.assertEqual(values, list(range(length)))

    def test_time_limits_and_cancels(self):
        self.server()
        subscriber = self.subscriber("t")
        publisher = self.publisher("t")

        async def run():
            for timeout in (0, 0.01):
                with self.assertRaises(msgbus.TimedOut):
                    await subscriber.anext(timeout)
            with self.assertRaises(asyncio.TimeoutError):
                await asyncio.wait_for(subscriber.anext(), 0.01)
            publisher.push(1)
            self.assertEqual(await subscriber.anext(PATIENCE), ("t", 1))

            task = asyncio.create_task(subscriber.anext())
            await asyncio.sleep(0)
            with self.assertRaises(RuntimeError):
                await subscriber.anext()
            task.cancel()
            with self.assertRaises(asyncio.CancelledError):
                await task
            publisher.push(2)
            self.assertEqual(await subscriber.anext(), ("t", 2))

            async def read():
                return [value async for _, value in subscriber]

            task = asyncio.create_task(read())
            await asyncio.sleep(0)
            subscriber.close()
            self.assertEqual(await asyncio.wait_for(task, PATIENCE), [])
            with self.assertRaises(msgbus.Closed):
                await subscriber.anext()

        asyncio.run(run())

    def test_others_run_while_values_follow_each_other(self):
        self.server()
        subscriber = self.subscriber("t")
        publisher = self.publisher("t")
        stop = threading.Event()

        def push():
            while not stop.is_set():
                publisher.push_all(range(100))

        thread = threading.Thread(target=push)
        thread.start()
        self.addCleanup(thread.join)
        self.addCleanup(stop.set)

        async def run():
            turns = 0

            async def count():
                nonlocal turns
                while turns < 10:
                    turns += 1
                    await asyncio.sleep(0)

            other = asyncio.create_task(count())
            async for _ in subscriber:
                if other.done():
                    return turns

        self.assertEqual(asyncio.run(run()), 10)

    def test_a_task_is_told_of_a_killed_server(self):
        server = self.server()
        subscriber = self.subscriber("t")

        async def run():
            task = asyncio.create_task(subscriber.anext())
            await asyncio.sleep(0)
            server.kill()
            with self.assertRaises(msgbus.ServerGone):
                await asyncio.wait_for(task, PATIENCE)

        asyncio.run(run())

    def test_a_task_finds_a_restarted_server(self):
        server = self.server()
        subscriber = self.subscriber("t", reconnect_for=PATIENCE)

        async def run():
            task = asyncio.create_task(subscriber.anext())
            await asyncio.sleep(0)
            server.kill()
            self.server()
            publisher = self.publisher("t")
            began = time.monotonic()
            while not task.done() and time.monotonic() < began + PATIENCE:
                publisher.push(3)
                await asyncio.sleep(0.01)
            self.assertEqual(task.result(), ("t", 3))

        asyncio.run(run())


if __name__ == "__main__":
    main()
