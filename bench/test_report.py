"""What the table says of a goal is what the table's reader decides by."""

import subprocess
import sys
from pathlib import Path

import pytest

import report
import rows


def rounds(*rates, **more):
    return [{"rate": rate, "requests": 1000, "server_cpu_s": 0.01, "p50_us": 10, "p99_us": 20, "p999_us": 900, **more}
            for rate in rates]


# The machine was slow in the second round, for both: the ratio of the medians would be 1.
RISING, FALLING = rounds(100, 10, 90), rounds(90, 100, 200)


@pytest.mark.parametrize("goal, ours, others, expected", [
    (rows.at_least(0.9, "memcached"), rounds(90, 9, 90), rounds(100, 10, 100), "0.90: met"),
    (rows.at_least(0.9, "memcached"), rounds(90, 9, 80), rounds(101, 11, 80), "0.90: short"),
    (rows.at_least(0.9, "memcached"), RISING, FALLING, "0.90: short"),
    (rows.Goal("p99", "memcached", 1.25), rounds(1, p99_us=25), rounds(1), "p99 1.25, at most 1.25: met"),
    (rows.Goal("p99", "memcached", 1.25), rounds(1, p99_us=26), rounds(1), "p99 1.30, at most 1.25: short"),
    (rows.Goal("p999", "daemon", 1000), rounds(1, p999_us=1000), [], ": met"),  # judged by itself
    (rows.Goal("p999", "daemon", 1000), rounds(1, p999_us=1001), [], ": short"),
])
def test_a_goal_is_judged_by_the_median_of_the_rounds_ratios(goal, ours, others, expected):
    assert report.goal_text(goal, {"daemon": ours, "memcached": others}).endswith(expected)


def test_beside_other_work_no_goal_is_judged_but_memory():
    measured = report.Measured(5, 1.0, 0.0, 10, 10)
    row = rows.Row("a row", rows.LOOK_UP, ["memcached"], [rows.at_least(0.9, "memcached"),
                                                           rows.Goal("p99", "memcached", 1.25),
                                                           rows.Goal("p999", "daemon", 1000)])
    measured.rows = [(row, {"daemon": rounds(100), "memcached": rounds(1)})]
    measured.memory = {"daemon": 10, "memcached": 10}
    measured.intruders = report.BUSY / 2
    calm = "\n".join(measured.lines())
    assert calm.count(": met") == 4 and "busy" not in calm
    measured.intruders = report.BUSY * 2
    busy = "\n".join(measured.lines())
    assert busy.count("not judged") == 3 and busy.count(": met") == 1 and "busy" in busy


def test_every_goal_stands_beside_a_server_of_its_row():
    for row in rows.ROWS:
        names = {contestant.name for contestant in row.contestants()}
        assert len(names) == 1 + len(row.others) and {goal.against for goal in row.goals} <= names, row.title


def test_titles_are_listed():
    """Which takes every file of a run, also those whose rows are measured seldom."""
    done = subprocess.run([sys.executable, Path(__file__).with_name("run.py"), "build", "--list"], capture_output=True,
                          text=True, check=False)
    assert done.returncode == 0 and "NTLM exchanges" in done.stdout.splitlines(), done
