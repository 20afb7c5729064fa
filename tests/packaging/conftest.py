import contextlib
import os

import pytest
from bare_root import ROOTS, Root, run


@pytest.fixture
def scratch(tmp_path):
    """A folder on a tmpfs: the upper layer of an overlay must not lie on an overlay itself."""
    run("mount", "-t", "tmpfs", "tmpfs", str(tmp_path))
    run("ip", "link", "set", "lo", "up")
    return tmp_path


@pytest.fixture
def root(scratch):
    made = Root(ROOTS / "plain", scratch)
    made.mount_system()
    yield made
    # Its processes would be in the way of the next test.
    for entry in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(OSError):
            if os.readlink(f"/proc/{entry}/root") == str(made.path):
                os.kill(int(entry), 9)
