#!/usr/bin/env python3
"""Measures the daemon beside memcached, redis and a server that only echoes, and prints one table.

    run.py BUILD_DIRECTORY [--quick] [--write]

All servers run at once on a private loopback, two threads or processes each; a workload asks them in turns,
round by round, with the same client code. Load generator and servers share the processors.
"""

import argparse
import datetime
import json
import os
import pathlib
import platform
import statistics
import subprocess
import sys
from collections import namedtuple

import machine
from machine import Broken, Impossible

PAGE = pathlib.Path(__file__).resolve().parent.parent / "docs" / "performance.md"
USERS, GROUPS = 20000, 2000
KEYS = 1000
IDLE = 9000
LOAD_LIMIT = 120  # seconds that a load run with all its connections may take

# `others`: the servers beside the daemon. `daemon`: the daemon's options; rows with the same stand together.
Row = namedtuple("Row", "title request connections idle others keys daemon", defaults=[0, (), KEYS, ()])

ROWS = [
    Row("user information, cached, 1 connection", "user-info", 1, 0, ("echo", "memcached")),
    Row("the same, 64 connections", "user-info", 64, 0, ("echo", "memcached")),
    Row("the same, 1,000 connections", "user-info", 1000, 0, ("echo", "memcached")),
    Row("the same, 64 beside 9,000 idle", "user-info", 64, IDLE, ("echo",)),
    Row("IP query, bound, 64 connections", "ip-query-hit", 64, 0, ("memcached", "redis")),
    Row("IP query, not bound, 64 connections", "ip-query-miss", 64, 0, ("memcached", "redis")),
    Row("IP bind, 64 connections", "bind", 64, 0, ("memcached", "redis", "redis-aof"), 10000),
    Row("95 % user information, 5 % bind, 64 connections", "user-info:95,bind:5", 64, 0, ()),
    Row("password check {SSHA}, 8 connections", "validate", 8, 0, ("echo",)),
    Row("user information, not cached, 8 connections", "user-info", 8, 0, ("echo",), KEYS,
        ("--disable-reply-cache",)),
]

NAMES = {"daemon": "daemon", "echo": "echo", "memcached": "memcached", "redis": "redis",
         "redis-aof": "redis, append-only file"}


class Bench:
    """The servers of a run, and the load on them."""

    def __init__(self, build, quick):
        self.programs = build / "bin"
        self.rounds, self.seconds, self.warmup = (1, 0.4, 0.1) if quick else (5, 1.2, 0.3)
        self.load_before = os.getloadavg()[0]
        self.daemon = None
        self.echoes = {}
        self.others = {"memcached": machine.start_memcached(),
                       "redis": machine.start_redis(6379),
                       "redis-aof": machine.start_redis(6380, "--appendonly", "yes", "--appendfsync", "everysec",
                                                        "--auto-aof-rewrite-percentage", "0")}
        machine.make_workdir(self.program("make_ldif"), USERS, GROUPS)

    def program(self, name):
        path = self.programs / name
        if not path.exists():
            raise Broken(f"{path} is missing: build with -DBUILD_BENCH=ON")
        return str(path)

    def start_daemon(self, options):
        if self.daemon:
            self.daemon.stop()
        self.daemon = machine.Daemon(self.program("AuthDaemon"), *options)

    def stop(self):
        for server in [self.daemon, *self.others.values(), *self.echoes.values()]:
            if server:
                server.stop()

    def echo(self, answer_bytes):
        """One echo server for each size of answer; the silent ones cost nothing."""
        if answer_bytes not in self.echoes:
            port = 1101 + len(self.echoes)
            self.echoes[answer_bytes] = machine.start_echo(self.program("echo_server"), port, answer_bytes)
        return self.echoes[answer_bytes]

    def generator(self, server, *options):
        return [self.program("load_generator"), "--protocol", server.protocol, "--port", str(server.port),
                "--users", str(USERS), "--server-pids", ",".join(map(str, server.pids())), *map(str, options)]

    def load(self, server, row, answer_bytes, seconds=None):
        server.wait_quiet()
        command = self.generator(server, "--request", row.request, "--connections", row.connections, "--idle",
                                 row.idle, "--keys", row.keys, "--answer-bytes", answer_bytes, "--seconds",
                                 seconds or self.seconds, "--warmup", self.warmup)
        done = subprocess.run(command, capture_output=True, text=True, check=False, timeout=LOAD_LIMIT)
        if done.returncode != 0:
            raise Broken(f"{row.title}, {server.protocol}: {done.stderr.strip()}\n{done.stdout}")
        return json.loads(done.stdout)

    def measure(self, row):
        """server name -> results of the rounds."""
        probe = row._replace(connections=1, idle=0)
        answer_bytes = self.load(self.daemon, probe, 0, seconds=0.05)["answer_bytes"]
        servers = {"daemon": self.daemon}
        for name in row.others:
            servers[name] = self.echo(answer_bytes) if name == "echo" else self.others[name]
        results = {name: [] for name in servers}
        names = list(servers)
        for number in range(self.rounds):
            first = number % len(names)  # nobody is always the first or behind the same neighbour
            for name in names[first:] + names[:first]:
                results[name].append(self.load(servers[name], row, answer_bytes))
        return results

    def idle_bytes(self, server):
        """Memory of a server that has just started for one more idle connection, beyond the first thousand."""
        # Every thread has used its stack, and nothing that a reply cache keeps is asked for.
        crowd = Row("idle connections", "ip-query-miss", 1000)
        self.load(server, crowd, 0, seconds=0.5)
        server.wait_quiet()
        few, many = 1000, IDLE - 1000
        with self.hold(server, few):
            before = server.memory()
            with self.hold(server, many):
                return (server.memory() - before) / many

    def hold(self, server, count):
        return Holder(self.generator(server, "--hold", "--idle", count, "--connections", 0,
                                     "--request", "ip-query-miss"))


class Holder:
    """Idle connections, for as long as the block lasts."""

    def __init__(self, command):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def __enter__(self):
        if self.process.stdout.readline() != "ready\n":
            raise Broken("the idle connections could not be opened")

    def __exit__(self, *_):
        self.process.stdin.close()
        self.process.wait(machine.PATIENCE)


def cpu_per_100k(result):
    return result["server_cpu_s"] / result["requests"] * 1e5


def median_of(results, value):
    return statistics.median(value(result) for result in results)


def count(number):
    return f"{number:,.0f}"


def table(measured):
    """Lines of a Markdown table."""
    lines = ["| workload | server | requests/s | daemon's rate / this | CPU s per 100,000 | p50 us | p99 us "
             "| p99.9 us |",
             "|---|---|--:|--:|--:|--:|--:|--:|"]
    for row, by_server in measured:
        for name, results in by_server.items():
            ratios = [ours["rate"] / other["rate"] for ours, other in zip(by_server["daemon"], results)]
            percentiles = [count(median_of(results, lambda result, key=key: result[key]))
                           for key in ("p50_us", "p99_us", "p999_us")]
            cells = [row.title if name == "daemon" else "", NAMES[name],
                     count(median_of(results, lambda result: result["rate"])),
                     "" if name == "daemon" else f"{statistics.median(ratios):.2f}",
                     f"{median_of(results, cpu_per_100k):.2f}", *percentiles]
            lines.append("| " + " | ".join(cells) + " |")
    return lines


def kind_of_machine():
    info = pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8")
    model = next((line.split(":", 1)[1].strip() for line in info.splitlines() if line.startswith("model name")),
                 platform.machine())
    virtual = "virtual machine" if " hypervisor" in info else "machine"
    return f"{virtual}, {os.cpu_count()} cores ({model}), Linux {platform.release().split('-')[0]}"


def circumstances(bench):
    return (f"{datetime.date.today()}, {kind_of_machine()}. {USERS:,} users and {GROUPS:,} groups; "
            f"{bench.rounds} round{'s' * (bench.rounds > 1)} of {bench.seconds} s, medians. Load average before the "
            f"run: {bench.load_before:.1f} (0 when nothing else runs).")


def write_page(lines):
    PAGE.write_text("\n".join(lines) + "\n", encoding="utf-8")


def page(bench, lines, memory):
    return [
        "# Performance",
        "",
        "Renewed by `make bench BENCH_FLAGS=--write`, which runs `bench/run.py` and takes some minutes.",
        "",
        circumstances(bench),
        "",
        "Load generator and servers share the processors of one machine and its loopback, so a server with less to do",
        "also has a faster client: the ratio within a round and the processor time say more than a rate by itself.",
        "Every answer is compared byte by byte with the right one. memcached has two threads, redis one, the daemon",
        "two workers of ten threads; `echo` answers frames of the same size and does nothing else, with two threads.",
        "memcached and redis are asked for a value of the daemon's answer's size, or store the same address and user.",
        "",
        *lines,
        "",
        memory,
    ]


def measure_memory(bench):
    daemon, memcached = (bench.idle_bytes(server) for server in (bench.daemon, bench.others["memcached"]))
    return (f"Memory of a process for one more idle connection, without the kernel's: daemon {daemon:.0f} bytes, "
            f"memcached {memcached:.0f} bytes.")


def measure_all(bench):
    measured = []
    memory = None
    options = None
    for row in ROWS:
        if row.daemon != options:
            options = row.daemon
            bench.start_daemon(options)
        memory = memory or measure_memory(bench)
        print(f"  {row.title} ...", file=sys.stderr, flush=True)
        measured.append((row, bench.measure(row)))
    return measured, memory


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=pathlib.Path, help="build directory, configured with -DBUILD_BENCH=ON")
    parser.add_argument("--quick", action="store_true", help="half a minute instead of a few; one short round each")
    parser.add_argument("--write", action="store_true", help="write docs/performance.md, too")
    arguments = parser.parse_args()
    bench = None
    try:
        machine.enter()
        machine.build()
        bench = Bench(arguments.build.resolve(), arguments.quick)
        measured, memory = measure_all(bench)
        lines = table(measured)
        print("\n".join([circumstances(bench), "", *lines, "", memory]))
        if arguments.write:
            write_page(page(bench, lines, memory))
        bench.stop()
    except Impossible as error:
        in_ci = os.environ.get("CI", "").lower() not in ("", "0", "false", "no")
        print(f"{'FAILED' if in_ci else 'SKIPPED'}: {error}", file=sys.stderr)
        return 1 if in_ci else 0
    except (Broken, subprocess.SubprocessError) as error:
        print(f"FAILED: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
