#!/usr/bin/env python3
"""Calls and signals through a private bus, beside raw libdbus, GDBus and sdbus-c++; threads that share a connection.

In the comparison the bus, both ends and this driver share one CPU, because a hand-over between two CPUs costs more than
everything that is compared here. Every pair runs once in each round. Tables show medians over the rounds. A ratio is the
median of the time of a pair in a round divided by the time of raw libdbus in that round. The threads use all CPUs.
"""

import argparse
import contextlib
import ctypes
import os
import select
import signal
import statistics
import subprocess
import sys
import tempfile
import time

# title, library of the client or subscriber, library of the server or sender
PAIRS = [
    ("raw libdbus", "raw", "raw"),
    ("zarip, both ends", "zarip", "zarip"),
    ("zarip client, raw server", "zarip", "raw"),
    ("raw client, zarip server", "raw", "zarip"),
    ("GDBus", "gdbus", "gdbus"),
    ("sdbus-c++", "sdbus", "sdbus"),
]
PATIENCE = 300  # seconds for one answer

BUS_CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
  <limit name="max_incoming_bytes">1000000000</limit>
  <limit name="max_outgoing_bytes">1000000000</limit>
  <limit name="max_replies_per_connection">50000</limit>
</busconfig>
"""


_LIBC = ctypes.CDLL(None)


def _die_with_the_driver():
    _LIBC.prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


class Process:
    """A program that answers with lines; killed when its block ends, or the driver."""

    def __init__(self, command, banner=None, errors=None):
        self._name = " ".join(os.path.basename(word) for word in command)
        self._child = subprocess.Popen(
            command,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=errors,
            bufsize=0,
            preexec_fn=_die_with_the_driver,
        )
        self.pid = self._child.pid
        try:
            first = self.read()
            if banner is not None and first != banner:
                raise RuntimeError(f"{self._name}: unexpected answer: {first}")
        except BaseException:
            self.__exit__()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._child.kill()
        self._child.wait()
        self._child.stdin.close()
        self._child.stdout.close()

    def read(self):
        if not select.select([self._child.stdout], [], [], PATIENCE)[0]:
            raise RuntimeError(f"{self._name}: no answer for {PATIENCE} s")
        line = self._child.stdout.readline().decode().strip()
        if not line:
            raise RuntimeError(f"{self._name}: ended early")
        return line

    def ask(self, question):
        self._child.stdin.write((question + "\n").encode())
        return self.read()

    def cpu(self):
        """Seconds of CPU that all its threads have used."""
        cpu_clock_of_process = (~self.pid << 3) | 2
        return time.clock_gettime(cpu_clock_of_process)

    def resident(self):
        with open(f"/proc/{self.pid}/status", encoding="ascii") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("VmRSS:"))


@contextlib.contextmanager
def private_bus():
    with tempfile.TemporaryDirectory(prefix="zarip-bench-") as folder:
        config = os.path.join(folder, "bus.conf")
        socket = os.path.join(folder, "bus")
        log = os.path.join(folder, "log")
        with open(config, "w", encoding="utf-8") as file:
            file.write(BUS_CONFIG.format(socket=socket))
        command = ["dbus-daemon", f"--config-file={config}", "--nofork", "--print-address"]
        try:
            # Its remarks, as that it cannot raise the limit of descriptors, matter only when something fails.
            with open(log, "wb") as errors, Process(command, errors=errors):
                os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = f"unix:path={socket}"
                yield
        except BaseException:
            with open(log, encoding="utf-8", errors="replace") as errors:
                sys.stderr.write(errors.read())
            raise


def print_table(title, columns, rows):
    print(title)
    width = max(len(row[0]) for row in rows)
    print("  " + " " * width + "".join(f" {column:>12}" for column in columns))
    for name, *cells in rows:
        print(f"  {name:<{width}}" + "".join(f" {cell:>12}" for cell in cells))
    print(flush=True)


def over_rounds(results, baseline):
    """Pairs of median and median ratio for each kind of figure; results are one tuple of figures a round."""
    cells = []
    for figures, limits in zip(zip(*results), zip(*baseline)):
        ratios = [figure / limit for figure, limit in zip(figures, limits) if limit > 0]
        cells += [f"{statistics.median(figures):.2f}", f"{statistics.median(ratios):.2f}" if ratios else "-"]
    return cells


class Bench:
    def __init__(self, programs, quick, rounds):
        self._programs = programs
        self._quick = quick
        self._rounds = rounds or (3 if quick else 9)
        self._pairs = []
        for title, client, server in PAIRS:
            missing = [name for name in {client, server} if not os.path.exists(self._program(name))]
            if missing:
                print(f"left out, not built: {title}")
            else:
                self._pairs.append((title, client, server))
        if not self._pairs or self._pairs[0] != PAIRS[0]:
            sys.exit(f"bus_bench.py: the programs are not in {programs}")

    def _program(self, name):
        return os.path.join(self._programs, f"zarip-bench-peer-{name}")

    def _peer(self, name, *role):
        return Process([self._program(name), *role], banner="ready")

    def _in_rounds(self, title, columns, measure):
        results = [[] for _ in self._pairs]
        for _ in range(self._rounds):
            for result, (_, client, server) in zip(results, self._pairs):
                result.append(measure(client, server))
        rows = [(pair[0], *over_rounds(result, results[0])) for pair, result in zip(self._pairs, results)]
        print_table(title, columns, rows)

    def calls(self, size, command="call", title="string to string"):
        count = 1000 if self._quick else 5000

        def measure(client, server):
            with self._peer(server, "serve") as serving, self._peer(client, "call") as calling:
                calling.ask(f"{command} {count // 10} {size}")
                before = serving.cpu()
                median, client_cpu = map(float, calling.ask(f"{command} {count} {size}").split())
                return median, client_cpu, (serving.cpu() - before) * 1e6 / count

        columns = ["p50 us", "ratio", "client CPU", "ratio", "server CPU", "ratio"]
        self._in_rounds(f"Bus call, {title}, {size} B (CPU in us a call)", columns, measure)

    def signals(self):
        count = 5000 if self._quick else 50000

        def measure(subscriber, sender):
            with self._peer(subscriber, "listen", str(count)) as listening, self._peer(sender, "emit") as sending:
                first = int(sending.ask(f"emit {count}"))
                return ((int(listening.read()) - first) / 1000 / count,)

        self._in_rounds(f"Bus signals, {count} in a row", ["us a signal", "ratio"], measure)

    def memory(self):
        early, total = (1000, 20000) if self._quick else (10000, 1000000)
        rows = []
        for title, client, server in self._pairs:
            if "zarip" in (client, server):
                with self._peer(server, "serve") as serving, self._peer(client, "call") as calling:
                    calling.ask(f"call {early} 64")
                    cells = [calling.resident(), serving.resident()]
                    calling.ask(f"call {total - early} 64")
                    cells += [calling.resident(), serving.resident()]
                    rows.append((title, *cells))
        columns = ["client early", "server early", "client end", "server end"]
        print_table(f"Memory in KiB after {early} and after {total} calls", columns, rows)

    def threads(self):
        calls = 4000 if self._quick else 40000
        duration = 1000 if self._quick else 10000
        program = os.path.join(self._programs, "zarip-bench-bus-threads")

        def run(*role):
            output = subprocess.run([program, *map(str, role)], stdout=subprocess.PIPE, check=True, timeout=PATIENCE)
            return list(map(float, output.stdout.split()))

        rates = []
        tails = []
        with self._peer("zarip", "serve"):
            for _ in range(self._rounds):
                rates.append((run("call", 1, calls)[0], run("call", 4, calls)[0]))
            for _ in range(3):
                tails.append(run("beside-hung", calls // 10))
        one, four = map(statistics.median, zip(*rates))
        ratio = statistics.median(after / before for before, after in rates)
        rows = [("one thread", f"{one:.0f}", "1.00"), ("four threads", f"{four:.0f}", f"{ratio:.2f}")]
        print_table("Calls a second on one connection", ["calls", "ratio"], rows)
        alone, beside = map(statistics.median, zip(*tails))
        ratio = statistics.median(after / before for before, after in tails)
        rows = [("undisturbed", f"{alone:.0f}", "1.00"), ("beside a hung service", f"{beside:.0f}", f"{ratio:.2f}")]
        print_table("p99 of a call while another thread waits on the connection", ["us", "ratio"], rows)
        sent, refused, lost, slowest = run("send", 4, 1024, duration)
        rows = [("four threads", f"{sent:.0f}", f"{refused:.0f}", f"{lost:.0f}", f"{slowest:.1f}")]
        title = f"Signals of 1 KiB without a pause for {duration / 1000:.0f} s"
        print_table(title, ["sent", "refused", "lost", "slowest ms"], rows)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("programs", help="the folder of the zarip-bench-peer-* programs")
    parser.add_argument("--quick", action="store_true", help="measure less")
    parser.add_argument("--rounds", type=int, default=0, help="how many, 9 unless given")
    parser.add_argument("--only", choices=["calls", "signals", "memory", "threads"], help="one kind of measurement")
    options = parser.parse_args()

    processors = os.sched_getaffinity(0)
    os.sched_setaffinity(0, {min(processors)})
    bench = Bench(options.programs, options.quick, options.rounds)
    with private_bus():
        if options.only in (None, "calls"):
            bench.calls(64)
            bench.calls(4096)
            bench.calls(32, "authenticate", "nine arguments to string")
        if options.only in (None, "signals"):
            bench.signals()
        if options.only in (None, "memory"):
            bench.memory()
    if options.only in (None, "threads"):
        os.sched_setaffinity(0, processors)
        with private_bus():
            bench.threads()


if __name__ == "__main__":
    main()
