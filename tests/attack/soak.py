"""A soak: one server under churn, deaths, floods and garbage for a long time, with a checked pair from beginning to end.

BORVEN_SOAK_MINUTES is how long, BORVEN_SOAK_FOLDER where samples.csv and curves.svg go. Every ten seconds the numbers of the
server are written down. Half-way it is stopped and started again. Before each stop it must be back where it was, and the pair
must have lost and doubled nothing; the memory of the last quarter must not lie above that of the quarter before.
"""

import csv
import os
import statistics
import subprocess
import time
from pathlib import Path

from attack import BIN, DONE, LIMIT_OF_HANGS, MODE, Attack, main
from curves import draw
from raw_client import CTL, Refused, greeting

MINUTES = float(os.environ.get("BORVEN_SOAK_MINUTES", "30"))
FOLDER = Path(os.environ.get("BORVEN_SOAK_FOLDER", "."))
SECONDS_BETWEEN_SAMPLES = min(10.0, MINUTES * 60 / 60)
CHURNERS = 12
LONGEST_LIFE = 0.03  # seconds
GROWTH_ALLOWANCE_KIB = 2048


class Soak(Attack):
    log_level = "off"

    def prepare(self):
        super().prepare()
        self.began = time.monotonic()
        self.samples = []
        self.values = 0
        self.sample()

    def attack(self):
        steps = (self.churn, self.visits, self.deaths, self.waiting_deaths, self.garbage, self.scribbles, self.flood, self.rest)
        played = 0
        while time.monotonic() - self.began < MINUTES * 60:
            steps[played % len(steps)]()
            self.forget_exited()
            played += 1
            if self.values == 0 and time.monotonic() - self.began > MINUTES * 30:
                self.restart()
        self.load(f"{MINUTES:g} minutes, {played:,} steps of {len(steps)} kinds")

    def restart(self):
        self.sample()
        self.compare_with_before()
        self.values = self.pair.finish()[0]
        self.timed_stop(self.served)
        super().prepare()
        self.sample()

    def conclude(self):
        self.sample()
        self.write_down()
        super().conclude()
        self.figures["values"] += self.values
        self.check_growth()

    def run_program(self, *command):
        """Runs a program to its end, and takes samples meanwhile."""
        process = self.start(*command)
        while process.popen.poll() is None:
            self.sample_when_due()
            time.sleep(0.05)
        process.expect_exit(DONE, LIMIT_OF_HANGS)

    def churn(self):
        self.run_program(f"{BIN}/bus_swarm", "churn", str(CHURNERS))

    def visits(self):
        self.run_program(f"{BIN}/bus_swarm", "visit", str(CHURNERS))

    def waiting_deaths(self):
        self.run_program(f"{BIN}/dying_waiters", "own", "200")

    def scribbles(self):
        self.run_program(f"{BIN}/scribbling_client", "2000")

    def deaths(self):
        for number in range(100):
            state = self.random.choice(("connected", "named-a-topic", "waiting"))
            life = subprocess.Popen([f"{BIN}/stopping_client", state, f"dying-{number}"], env=self.environment,
                                    stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            time.sleep(self.random.uniform(0, LONGEST_LIFE))
            life.kill()
            life.wait()
            self.sample_when_due()

    def garbage(self):
        for number in range(2000):
            with self.client(CTL) as client:
                try:
                    client.connect().send(greeting(magic=number % 2) if number % 3 else greeting())
                    client.answer()
                except Refused:
                    pass
        self.sample_when_due()

    def flood(self):
        pusher = self.start(f"{BIN}/checked_pair", "push", "flood", "10000000")
        pusher.expect("ready")
        deadline = time.monotonic() + 2
        while time.monotonic() < deadline:
            self.sample_when_due()
            time.sleep(0.05)
        pusher.end_input()
        pusher.expect_exit(DONE)

    def rest(self):
        time.sleep(1)
        self.sample_when_due()

    def sample_when_due(self):
        if time.monotonic() - self.began - self.samples[-1][0] >= SECONDS_BETWEEN_SAMPLES:
            self.sample()

    def sample(self):
        usage = self.usage()
        now = time.monotonic() - self.began
        before = self.samples[-1] if self.samples else (0.0, usage)
        # Below zero: another server than before.
        share = max(usage.cpu_seconds - before[1].cpu_seconds, 0) / max(now - before[0], 0.001)
        self.samples.append((now, usage, share))

    def write_down(self):
        FOLDER.mkdir(parents=True, exist_ok=True)
        with open(FOLDER / "samples.csv", "w", newline="", encoding="utf-8") as file:
            table = csv.writer(file)
            table.writerow(("seconds", "memory_kib", "descriptors", "threads", "mappings", "cpu_percent"))
            for now, usage, share in self.samples:
                table.writerow((f"{now:.1f}", usage.memory_kib, usage.descriptors, usage.threads, usage.mappings,
                                f"{share * 100:.1f}"))
        usages = [usage for _, usage, _ in self.samples]
        picture = draw(f"msgbusd under attack for {MINUTES:g} minutes ({MODE} mode)", [now / 60 for now, _, _ in self.samples], {
            "memory, MiB": [usage.memory_kib / 1024 for usage in usages],
            "descriptors": [usage.descriptors for usage in usages],
            "threads": [usage.threads for usage in usages],
            "mappings": [usage.mappings for usage in usages],
            "CPU, percent": [share * 100 for _, _, share in self.samples]})
        (FOLDER / "curves.svg").write_text(picture, encoding="utf-8")

    def check_growth(self):
        """Fails when the memory still grows: the median of the last quarter lies above that of the one before."""
        quarter = len(self.samples) // 4
        memory = [usage.memory_kib for _, usage, _ in self.samples]
        third, last = statistics.median(memory[2 * quarter:3 * quarter]), statistics.median(memory[3 * quarter:])
        self.figures["growth_kib"] = last - third
        self.assertLess(last - third, GROWTH_ALLOWANCE_KIB, "the memory of the server grows")


if __name__ == "__main__":
    main(Soak)
