"""install-packages.sh with other commands under the names of apt-get, dpkg-query, id and sudo, and a folder of
the test's own over /usr/sbin."""
import os
import pathlib
import shutil
import subprocess

import pytest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "packaging/install-packages.sh"
LIST = "# a comment\nbuild  tool\nbuild  held\ntest   half\nother  elsewhere\ntest   tool\nbench  redis-server\n"

UNSHARE = ["unshare", "--mount"] if os.getuid() == 0 else ["unshare", "--map-root-user", "--mount"]
if subprocess.run([*UNSHARE, "mount", "--bind", "/tmp", "/usr/sbin"], capture_output=True).returncode != 0:
    pytest.exit("no mount namespaces on this machine", returncode=77)

STUBS = {
    # One file for each package that the system knows, with its state.
    "dpkg-query": 'for last; do :; done; cat "$BOX/state-$last" 2>/dev/null || exit 1',
    "id": 'cat "$BOX/uid"',
    "sudo": 'echo "sudo $*" >>"$BOX/log"; echo 0 >"$BOX/uid"; shift; exec "$@"',
    "apt-get": 'echo "apt-get $*" >>"$BOX/log"\n'
               'if [ -e /usr/sbin/policy-rc.d ]; then sh /usr/sbin/policy-rc.d; echo "policy $?" >>"$BOX/log"; fi\n'
               'case "$*" in *" install "*) exit "$(cat "$BOX/install-status")" ;; esac',
    "systemctl": 'echo "systemctl $*" >>"$BOX/log"',
}


class Box:
    def __init__(self, folder):
        self.folder = folder
        self.policy = folder / "sbin/policy-rc.d"
        for name in ["bin", "sbin", "packaging"]:
            (folder / name).mkdir()
        shutil.copy(SCRIPT, folder / "packaging")
        (folder / "packaging/apt-packages.txt").write_text(LIST)
        for name in ["sh", "awk", "sed", "dirname", "cat", "rm", "chmod"]:
            (folder / "bin" / name).symlink_to(shutil.which(name))
        for name, body in STUBS.items():
            path = folder / "bin" / name
            path.write_text("#!/bin/sh\n" + body + "\n")
            path.chmod(0o755)

    def run(self, *groups, uid="0", install_status="0", tool="ii ", half="ii "):
        """The exit status, what was said and what was called."""
        for name, content in {"uid": uid, "install-status": install_status, "state-tool": tool, "state-held": "hi ",
                              "state-half": half, "log": ""}.items():
            (self.folder / name).write_text(content)
        inside = 'mount --bind "$BOX/sbin" /usr/sbin && PATH="$BOX/bin" && exec sh packaging/install-packages.sh "$@"'
        done = subprocess.run([*UNSHARE, "sh", "-c", inside, "sh", *groups], cwd=self.folder, text=True,
                              env={**os.environ, "BOX": str(self.folder)}, capture_output=True, timeout=60, check=False)
        return done.returncode, done.stdout + done.stderr, (self.folder / "log").read_text().splitlines()


@pytest.fixture
def box(tmp_path):
    return Box(tmp_path)


def test_only_what_is_missing_is_installed_and_no_service_starts(box):
    assert box.run("build", "test", uid="1000") == (0, "", [])  # nothing is missing, so nobody has to be root
    assert box.run("build", half="rc ") == (0, "", [])  # another group's
    for half in ("rc ", "un ", ""):
        status, _, log = box.run("build", "test", tool="rc ", half=half)  # one of them of two groups: named once
        assert status == 0 and " update" in log[0] and log[2].endswith("--no-install-recommends tool half")
        assert log[1::2] == ["policy 101"] * 2 and not box.policy.exists()
    status, _, log = box.run("test", half="rc ", install_status="100")
    assert status == 100 and "policy 101" in log and not box.policy.exists()
    box.policy.write_text("exit 0\n")  # an administrator's
    assert box.run("test", half="rc ")[2].count("policy 0") == 2
    assert box.policy.read_text() == "exit 0\n"
    for groups in ([], ["nothing"], ["build", "nothing"]):
        assert box.run(*groups, tool="rc ")[::2] == (2, [])


def test_sudo_is_used_when_not_root_and_what_to_do_is_said_without_it(box):
    status, _, log = box.run("bench", uid="1000")
    assert status == 0 and log[0].startswith("sudo ") and log[-3].endswith("-recommends redis-server")
    assert log[-1] == "systemctl --quiet disable redis-server"  # of the benchmarks: off at boot
    (box.folder / "bin/sudo").unlink()
    status, said, log = box.run("bench", uid="1000")
    assert (status, log) == (1, []) and "neither root nor sudo" in said
    assert "apt-get install --no-install-recommends redis-server" in said
