import contextlib
import os
import subprocess

import pytest


@pytest.fixture
def scratch(tmp_path):
    """A folder on a tmpfs: the upper layer of an overlay must not lie on an overlay itself."""
    import bare_root  # pylint: disable=import-outside-toplevel # it wants to know where the packages are

    bare_root.run("mount", "-t", "tmpfs", "tmpfs", str(tmp_path))
    return tmp_path


@pytest.fixture
def root(scratch):
    import bare_root  # pylint: disable=import-outside-toplevel

    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    made = bare_root.Root(bare_root.ROOTS / "plain", scratch)
    made.mount_system()
    yield made
    # Its processes would be in the way of the next test.
    for entry in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(OSError):
            if os.readlink(f"/proc/{entry}/root") == str(made.path):
                os.kill(int(entry), 9)
