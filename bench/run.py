#!/usr/bin/python3
"""Compares the program with its alternatives, side by side.

Measures whole processes against a local nginx, alternately, and takes medians. Prints the measurements and
the ratios with their limits, writes all results to build/bench/result.json, and draws docs/performance.svg
if --chart is given. The exit code is 1 if a ratio exceeds its limit. The machine must be idle.

With --before, a build of an earlier commit runs after each run of the program, and the program must not take more
than 1.05 of its time, unless there are only a few runs or they take only some milliseconds.

usage: run.py [--rounds N] [--chart] [--before FOLDER] [CASE ...]
"""

import argparse
import contextlib
import functools
import json
import os
import shutil
import sys
import tempfile
from pathlib import Path
from types import SimpleNamespace

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests"))

from bench_service import Service, TicketService  # noqa: E402 (the path must be set first)
from chart import draw  # noqa: E402
from e2e.harness import Machine  # noqa: E402
from e2e.platforms import Linux, WindowsMingw  # noqa: E402
from measure import Contender, in_turn  # noqa: E402
from service.certificates import CertificateFactory  # noqa: E402
from service.log_service import SERVICE_PATH  # noqa: E402

PROGRAM = "KydLogUploader"
EARLIER = "earlier-program"
LEAST_SECONDS = 0.1  # shorter times vary by more than the limit for changes
FILE_BYTES = 4096
SMALL_FILES = 2000
MEGABYTE = 1 << 20
AUTHORITIES = Path("/etc/ssl/certs/ca-certificates.crt")
LINE = "2026/01/02T03:04:05.678, SID:000000, PID:000000, TID:000000, a line of usual length,"

# What an administrator would write instead. The body is sent from a file, unchanged.
CURL_LOOP = """
for file in "$1"/Upload/*/*.log; do
  account=${file%/*}; account=${account##*/}
  curl -sS -f -k --tls-max 1.2 -o /dev/null -H 'Connection: close' \\
    -H 'Content-Type: application/octet-stream' --data-binary @"$file" "$2" &&
    mv -n "$file" "$1/Archive/$account/"
done
"""


class Bench:
    """Shared state of all cases: folder, certificates, number of rounds, results."""

    def __init__(self, folder, rounds, before=None):
        self.folder = folder
        self.rounds = rounds
        self.before = before  # an earlier build's folder, with linux/bin and windows/bin
        self.certificates = CertificateFactory(folder / "certificates")
        self.rows = []  # (case, contender, unit, units per run)
        self.limits = []  # (what, value, "at most" or "at least", limit)
        self.findings = []  # (what, value): ratios without a limit, for comparison
        self.panels = []
        self._machines = 0
        self._stack = contextlib.ExitStack()
        self._platforms = {}

    def __enter__(self):
        return self

    def __exit__(self, *error):
        self._stack.__exit__(*error)

    def platform(self, kind):
        if kind not in self._platforms:
            linux, windows = (ROOT / "build" / name / "bin" for name in ("linux", "windows"))
            folder = self.folder / kind.name
            if kind is Linux:
                platform = Linux(folder, linux, linux)
            else:
                prefix = ROOT / "build" / "windows" / "bench-prefix"
                platform = WindowsMingw(folder, windows, linux, prefix)
            platform.start()
            self._stack.callback(platform.stop)
            self._platforms[kind] = platform
            if self.before:
                self._copy_earlier_program(platform)
        return self._platforms[kind]

    def _copy_earlier_program(self, platform):
        """Puts the earlier program and its libraries beside the platform's, with the same sealing key."""
        earlier = platform.folder / EARLIER
        shutil.copytree(platform.program_folder, earlier)
        source = self.before / platform.bin_folder.parent.name / "bin"
        for name in (platform.program_name, platform.companion_name, platform.configuration_name):
            shutil.copy2(source / name, earlier / name)

    def machine(self, kind=Linux, log=True):
        self._machines += 1
        machine = Machine(self.platform(kind), self.folder / f"machine{self._machines}")
        if log:
            machine.switch_log_on()
        return machine

    def service(self, identity, kind=Service, **more):
        self._machines += 1
        return kind(self.folder / f"nginx{self._machines}", identity, **more)

    def program(self, machine, name=PROGRAM, **more):
        platform = machine.platform

        def contender(name, folder):
            command = platform.command(folder / platform.program_name, [machine.tenant, machine.native()])
            return Contender(name, command, machine.environment, **more)

        program = contender(name, platform.program_folder)
        if self.before:
            program.earlier = contender(f"{name}, before", platform.folder / EARLIER)
        return program

    def measure(self, case, contenders, unit, units, rounds=None):
        print(f"{case}:", file=sys.stderr)
        everyone = [one for each in contenders for one in (each, each.earlier) if one]
        for contender in in_turn(everyone, rounds or self.rounds):
            self.rows.append((case, contender, unit, units))
        for contender in contenders:
            if contender.earlier:
                what = f"{case}: {contender.name}, to before"
                ratio = contender.seconds / contender.earlier.seconds
                if contender.seconds > LEAST_SECONDS and len(contender.samples) >= 5:
                    self.limit(what, ratio, "at most", 1.05)
                else:
                    self.finding(what, ratio)
        return contenders

    def limit(self, what, value, word, limit):
        self.limits.append((what, value, word, limit))

    def finding(self, what, value):
        self.findings.append((what, value))


def make_files(machine, accounts, files, size=FILE_BYTES, **members):
    for account in range(accounts):
        name = f"account{account:03}"
        machine.account(name, **members)
        for file in range(files):
            machine.upload(name, f"{file:06}.log").write_bytes(os.urandom(size))


def swap(machine):
    """Makes sent files wait again by swapping Upload and Archive; all folders exist already."""
    upload, archive = machine.upload(), machine.archive()
    if any(next(folder.iterdir(), None) for folder in archive.iterdir()):
        between = machine.log_dir / "between"
        upload.rename(between)
        archive.rename(upload)
        between.rename(archive)


def all_sent(machine, service, files):
    """Returns a check that all files arrived since its last call, and were moved if the contender does so."""
    before = service.count()

    def check(moved=True):
        nonlocal before
        now = service.count(before + files)
        left = sum(1 for folder in machine.upload().iterdir() for _ in folder.iterdir())
        if (now - before, left) != (files, 0 if moved else files):
            raise RuntimeError(f"{now - before} of {files} files arrived, {left} are still in Upload")
        before = now

    return check


def curl_each(machine, service):
    url = f"https://{service.tenant}{SERVICE_PATH}"
    return ["bash", "-c", CURL_LOOP, "curl-loop", os.fspath(machine.log_dir), url]


def bare_client(machine, service, *options):
    return [
        ROOT / "build/linux/bench/bare-client", *options,
        "localhost", str(service.port), SERVICE_PATH, machine.log_dir,
    ]  # fmt: skip


@contextlib.contextmanager
def small_file_contenders(bench, identity, service=Service):
    """Creates the contenders that send 2,000 files of 4 KB, with and without a client certificate."""
    certificates = bench.certificates
    plain, certified = bench.machine(), bench.machine()
    with (certified.sysroot / "authorities.pem").open("ab") as authorities:
        authorities.write(AUTHORITIES.read_bytes())
    certified.trust(certificates.authority)
    make_files(plain, 20, SMALL_FILES // 20)
    own = certified.client_certificate("user", certificates.client)
    make_files(certified, 20, SMALL_FILES // 20, cert=own)
    own_pem = bench.folder / "client.pem"
    own_pem.write_bytes(certificates.client.key_pem + certificates.client.certificate_pem)
    with bench.service(identity, service) as open_to_all, bench.service(
        identity, service, client_authority=certificates.authority.pem
    ) as demanding:
        plain.tenant, certified.tenant = open_to_all.tenant, demanding.tenant
        without = {
            "prepare": functools.partial(swap, plain),
            "check": all_sent(plain, open_to_all, SMALL_FILES),
        }
        peers = {"environment": plain.environment, **without}
        with_one = {
            "prepare": functools.partial(swap, certified),
            "check": all_sent(certified, demanding, SMALL_FILES),
        }
        yield SimpleNamespace(
            program=bench.program(plain, **without),
            certified_program=bench.program(
                certified, f"{PROGRAM}, client certificate, validating", **with_one
            ),
            # Slow, and far from their limits: fewer rounds are enough.
            curl=Contender("curl for each file", curl_each(plain, open_to_all), **peers, every=7),
            full=Contender(
                "bare OpenSSL client", bare_client(plain, open_to_all), **peers, every=3
            ),
            resuming=Contender(
                "bare OpenSSL client, resuming", bare_client(plain, open_to_all, "--resume"),
                **peers,
            ),
            certified_client=Contender(
                "bare client, resuming, client certificate",
                bare_client(certified, demanding, "--resume", "--certificate", own_pem),
                certified.environment,
                **with_one,
            ),
        )  # fmt: skip


def small_files(bench, kind="rsa"):
    """2,000 files of 4 KB."""
    case = f"2,000 files of 4 KB, {kind.upper()}"
    certificates = bench.certificates
    identity = certificates.server if kind == "rsa" else certificates.elliptic_server
    with small_file_contenders(bench, identity) as all_of:
        bench.measure(case, vars(all_of).values(), "file", SMALL_FILES, bench.rounds * 3)
    program = all_of.program
    for peer, limit in ((all_of.curl, 0.15), (all_of.full, 1.0), (all_of.resuming, 1.6)):
        bench.limit(f"{case}: to {peer.name}", program.seconds / peer.seconds, "at most", limit)
    bench.limit(
        f"{case}: with a client certificate, to without",
        all_of.certified_program.seconds / program.seconds, "at most", 1.25,
    )  # fmt: skip
    bench.finding(
        f"{case}: the resuming bare client with a client certificate, to without",
        all_of.certified_client.seconds / all_of.resuming.seconds,
    )
    bars = [
        (one.name, one.seconds / SMALL_FILES * 1000, PROGRAM in one.name)
        for one in (
            program, all_of.certified_program, all_of.resuming, all_of.certified_client,
            all_of.full, all_of.curl,
        )
    ]  # fmt: skip
    bench.panels.append((case, "ms a file", bars))


def session_tickets(bench):
    """2,000 files of 4 KB to a server with session tickets."""
    case = "2,000 files of 4 KB, tickets"
    with small_file_contenders(bench, bench.certificates.server, TicketService) as all_of:
        pairs = (
            (all_of.program, all_of.certified_program),
            (all_of.resuming, all_of.certified_client),
        )
        everyone = [one for pair in pairs for one in pair]
        bench.measure(case, everyone, "file", SMALL_FILES, bench.rounds * 3)
    for without, with_one in pairs:
        bench.finding(
            f"{case}: {without.name}, with a client certificate, to without",
            with_one.seconds / without.seconds,
        )


def small_files_elliptic(bench):
    small_files(bench, "ecdsa")


def one_file(bench, machine, size):
    """Gives a machine a single file of this size: random bytes up to 2 GB, sparse beyond."""
    make_files(machine, 1, 0)
    path = machine.upload("account000", "long.log")
    with path.open("wb") as file:
        if size <= 2048 * MEGABYTE:
            for _ in range(size // MEGABYTE):
                file.write(os.urandom(MEGABYTE))
        else:
            file.truncate(size)
    # Otherwise only the first run would fill the page cache.
    with path.open("rb") as file:
        while file.read(MEGABYTE):
            pass


def long_file(bench):
    """One file of 2 GB; peak memory for 20 MB, 2 GB and 8 GB."""
    with bench.service(bench.certificates.server) as service:
        url = f"https://{service.tenant}{SERVICE_PATH}"
        peaks = {}
        for size, rounds in ((20, 3), (2048, bench.rounds * 3), (8192, 1)):
            machine = bench.machine()
            machine.tenant = service.tenant
            one_file(bench, machine, size * MEGABYTE)
            check = all_sent(machine, service, 1)
            again = functools.partial(swap, machine)
            contenders = [bench.program(machine, prepare=again, check=check)]
            if size == 2048:
                curl = [
                    "curl", "-sS", "-f", "-k", "--tls-max", "1.2", "-o", "/dev/null",
                    "-H", "Content-Type: application/octet-stream",
                    "-H", "Transfer-Encoding: chunked", "-X", "POST", "-T",
                    machine.upload("account000", "long.log"), url,
                ]  # fmt: skip
                contenders.append(
                    Contender(
                        "curl, chunked", curl, machine.environment, prepare=again,
                        check=functools.partial(check, moved=False),
                    )
                )  # fmt: skip
            case = f"one file of {size:,} MB"
            measured = bench.measure(case, contenders, "MB", size, rounds)
            peaks[size] = measured[0].peak
            if size == 2048:
                program, peer = measured
                bench.limit(
                    f"{case}: throughput, to {peer.name}", peer.seconds / program.seconds,
                    "at least", 0.95,
                )  # fmt: skip
                bars = [(one.name, one.seconds, one is program) for one in measured]
                bench.panels.append((case, "s", bars))
            shutil.rmtree(machine.folder)
        for size, peak in peaks.items():
            bench.limit(f"peak memory in MB, {size:,} MB", peak / MEGABYTE, "at most", 32)
        bench.limit(
            "peak memory, 8 GB to 20 MB", peaks[8192] / peaks[20], "at most", 1.1
        )


def nothing_to_do(bench):
    """An empty Upload folder."""
    machine = bench.machine()
    (program,) = bench.measure(
        "nothing to do", [bench.program(machine)], "run", 1, bench.rounds * 3
    )
    bench.limit("nothing to do: ms", program.seconds * 1000, "at most", 12)
    bench.limit("nothing to do: peak memory in MB", program.peak / MEGABYTE, "at most", 15)


def accounts(bench):
    """100,000 accounts without credentials, compared with 1,000 and with the bare system calls."""
    few, many = 1000, 100_000
    made = {}
    for count, log in ((few, False), (many, False), (many, True)):
        machine = bench.machine(log=log)
        if log:
            base = machine.platform.native_path(machine.diagnostic_base)
            # No rotation: all lines are counted in one file.
            machine.settings(
                {"OutputLog": 16, "OutputLogDir": base, "OutputLogSize": 0x7FFFFFFF}
            )
        for number in range(count):
            machine.upload(f"account{number:06}").mkdir()
        made[count, log] = machine
    peers = ROOT / "build/linux/bench/bare-calls"
    quiet = made[many, False]
    # Runs over few or no accounts take only some milliseconds, and only their difference matters.
    small, idle, large, search = bench.measure(
        "accounts without credentials, log off",
        [
            bench.program(made[few, False], f"{PROGRAM}, 1,000"),
            bench.program(bench.machine(log=False), f"{PROGRAM}, none"),
            bench.program(quiet, f"{PROGRAM}, 100,000"),
            Contender(
                "bare calls, 100,000", [peers, "accounts", quiet.log_dir], quiet.environment
            ),
        ],
        "run", 1, bench.rounds * 3,
    )  # fmt: skip
    cost = (large.seconds - idle.seconds) / many
    cost_of_few = (small.seconds - idle.seconds) / few
    case = "100,000 accounts"
    bench.limit(f"{case}: cost of one, to 1,000", cost / cost_of_few, "at most", 1.2)
    bench.limit(f"{case}: to the bare calls", large.seconds / search.seconds, "at most", 2.0)

    logging = made[many, True]
    forget = lambda: logging.diagnostic_log.unlink(missing_ok=True)  # noqa: E731
    bench.program(logging, prepare=forget).run()
    with logging.diagnostic_log.open("rb") as file:
        lines = sum(1 for _ in file)
    target = bench.folder / "appended.log"
    written, appended, calls = bench.measure(
        "100,000 accounts, log on",
        [
            bench.program(logging, prepare=forget),
            Contender(
                f"append a line, {lines:,} times", [peers, "append", target, LINE, str(lines)],
                logging.environment, prepare=lambda: target.unlink(missing_ok=True),
            ),
            Contender(
                "bare calls, 100,000, a line for each",
                [peers, "accounts", logging.log_dir, target, LINE],
                logging.environment, prepare=lambda: target.unlink(missing_ok=True),
            ),
        ],
        "line", lines,
    )  # fmt: skip
    bench.limit(
        f"{case}, log on: to as many appended lines", written.seconds / appended.seconds,
        "at most", 1.5,
    )  # fmt: skip
    bench.finding(
        f"{case}: what the log adds, to as many appended lines",
        (written.seconds - large.seconds) / appended.seconds,
    )
    bench.finding(f"{case}, log on: to the bare calls for both", written.seconds / calls.seconds)
    bench.finding(f"{case}: the bare calls for both, to the appended lines alone",
                  calls.seconds / appended.seconds)


def many_files(bench):
    """100,000 files in one account, compared with 1,000."""
    costs = {}
    for count, rounds in ((1000, bench.rounds), (100_000, min(3, bench.rounds))):
        machine = bench.machine()
        make_files(machine, 1, count)
        with bench.service(bench.certificates.server) as service:
            machine.tenant = service.tenant
            program = bench.program(
                machine, prepare=lambda machine=machine: swap(machine),
                check=all_sent(machine, service, count),
            )  # fmt: skip
            bench.measure(f"{count:,} files in one account", [program], "file", count, rounds)
        costs[count] = program.seconds / count
        shutil.rmtree(machine.folder)
    bench.limit(
        "100,000 files: cost of one, to 1,000", costs[100_000] / costs[1000], "at most", 1.1
    )


def windows(bench):
    """Under Wine: 500 files of 4 KB and one file of 1 GB, compared with a bare WinHTTP loop."""
    for size, count in ((0, 500), (1024, 1)):
        machine = bench.machine(WindowsMingw)
        if size:
            one_file(bench, machine, size * MEGABYTE)
        else:
            make_files(machine, 5, count // 5)
        with bench.service(bench.certificates.server) as service:
            machine.tenant = service.tenant
            common = {"prepare": lambda: swap(machine), "check": all_sent(machine, service, count)}
            peer = machine.platform.command(
                ROOT / "build/windows/bench/bare-client.exe",
                ["localhost", str(service.port), SERVICE_PATH, machine.native()],
            )
            case = "Wine: " + (f"one file of {size:,} MB" if size else "500 files of 4 KB")
            program, bare = bench.measure(
                case,
                [
                    bench.program(machine, **common),
                    Contender("bare WinHTTP client", peer, machine.environment, **common),
                ],
                "file", count, bench.rounds * 3,
            )  # fmt: skip
        if size:
            bench.limit(
                f"{case}: throughput, to {bare.name}", bare.seconds / program.seconds,
                "at least", 0.8,
            )  # fmt: skip
        else:
            bench.limit(f"{case}: to {bare.name}", program.seconds / bare.seconds, "at most", 1.3)
        bars = [(one.name, one.seconds, one is program) for one in (program, bare)]
        bench.panels.append((case, "s", bars))
        shutil.rmtree(machine.folder)


CASES = (
    small_files, small_files_elliptic, session_tickets, long_file, nothing_to_do, accounts,
    many_files, windows,
)  # fmt: skip


def holds(value, word, limit):
    return value <= limit if word == "at most" else value >= limit


def print_tables(bench):
    form = "{:44}{:34}{:>10}{:>14}{:>9}"
    print(form.format("case", "program", "seconds", "of one", "peak MB"))
    for case, contender, unit, units in bench.rows:
        one = f"{contender.seconds / units * 1000:.3f} ms/{unit}" if unit != "run" else ""
        print(
            form.format(
                case[:43], contender.name[:33], f"{contender.seconds:.3f}", one,
                f"{contender.peak / MEGABYTE:.1f}",
            )
        )  # fmt: skip
    print()
    form = "{:90}{:>8}  {:18}{}"
    print(form.format("ratio", "measured", "limit", ""))
    for what, value, word, limit in bench.limits:
        verdict = "" if holds(value, word, limit) else "BEYOND"
        print(form.format(what[:89], f"{value:.3f}", f"{word} {limit:g}", verdict))
    for what, value in bench.findings:
        print(form.format(what[:89], f"{value:.3f}", "", ""))


def as_json(bench):
    return {
        "rows": [
            {"case": case, "unit": unit, "units": units, **contender.as_json()}
            for case, contender, unit, units in bench.rows
        ],
        "ratios": [
            {"what": what, "value": value, "limit": f"{word} {limit}"}
            for what, value, word, limit in bench.limits
        ],
        "findings": [{"what": what, "value": value} for what, value in bench.findings],
    }


def main():
    names = [case.__name__.replace("_", "-") for case in CASES]
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--rounds", type=int, default=7, help="runs of each contender (default: 7)")
    parser.add_argument("--chart", action="store_true", help="redraw docs/performance.svg")
    parser.add_argument(
        "--before", type=Path, metavar="FOLDER", help="compare with this build folder of an earlier commit"
    )
    parser.add_argument("case", nargs="*", metavar="CASE", help=f"of {', '.join(names)}")
    options = parser.parse_args()
    if options.before:
        for name in ("linux", "windows"):
            if not (options.before / name / "bin").is_dir():
                parser.error(f"{options.before} has no {name}/bin")
    unknown = sorted(set(options.case) - set(names))
    if unknown:
        parser.error(f"unknown case: {', '.join(unknown)}; known are: {', '.join(names)}")
    result = ROOT / "build" / "bench"
    result.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(dir=result) as folder, Bench(
        Path(folder), options.rounds, options.before
    ) as bench:
        for name, case in zip(names, CASES):
            if not options.case or name in options.case:
                case(bench)
        print_tables(bench)
        (result / "result.json").write_text(json.dumps(as_json(bench), indent=1) + "\n")
        if options.chart:
            (ROOT / "docs" / "performance.svg").write_text(draw(bench.panels))
        beyond = [limit for limit in bench.limits if not holds(*limit[1:])]
    return 1 if beyond else 0


if __name__ == "__main__":
    sys.exit(main())
