"""What a run has found, as a table and as the page docs/performance.md."""

import datetime
import os
import pathlib
import platform
import statistics

import plot
import rows

DOCS = pathlib.Path(__file__).resolve().parent.parent / "docs"
PAGE, PLOT = DOCS / "performance.md", DOCS / "performance-connections.svg"
MEMORY_TITLE = "memory of an idle connection"
MEMORY_GOAL = 256  # bytes
BUSY = 0.1  # of the processors, taken by work of others: from here on the figures are doubtful

HEAD = ["| workload | server | requests/s | daemon / this | goal | CPU s per 100,000 | p50 us | p99 us | p99.9 us |",
        "|---|---|--:|--:|---|--:|--:|--:|--:|"]
EXCHANGES_HEAD = ["| exchanges a second | clients | daemon | helper | helper's | daemon / helper |",
                  "|---|--:|--:|---|--:|--:|"]


def median_of(results, value):
    return statistics.median(value(result) for result in results)


def ratio(ours, others, key):
    """Within a round, of which the median: what disturbs a whole round leaves it alone."""
    # No time at all in any answer or no answer at all is no figure to divide by.
    return statistics.median(our[key] / other[key] if other[key] else float("inf")
                             for our, other in zip(ours, others))


def cpu_per_100k(result):
    return result["server_cpu_s"] / result["requests"] * 1e5


def count(number):
    return f"{number:,.0f}"


def judged(text, met, busy=False):
    """Beside other work a ratio tells who was starved, so nothing is said of a goal; the figures stand by themselves."""
    return f"{text}: {'not judged' if busy else 'met' if met else 'short'}"


class Measured:
    """The results of a run."""

    def __init__(self, rounds, seconds, load_before, users, groups):
        self.rounds, self.seconds, self.load_before = rounds, seconds, load_before
        self.users, self.groups = users, groups
        self.rows = []
        self.intruders = 0.0  # share of the processors that work of others took
        self.memory = {}
        self.curve = {}
        self.exchanges = []

    def busy(self):
        return self.intruders > BUSY

    def circumstances(self):
        text = (f"{datetime.date.today()}, {kind_of_machine()}. {self.users:,} users and {self.groups:,} groups; "
                f"{self.rounds} round{'s' * (self.rounds > 1)} of {self.seconds} s (twice as many where the goal is "
                f"within 3 % of the daemon itself), medians. Load average before "
                f"the run: {self.load_before:.1f}; of the processors, other work took {self.intruders:.0%} during it.")
        if self.busy():
            text += " **The machine was busy with other things: take no figure from this run.**"
        return text

    def lines(self):
        lines = [self.circumstances(), ""]
        if self.rows:
            lines += [*HEAD, *(line for row, results in self.rows for line in table_lines(row, results, self.busy())), ""]
        for row, results in self.rows:
            if row.daemon.load.pace:
                lines += [delay_line(row, results), ""]
        if self.memory:
            lines += [self.memory_line(), ""]
        if self.curve:
            lines += [*self.curve_lines(), ""]
        if self.exchanges:
            lines += [*EXCHANGES_HEAD, *map(exchanges_line, self.exchanges), ""]
        return lines[:-1]

    def memory_line(self):
        daemon = self.memory["daemon"]
        return ("Memory of a process for one more idle connection, without the kernel's: daemon "
                f"{judged(f'{daemon:.0f} bytes (goal: below {MEMORY_GOAL}', daemon < MEMORY_GOAL)}), "
                f"memcached {self.memory['memcached']:.0f} bytes.")

    def curve_lines(self):
        lines = [f"| {rows.CURVE_TITLE} | " + " | ".join(f"{size:,}" for size in self.curve) + " |",
                 "|---|" + "--:|" * len(self.curve)]
        return lines + [f"| {name} | " + " | ".join(map(count, rates)) + " |"
                        for name, rates in by_server(self.curve).items()]


def exchanges_line(found):
    if found.missing:
        return f"| {found.title} |  | not measured: {found.missing} is not installed | {found.name} |  |  |"
    ours, theirs = (count(median_of(results, lambda result: result["rate"])) for results in (found.ours, found.theirs))
    return (f"| {found.title} | {found.threads} | {ours} | {found.name} | {theirs} | "
            f"{ratio(found.ours, found.theirs, 'rate'):.2f} |")


def by_server(curve):
    """name of the server -> rates, in the order of the numbers of connections."""
    names = next(iter(curve.values()))
    return {name: [rates[name] for rates in curve.values()] for name in names}


def table_lines(row, by_name, busy):
    for name, results in by_name.items():
        ours = name == row.daemon.name
        percentiles = [count(median_of(results, lambda result, key=key: result[key]))
                       for key in ("p50_us", "p99_us", "p999_us")]
        goals = "; ".join(goal_text(goal, by_name, busy) for goal in row.goals if goal.against == name)
        cells = [row.title if ours else "", name, count(median_of(results, lambda result: result["rate"])),
                 "" if ours else f"{ratio(by_name[row.daemon.name], results, 'rate'):.2f}", goals,
                 f"{median_of(results, cpu_per_100k):.2f}", *percentiles]
        yield "| " + " | ".join(cells) + " |"


def delay_line(row, by_name):
    """How far the times of a paced row can be believed."""
    def delays(key):
        return ", ".join(f"{name} {count(median_of(results, lambda result: result[key]))} us"
                         for name, results in by_name.items())

    return (f"{row.title}: the generator itself sent one question in a hundred late by more than this: "
            f"{delays('delay_p99_us')}; one in a thousand by more than this: {delays('delay_p999_us')}.")


def goal_text(goal, by_name, busy=False):
    ours, others = by_name["daemon"], by_name[goal.against]
    if goal.metric == "rate":
        return judged(f"{goal.bound:.2f}", ratio(ours, others, "rate") >= goal.bound, busy)
    if goal.metric == "p99":
        found = ratio(ours, others, "p99_us")
        return judged(f"p99 {found:.2f}, at most {goal.bound}", found <= goal.bound, busy)
    return judged(f"p99.9 at most {count(goal.bound)} us",
                  median_of(ours, lambda result: result["p999_us"]) <= goal.bound, busy)


def kind_of_machine():
    info = pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8")
    model = next((line.split(":", 1)[1].strip() for line in info.splitlines() if line.startswith("model name")),
                 platform.machine())
    virtual = "virtual machine" if " hypervisor" in info else "machine"
    return f"{virtual}, {os.cpu_count()} cores ({model}), Linux {platform.release().split('-')[0]}"


def page(measured):
    head = f"""# Performance

Renewed by `make bench BENCH_FLAGS=--write`, which runs `bench/run.py` and takes some minutes. `BENCH_FLAGS=--quick`
takes half a minute, `BENCH_FLAGS="--only 'REGEX'"` measures the rows whose title it is found in (`--list`: the titles).
`build/bin/micro` measures steps of a request by themselves.

![Requests a second against connections]({PLOT.name})

How to read it:

- Load generator and servers, each in a session of its own, share the processors of one machine and its loopback, so
  a server with less to do also has a faster client: the ratio within a round and the processor time say more than a
  rate by itself. "daemon / this" is the median of the rounds' ratios; above 1 the daemon is faster.
- Every server is asked by the same client code, and every answer is compared byte by byte with the right one;
  questions and answers are made before the load. An answer of slapd is bytes to it like one of the daemon.
- Which of the daemon's two workers takes a connection is chance: of 64, one may have 62 or 33. The rate follows it,
  since with one worker busy the generator has the other processor. So rounds of a row differ, and medians still do.
- memcached has two threads, redis one, the daemon two workers of ten threads; slapd four. memcached and
  redis are asked for a value of the daemon's answer's size, or store the same address and user.
- slapd has the same users and groups in a memory-mapped database on the RAM disk. Its search is by the
  indexed account name, for names and direct groups only; its bind is told the DN, which the daemon has to find.
- Both echo servers answer frames of the daemon's size and do nothing else. "fast" has two threads and an epoll set
  each: what the machine gives. "told" hands every descriptor over between threads as the event loop is described,
  with as many processes and threads as the daemon, and saves no step: the ceiling of the plain design.
- At a fixed pace a question's time counts from when it was due, not from when it was sent, so that a stall shows in
  every question that fell due meanwhile. The generator then has one processor to itself, where it never sleeps, and
  each server has the others. Left to the kernel, generator and server change processors in the middle of a run: the
  slowest answer in a thousand tells then how long one of them waited for the other to be taken off a processor, and
  the processor time whether a question woke the other processor, which costs several times what answering costs.
- 9,000 idle connections cost the kernel and the generator something, too: "echo, fast" has as many in that row, none in
  the one of 64 connections.
- With 8 connections "echo, fast" shows what the machine gives when there is nothing to find out.
- An exchange of NTLM is both of its legs, with the client's part; of Negotiate one ticket, made before, with the replay
  caches on. ntlm_auth knows one password, given on its command line; Squid's helper has the same keytab as the daemon.
  Each client has a connection to the daemon, or a helper process of its own.
"""
    return [*head.splitlines(), "", *measured.lines()]


def write(measured):
    PAGE.write_text("\n".join(page(measured)) + "\n", encoding="utf-8")
    PLOT.write_text(plot.throughput(list(measured.curve), by_server(measured.curve),
                                    "measured on a busy machine: no figures to go by" if measured.busy() else ""), encoding="utf-8")
