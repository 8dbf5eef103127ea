"""Runs programs in turn and records the cost of each run."""

import statistics
import subprocess
import sys
import tempfile
from dataclasses import dataclass, field
from pathlib import Path

STOPWATCH = Path(__file__).resolve().parents[1] / "build/linux/bench/stopwatch"


@dataclass(frozen=True)
class Sample:
    """One complete process: elapsed seconds, CPU seconds, peak memory in bytes."""

    seconds: float
    processor: float
    peak: int


@dataclass
class Contender:
    """A command, with preparation and check, which are not measured."""

    name: str
    command: list
    environment: dict
    prepare: callable = lambda: None
    check: callable = lambda: None
    samples: list = field(default_factory=list)
    earlier: "Contender" = None  # the same with an earlier build of the program
    every: int = 1  # takes part in each n-th round

    def run(self):
        self.prepare()
        with tempfile.NamedTemporaryFile("r") as taken:
            done = subprocess.run(
                [STOPWATCH, taken.name, *self.command],
                env=self.environment,
                stdin=subprocess.DEVNULL,
                stdout=subprocess.DEVNULL,
                stderr=subprocess.PIPE,
                check=False,
            )
            if done.returncode != 0:
                raise RuntimeError(f"{self.name} exited with code {done.returncode}: {done.stderr[-500:]!r}")
            seconds, processor, peak = taken.read().split()
        self.check()
        self.samples.append(Sample(float(seconds), float(processor), int(peak) * 1024))

    @property
    def seconds(self):
        return statistics.median(sample.seconds for sample in self.samples)

    @property
    def peak(self):
        return max(sample.peak for sample in self.samples)

    def as_json(self):
        return {
            "name": self.name,
            "rounds": len(self.samples),
            "median_seconds": self.seconds,
            "seconds": [round(sample.seconds, 4) for sample in self.samples],
            "processor_seconds": [round(sample.processor, 4) for sample in self.samples],
            "peak_bytes": self.peak,
        }


def in_turn(contenders, rounds):
    """Runs the contenders alternately, so that other load on the machine affects all of them."""
    for number in range(rounds):
        for contender in contenders:
            if number % contender.every:
                continue
            if sys.stderr.isatty():
                now = f"\r  round {number + 1} of {rounds}: {contender.name:50}"
                print(now, end="", file=sys.stderr)
            contender.run()
    if sys.stderr.isatty():
        print(f"\r{'':75}\r", end="", file=sys.stderr)
    return contenders
