"""Threads keep the CPUs that they were given, and get those back that the programs took from them for a while."""

import os
import threading
import time

from harness import BusTest, main, wait_until

ALL = os.sched_getaffinity(0)
VALUES = 20000


def threads(pid):
    """Returns: the CPUs of each thread, by name and number."""
    found = {}
    for task in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{task}/comm", encoding="utf-8") as comm:
                found[f"{comm.read().strip()} {task}"] = os.sched_getaffinity(int(task))
        except (FileNotFoundError, ProcessLookupError):
            pass  # the thread has ended meanwhile
    return found


class Sampler:
    """Looks at the CPUs of the threads of some processes until it is left."""

    def __init__(self, *processes):
        self.pids = [process.popen.pid for process in processes]
        self.seen = []
        self.ending = threading.Event()
        self.thread = threading.Thread(target=self._sample)

    def _sample(self):
        while not self.ending.is_set():
            for pid in self.pids:
                self.seen.extend(threads(pid).items())
            time.sleep(0.001)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.ending.set()
        self.thread.join()

    def strangers(self, given):
        """Returns: the threads that did not have the CPUs `given`."""
        return {name: cpus for name, cpus in self.seen if cpus != given}


class Placement(BusTest):

    def flood(self, reader, publisher):
        """Publishes as fast as the bus takes it, then, after pauses, a value at a time."""
        publisher.write("".join(f"{value}\n" for value in range(VALUES)))
        reader.expect_all(f"t {value}" for value in range(VALUES))
        for value in range(100):
            time.sleep(0.003)  # a pause: what the test is about
            publisher.write(f"{value}\n")
            reader.expect(f"t {value}")

    def clients(self):
        return self.sub("t"), self.pub("t")

    def on_one_cpu(self, cpu, start):
        os.sched_setaffinity(0, {cpu})
        try:
            return start()
        finally:
            os.sched_setaffinity(0, ALL)

    def test_a_server_and_clients_that_were_placed_stay_there(self):
        server = self.on_one_cpu(min(ALL), lambda: self.server(log_level="off"))
        reader, publisher = self.on_one_cpu(max(ALL), self.clients)
        with Sampler(server) as of_server, Sampler(reader, publisher) as of_clients:
            self.flood(reader, publisher)
        self.assertTrue(of_server.seen and of_clients.seen)
        self.assertEqual(of_server.strangers({min(ALL)}), {})
        self.assertEqual(of_clients.strangers({max(ALL)}), {})

    def test_every_thread_has_all_cpus_again_after_a_flood(self):
        server = self.server(log_level="off")
        reader, publisher = self.clients()
        self.flood(reader, publisher)
        for process in (server, reader, publisher):
            wait_until(self, lambda pid=process.popen.pid: all(cpus == ALL for cpus in threads(pid).values()),
                       f"all CPUs for every thread of {process}")

    def expect_no_placement(self, *options):
        server = self.server(*options, log_level="off")
        reader, publisher = self.clients()
        with Sampler(server) as sampler:
            self.flood(reader, publisher)
        self.assertTrue(sampler.seen)
        self.assertEqual(sampler.strangers(ALL), {})
        self.assertFalse([name for name, _ in sampler.seen if name.startswith("placement ")])

    def test_the_option_switches_it_off_in_the_server(self):
        self.expect_no_placement("--no-placement")

    def test_the_environment_switches_it_off_everywhere(self):
        self.environment["BORVEN_PLACEMENT"] = "off"
        self.expect_no_placement()

    def test_a_client_with_it_switched_off_keeps_its_cpus(self):
        self.server(log_level="off")
        self.environment["BORVEN_PLACEMENT"] = "off"
        reader, publisher = self.clients()
        with Sampler(reader, publisher) as sampler:
            self.flood(reader, publisher)
        self.assertTrue(sampler.seen)
        self.assertEqual(sampler.strangers(ALL), {})


if __name__ == "__main__":
    main()
