#!/usr/bin/env python3
"""Runs pytest in namespaces of its own: network, mounts, processes.

The daemon's port and folders are fixed, so every run gets a machine of its own to put them on: an empty
loopback, a private /etc and /var, and a process tree whose first process is pytest. Whatever is started
inside ends with it, also when the run is killed; runs beside each other do not meet.

    isolated.py --programs BUILD/bin --generated DIR --shortsleep LIB [pytest arguments]

Status 77 when this machine does not allow it (not root, no namespaces): a skipped test. Where CI is set that
is a failure.
"""

import argparse
import os
import subprocess
import sys

SKIPPED = 77
INSIDE = "AUTHD_TEST_INSIDE"
NAMESPACES = ["unshare", "--net", "--mount", "--pid", "--ipc", "--fork", "--kill-child", "--mount-proc"]


def refuse(reason):
    in_ci = os.environ.get("CI", "").lower() not in ("", "0", "false", "no")
    print(f"{'FAILED' if in_ci else 'SKIPPED'}: {reason}", file=sys.stderr)
    sys.exit(1 if in_ci else SKIPPED)


def enter(settings, pytest_arguments):
    if os.geteuid() != 0:
        refuse("these tests need root for namespaces of their own")
    trial = subprocess.run(NAMESPACES + ["true"], capture_output=True, text=True, check=False)
    if trial.returncode != 0:
        refuse(f"no namespaces on this machine: {trial.stderr.strip()}")
    here = os.path.dirname(os.path.abspath(__file__))
    os.environ.update({
        INSIDE: "1",
        "AUTHD_PROGRAMS": os.path.abspath(settings.programs),
        "AUTHD_SHORTSLEEP": os.path.abspath(settings.shortsleep),
        "PYTHONPATH": os.pathsep.join([here, os.path.abspath(settings.generated)]),
        "PYTHONDONTWRITEBYTECODE": "1",
    })
    os.execvp(NAMESPACES[0], NAMESPACES + [sys.executable, os.path.abspath(__file__)] + pytest_arguments)


def run_inside(pytest_arguments):
    from harness import sandbox  # pylint: disable=import-outside-toplevel

    try:
        sandbox.build()
    except sandbox.Impossible as error:
        refuse(str(error))
    import pytest  # pylint: disable=import-outside-toplevel

    sys.exit(pytest.main(["-p", "harness.fixtures", "-p", "no:cacheprovider", "-ra", *pytest_arguments]))


def main():
    if os.environ.get(INSIDE):
        run_inside(sys.argv[1:])
    parser = argparse.ArgumentParser(description="pytest in namespaces of its own")
    for option in ("--programs", "--generated", "--shortsleep"):
        parser.add_argument(option, required=True)
    enter(*parser.parse_known_args())


if __name__ == "__main__":
    main()
