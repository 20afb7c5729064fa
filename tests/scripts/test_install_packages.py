"""install-packages.sh with other commands under the names of apt-get, dpkg-query, id and sudo, and a folder of
the test's own over /usr/sbin."""
import os
import pathlib
import shutil
import subprocess

import pytest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "packaging/install-packages.sh"
LIST = "# a comment\nbuild  tool\nbuild  held\ntest   half\nother  elsewhere\ntest   tool\n"

UNSHARE = ["unshare", "--mount"] if os.getuid() == 0 else ["unshare", "--map-root-user", "--mount"]
if subprocess.run([*UNSHARE, "mount", "--bind", "/tmp", "/usr/sbin"], capture_output=True).returncode != 0:
    pytest.exit("no mount namespaces on this machine", returncode=77)

STUBS = {
    # One file for each package that the system knows, with its state.
    "dpkg-query": 'for last; do :; done; cat "$BOX/state/$last" 2>/dev/null || exit 1',
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
        for name in ["bin", "sbin", "state", "packaging"]:
            (folder / name).mkdir()
        shutil.copy(SCRIPT, folder / "packaging")
        (folder / "packaging/apt-packages.txt").write_text(LIST)
        for name in ["sh", "awk", "sed", "dirname", "cat", "rm", "chmod"]:
            (folder / "bin" / name).symlink_to(shutil.which(name))
        for name, body in STUBS.items():
            path = folder / "bin" / name
            path.write_text("#!/bin/sh\n" + body + "\n")
            path.chmod(0o755)
        self.set(uid="0", install_status="0")
        self.states(tool="ii ", held="hi ", half="ii ")

    def set(self, **values):
        for name, value in values.items():
            (self.folder / name.replace("_", "-")).write_text(value)

    def states(self, **states):
        for name, state in states.items():
            (self.folder / "state" / name).write_text(state)

    def run(self, *groups):
        inside = 'mount --bind "$BOX/sbin" /usr/sbin && PATH="$BOX/bin" && exec sh packaging/install-packages.sh "$@"'
        return subprocess.run([*UNSHARE, "sh", "-c", inside, "sh", *groups], cwd=self.folder, text=True,
                              env={**os.environ, "BOX": str(self.folder)}, capture_output=True, timeout=60)

    def log(self):
        path = self.folder / "log"
        return path.read_text().splitlines() if path.exists() else []

    def installs(self):
        return [line.partition("--no-install-recommends ")[2] for line in self.log() if " install " in line]

    def policy(self):
        return self.folder / "sbin/policy-rc.d"


@pytest.fixture
def box(tmp_path):
    return Box(tmp_path)


@pytest.mark.parametrize("state", ["rc ", "un ", None])
def test_only_what_is_missing_is_installed(box, state):
    box.set(uid="1000")
    done = box.run("build", "test")  # nothing is, so nobody has to be root
    assert (done.returncode, done.stdout, done.stderr, box.log()) == (0, "", "", [])
    box.set(uid="0")
    (box.folder / "state/half").unlink()
    if state:
        box.states(half=state)
    assert box.run("build").returncode == 0 and box.log() == []  # another group's
    box.states(tool="rc ")  # of two groups: named once
    done = box.run("build", "test")
    assert done.returncode == 0, done
    assert " update" in box.log()[0]
    assert box.installs() == ["tool half"]
    assert box.log().count("policy 101") == 2  # no service starts
    assert not box.policy().exists()


def test_a_failed_installation_is_told_and_leaves_no_policy(box):
    box.states(half="rc ")
    box.set(install_status="100")
    assert box.run("test").returncode == 100
    assert "policy 101" in box.log() and not box.policy().exists()


def test_an_administrators_policy_stays(box):
    box.states(half="rc ")
    box.policy().write_text("exit 0\n")
    assert box.run("test").returncode == 0
    assert box.log().count("policy 0") == 2
    assert box.policy().read_text() == "exit 0\n"


def test_sudo_is_used_when_not_root_and_what_to_do_is_said_without_it(box):
    (box.folder / "packaging/apt-packages.txt").write_text(LIST + "bench redis-server\n")
    box.set(uid="1000")
    assert box.run("bench").returncode == 0
    assert box.log()[0].startswith("sudo ") and box.installs() == ["redis-server"]
    assert box.log()[-1] == "systemctl --quiet disable redis-server"  # of the benchmarks: off at boot
    box.set(uid="1000", log="")
    (box.folder / "bin/sudo").unlink()
    done = box.run("bench")
    assert done.returncode == 1 and "neither root nor sudo" in done.stderr
    assert "apt-get install --no-install-recommends redis-server" in done.stderr and box.log() == []


@pytest.mark.parametrize("groups", [[], ["nothing"], ["build", "nothing"]])
def test_unknown_groups_are_refused(box, groups):
    box.states(tool="rc ")
    assert box.run(*groups).returncode == 2 and box.log() == []
