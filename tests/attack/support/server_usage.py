"""What a running server uses, as the kernel counts it."""

import os
from dataclasses import dataclass

TICKS_PER_SECOND = os.sysconf("SC_CLK_TCK")


@dataclass(frozen=True)
class Usage:
    threads: int
    descriptors: int
    mappings: int
    memory_kib: int  # resident
    cpu_seconds: float

    @classmethod
    def of(cls, pid):
        process = f"/proc/{pid}"
        with open(f"{process}/maps", encoding="utf-8", errors="replace") as maps:
            mappings = sum(1 for _ in maps)
        with open(f"{process}/status", encoding="utf-8") as status:
            memory = next(int(line.split()[1]) for line in status if line.startswith("VmRSS:"))
        with open(f"{process}/stat", encoding="utf-8") as stat:
            times = stat.read().rpartition(") ")[2].split()[11:13]
        return cls(threads=len(os.listdir(f"{process}/task")), descriptors=len(os.listdir(f"{process}/fd")),
                   mappings=mappings, memory_kib=memory, cpu_seconds=sum(map(int, times)) / TICKS_PER_SECOND)
