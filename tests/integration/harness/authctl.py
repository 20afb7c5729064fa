"""authctl as an administrator runs it."""

import subprocess

from harness.daemon import LONG_WAIT, program

OK, OTHER, USAGE, NO_ANSWER = range(4)  # how it ends


def authctl(*arguments, given="", user=None):
    """(exit status, output, errors), as root or as the user with this number."""
    identity = {} if user is None else {"user": user, "group": user, "extra_groups": []}
    done = subprocess.run([program("authctl"), *arguments], input=given, capture_output=True, text=True,
                          timeout=LONG_WAIT, check=False, **identity)
    return done.returncode, done.stdout, done.stderr
