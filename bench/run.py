#!/usr/bin/env python3
"""Measures the daemon beside memcached, redis, slapd, helpers of a proxy and servers that only echo, and prints tables.

    run.py BUILD_DIRECTORY [--quick] [--only REGEX] [--write]

All servers run at once on a private loopback; a workload asks them in turns, round by round, with the same client
code. Load generator and servers share the processors.
"""

import argparse
import json
import os
import pathlib
import re
import subprocess
import sys

import gss
import machine
import report
import rows
import servers
from machine import WORKDIR, Broken, Impossible

USERS, GROUPS = 20000, 2000
TITLES = [report.MEMORY_TITLE, *(row.title for row in rows.ROWS), rows.CURVE_TITLE, *gss.TITLES]
LOAD_LIMIT = 120  # seconds that a load run with all its connections may take
MANY_BINDINGS = 1_000_000
ANY_PROCESSOR = os.sched_getaffinity(0)
ONE_PROCESSOR = {min(ANY_PROCESSOR)}
OTHER_PROCESSORS = ANY_PROCESSOR - ONE_PROCESSOR


class Bench:
    """The servers of a run, each started when it is first asked, and the load on them."""

    def __init__(self, build, quick):
        self.programs = build / "bin"
        self.quick = quick
        self.rounds, self.seconds, self.warmup = (1, 0.25, 0.05) if quick else (5, 0.8, 0.2)
        self.intruders = machine.Intruders()
        self.daemon = None
        self.daemon_kind = None
        self.others = {}
        self.next_echo_port = 1101
        machine.make_workdir(self.program("make_ldif"), USERS, GROUPS)

    def program(self, name):
        path = self.programs / name
        if not path.exists():
            raise Broken(f"{path} is missing: build with -DBUILD_BENCH=ON")
        return str(path)

    def server(self, contestant, answer_bytes):
        name = contestant.server
        if name == "daemon":
            return self.the_daemon(contestant.options, contestant.store)
        # One echo server for each size of answer; the silent ones cost nothing.
        key = (name, answer_bytes) if name in rows.ECHOES else name
        if key not in self.others:
            self.others[key] = self.start(name, answer_bytes)
        return self.others[key]

    def start(self, name, answer_bytes):
        if name in rows.ECHOES:
            self.next_echo_port += 1
            return servers.start_echo(self.program("echo_server"), self.next_echo_port, answer_bytes,
                                      *(["--told"] if name == "echo_told" else []))
        return {"memcached": servers.start_memcached, "redis": lambda: servers.start_redis(6379),
                "redis_aof": servers.start_redis_aof, "slapd": servers.start_slapd}[name]()

    def the_daemon(self, options, store):
        if self.daemon_kind != (options, store):
            if self.daemon:
                self.daemon.stop()
            self.use_store(store)
            self.daemon = servers.Daemon(self.program("AuthDaemon"), *options)
            self.daemon_kind = (options, store)
        return self.daemon

    def use_store(self, store):
        """The next daemon's store of bindings; the big one is filled when it is first needed."""
        settings = WORKDIR / "IPUserCache.ini"
        settings.write_text(f"[IPUserCache]\nDirectory=bindings_{store}\n", encoding="ascii")
        machine.own(settings)
        folder = WORKDIR / f"bindings_{store}"
        if store == rows.MANY and not folder.exists():
            machine.run(self.program("fill_bindings"), str(WORKDIR), str(MANY_BINDINGS), str(USERS))
            for path in (folder, *folder.iterdir()):
                machine.own(path)

    def stop(self):
        for server in [self.daemon, *self.others.values()]:
            if server:
                server.stop()
        self.daemon, self.others = None, {}

    def generator(self, server, *options):
        return [self.program("load_generator"), "--protocol", server.protocol, "--port", str(server.port),
                "--users", str(USERS), "--server-pids", ",".join(map(str, server.pids())), *map(str, options)]

    def load(self, server, load, answer_bytes, title, seconds=None):
        server.wait_quiet()
        command = self.generator(server, "--request", load.request, "--connections", load.connections, "--idle",
                                 load.idle, "--at-once", load.at_once, "--keys", load.keys, "--step", load.step,
                                 "--pace", load.pace, "--answer-bytes", answer_bytes, "--seconds",
                                 seconds or self.seconds, "--warmup", self.warmup)
        place = load.place if OTHER_PROCESSORS else rows.ANYWHERE
        if place == rows.APART:
            command.append("--spin")
        if place != rows.ANYWHERE:
            command = ["taskset", "--cpu-list", ",".join(map(str, ONE_PROCESSOR)), *command]
            server.allow_processors(ONE_PROCESSOR if place == rows.TOGETHER else OTHER_PROCESSORS)
        try:
            with self.intruders.watch(server):
                done = subprocess.run(command, capture_output=True, text=True, check=False, timeout=LOAD_LIMIT)
        finally:
            if place != rows.ANYWHERE:
                server.allow_processors(ANY_PROCESSOR)
        if done.returncode != 0:
            raise Broken(f"{title}, {server.protocol}: {done.stderr.strip()}\n{done.stdout}")
        return json.loads(done.stdout)

    def answer_bytes(self, contestant):
        """How much the daemon answers on average: what the others are asked for."""
        probe = contestant.load._replace(connections=1, idle=0, at_once=0, pace=0, place=rows.ANYWHERE)
        return self.load(self.server(contestant, 0), probe, 0, "probe", seconds=0.05)["answer_bytes"]

    def measure(self, row, rounds=None, seconds=None):
        """name of the contestant -> results of the rounds."""
        answer_bytes = self.answer_bytes(row.daemon)
        contestants = row.contestants()
        results = {contestant.name: [] for contestant in contestants}
        for number in range(rounds or self.rounds * row.rounds):
            first = number % len(contestants)  # nobody is always the first or behind the same neighbour
            for contestant in contestants[first:] + contestants[:first]:
                server = self.server(contestant, answer_bytes)
                title = f"{row.title}, {contestant.name}"
                results[contestant.name].append(self.load(server, contestant.load, answer_bytes, title, seconds))
        return results

    def measure_curve(self):
        """Number of connections -> name of the server -> rate."""
        sizes, rounds, seconds = (rows.CURVE_SIZES_QUICK, 1, 0.2) if self.quick else (rows.CURVE_SIZES, 3, 0.6)
        curve = {}
        for size in sizes:
            progress(f"{rows.CURVE_TITLE}: {size:,}")
            by_name = self.measure(rows.curve_row(size), rounds, seconds)
            curve[size] = {name: report.median_of(results, lambda result: result["rate"])
                           for name, results in by_name.items()}
        return curve

    def idle_bytes(self, server):
        """Memory of a server for one more idle connection, beyond the first thousand."""
        # Every thread has used its stack, and nothing that a reply cache keeps is asked for.
        self.load(server, rows.Load("ip-query-miss", 1000), 0, "idle connections", seconds=0.5)
        server.wait_quiet()
        few, many = 1000, rows.IDLE - 1000
        with self.hold(server, few):
            before = server.memory()
            with self.hold(server, many):
                return (server.memory() - before) / many

    def hold(self, server, count):
        return Holder(self.generator(server, "--hold", "--idle", count, "--connections", 0,
                                     "--request", "ip-query-miss"))

    def measure_memory(self):
        """name of the server -> bytes."""
        progress(report.MEMORY_TITLE)
        asked = [rows.Contestant("daemon", "daemon", None), rows.Contestant("memcached", "memcached", None)]
        return {contestant.name: self.idle_bytes(self.server(contestant, 0)) for contestant in asked}


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


def progress(text):
    print(f"  {text} ...", file=sys.stderr, flush=True)


def measure_all(bench, only):
    result = report.Measured(bench.rounds, bench.seconds, os.getloadavg()[0], USERS, GROUPS)
    # First, in a daemon that has just started: nothing that it was asked before is in its memory.
    if only.search(report.MEMORY_TITLE):
        result.memory = bench.measure_memory()
    for row in rows.ROWS:
        if only.search(row.title):
            progress(row.title)
            result.rows.append((row, bench.measure(row)))
    if only.search(rows.CURVE_TITLE):
        result.curve = bench.measure_curve()
    bench.stop()
    if any(map(only.search, gss.TITLES)):
        result.exchanges = gss.measure(bench, only, progress)
    result.intruders = bench.intruders.share()
    return result


def regex(text):
    try:
        return re.compile(text)
    except re.error as error:
        raise argparse.ArgumentTypeError(f"{text}: {error}") from error


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=pathlib.Path, help="build directory, configured with -DBUILD_BENCH=ON")
    parser.add_argument("--quick", action="store_true", help="half a minute instead of a few; one short round each")
    parser.add_argument("--only", type=regex, metavar="REGEX", default="",
                        help="only the rows whose title it is found in")
    parser.add_argument("--list", action="store_true", help="print the titles and end")
    parser.add_argument("--write", action="store_true", help="write docs/performance.md and its plot, too")
    arguments = parser.parse_args()
    if not any(map(arguments.only.search, TITLES)):
        parser.error(f"--only {arguments.only.pattern}: no title has it; --list prints them")
    if arguments.write and (arguments.only.pattern or arguments.quick):
        parser.error("--write is for a whole run: without --only and --quick")
    return arguments


def main():
    arguments = parse_arguments()
    if arguments.list:
        print("\n".join(TITLES))
        return 0
    try:
        machine.enter()
        machine.build()
        bench = Bench(arguments.build.resolve(), arguments.quick)
        result = measure_all(bench, arguments.only)
        print("\n".join(result.lines()))
        if arguments.write:
            report.write(result)
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
