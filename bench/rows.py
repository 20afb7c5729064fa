"""What is measured, against what, and which ratio is the goal."""

from collections import namedtuple

IDLE = 9000
PACE = 20000  # requests a second
FEW, MANY = "few", "many"  # stores of bindings; MANY is filled before the start
# From one asked address to the next, so that a thousand of them are spread over a million bindings. It has
# no divisor in common with the number of users: a thousand users are asked about in either store.
SPREAD = 997

# Where generator and server run: wherever the kernel puts them; both on one processor; or the generator alone on one,
# where it never sleeps, and the server on the others.
ANYWHERE, TOGETHER, APART = "anywhere", "together", "apart"
# `at_once` 0: a question on every connection. `pace` 0: a closed loop.
Load = namedtuple("Load", "request connections idle at_once keys step pace place",
                  defaults=[0, 0, 1000, 1, 0, ANYWHERE])
# A server (a name that Bench knows) under a load; the daemon's options and store of bindings where it is the daemon.
Contestant = namedtuple("Contestant", "name server load options store", defaults=[(), FEW])
# `metric`: "rate" (at least `bound` of the other's), "p99" (at most `bound` times the other's), or "p999"
# (microseconds, at most `bound`, nothing beside it).
Goal = namedtuple("Goal", "metric against bound")


class Row:
    """The daemon under a load, and others beside it: servers under the same load, or the daemon under another."""

    def __init__(self, title, load, others=(), goals=(), options=(), store=FEW, rounds=1):
        self.title = title
        self.goals = goals
        self.rounds = rounds  # times those of the run: a bound within a few per cent of 1 wants more of them
        self.daemon = Contestant("daemon", "daemon", load, options, store)
        self.others = [other if isinstance(other, Contestant) else Contestant(NAMES[other], other, load)
                       for other in others]

    def contestants(self):
        return [self.daemon, *self.others]


NAMES = {"echo_fast": "echo, fast", "echo_told": "echo, told", "memcached": "memcached", "redis": "redis",
         "redis_aof": "redis, append-only file", "slapd": "slapd"}
ECHOES = ("echo_fast", "echo_told")


def itself(name, load, store=FEW):
    """The daemon without what the row is about."""
    return Contestant(f"daemon, {name}", "daemon", load, (), store)


def at_least(bound, against):
    return Goal("rate", NAMES.get(against, f"daemon, {against}"), bound)


LOOK_UP = Load("user-info", 64)
MIXED = LOOK_UP._replace(request="user-info:95,bind:5")
BOUND = Load("ip-query-hit", 64)

# Rows with the same options of the daemon and the same store stand together: each change starts it anew.
ROWS = [
    Row("look-up, cached, 1 connection", LOOK_UP._replace(connections=1), (*ECHOES, "memcached")),
    Row("the same, both ends on one processor", LOOK_UP._replace(connections=1, place=TOGETHER),
        (*ECHOES, "memcached"), [at_least(0.85, "memcached")]),
    Row("look-up, cached, 64 connections", LOOK_UP, (*ECHOES, "memcached"), [at_least(0.90, "memcached")]),
    Row("look-up, cached, 1,000 connections", LOOK_UP._replace(connections=1000), (*ECHOES, "memcached"),
        [at_least(0.90, "memcached")]),
    Row("look-up, cached, 64 connections beside 9,000 idle", LOOK_UP._replace(idle=IDLE),
        (itself("no idle ones", LOOK_UP), "echo_fast"), [at_least(0.97, "no idle ones")], rounds=2),
    Row("look-up, cached, 9,000 connections, 64 at a time", LOOK_UP._replace(connections=IDLE, at_once=64),
        ("echo_told", "memcached"), [at_least(0.90, "memcached")]),
    Row("look-up, cached, 64 connections, 20,000 a second", LOOK_UP._replace(pace=PACE, place=APART),
        ("echo_fast", "memcached"), [Goal("p99", "memcached", 1.25), Goal("p999", "daemon", 1000)]),
    Row("95 % look-up, 5 % bind, 64 connections", MIXED, (itself("look-up only", LOOK_UP),),
        [at_least(0.97, "look-up only")], rounds=2),
    Row("IP query, bound, 64 connections", BOUND, ("memcached", "redis")),
    Row("IP query, not bound, 64 connections", Load("ip-query-miss", 64), ("memcached", "redis")),
    Row("IP bind, 64 connections", Load("bind", 64, keys=10000), ("memcached", "redis", "redis_aof"),
        [at_least(0.80, "redis_aof")]),
    Row("password check {SSHA}, 8 connections", Load("validate", 8), (*ECHOES, "slapd"),
        [at_least(5, "slapd")]),
    Row("look-up, not cached, 8 connections", LOOK_UP._replace(connections=8), (*ECHOES, "slapd"),
        [at_least(4, "slapd")], options=("--disable-reply-cache",)),
    Row("IP query, a million bindings, 64 connections", BOUND._replace(step=SPREAD),
        (itself("a thousand bindings", BOUND),), store=MANY),
]

# The plot: the look-up's throughput against the number of connections.
CURVE_TITLE = "throughput against connections"
CURVE_SIZES = (1, 4, 16, 64, 256, 1000, 4000)
CURVE_SIZES_QUICK = (1, 64, 1000)
CURVE_SERVERS = ("memcached", *ECHOES)


def curve_row(size):
    return Row(f"{CURVE_TITLE}: {size}", LOOK_UP._replace(connections=size), CURVE_SERVERS)
