"""A Debian root of nothing but its essential packages and what ours depend on, made once by debootstrap from the
mirror that this machine uses, and a fresh overlay of it for every test."""

import glob
import json
import os
import pathlib
import re
import shutil
import subprocess
import time

PACKAGES = pathlib.Path(os.environ.get("AUTHD_PACKAGES", ""))
ROOTS = PACKAGES / "roots"
LONG_WAIT = 60
STANDALONE = ["systemd-standalone-sysusers", "systemd-standalone-tmpfiles"]
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8", "DEBIAN_FRONTEND": "noninteractive",
               "HOME": "/root", "TERM": "dumb"}


def call(*command, check=True, **options):
    done = subprocess.run(command, text=True, capture_output=True, timeout=900, check=False, stdin=subprocess.DEVNULL, **options)
    assert not check or done.returncode == 0, f"{command}: {done.returncode}\n{done.stdout}\n{done.stderr}"
    return done


def run(*command):
    return call(*command).stdout


def package(name):
    found = glob.glob(f"{PACKAGES}/{name}_*.deb")
    assert len(found) == 1, f"packages of that name: {found}"
    return found[0]


def dependencies(name):
    """The first alternative of each, without what a test chooses for itself."""
    clauses = run("dpkg-deb", "--field", package(name), "Depends").split(",")
    return {re.split(r"[ (|]", clause.strip())[0] for clause in clauses} - {"systemd", "quarn-authd"}


def in_chroot(root, *command, check=True):
    return call("chroot", root, *command, check=check, env=ENVIRONMENT)


def bootstrap(place):
    """From the archive that this machine installs from."""
    text = run("apt-get", "indextargets", "--format", "$(SITE) $(RELEASE) $(COMPONENT)", "Created-By: Packages")
    site, suite, _ = next(line.split() for line in text.splitlines() if re.fullmatch(r"\S+ [a-z]+ main", line))
    run("debootstrap", "--variant=minbase", suite, str(place), site)
    for path in filter(os.path.isfile, [*glob.glob("/etc/apt/sources.list*"), *glob.glob("/etc/apt/sources.list.d/*")]):
        shutil.copy(path, f"{place}{path}")
    shutil.copy("/etc/resolv.conf", f"{place}/etc/resolv.conf")
    in_chroot(place, "apt-get", "update")


def make_root(place, make, packages):
    """Made beside its place and renamed, so that a broken attempt is none; made anew for other packages."""
    stamp = place / "etc/made-of"
    wanted = " ".join(sorted(packages))
    if stamp.exists() and stamp.read_text() == wanted:
        return
    draft = place.with_suffix(".draft")
    for old in (draft, place):
        shutil.rmtree(old, ignore_errors=True)
    place.parent.mkdir(parents=True, exist_ok=True)
    make(draft)
    if packages:
        policy = draft / "usr/sbin/policy-rc.d"
        policy.write_text("#!/bin/sh\nexit 101\n")
        policy.chmod(0o755)
        in_chroot(draft, "apt-get", "install", "--yes", "--no-install-recommends", *packages)
        in_chroot(draft, "apt-get", "clean")
        policy.unlink()
    (draft / "etc/made-of").write_text(wanted)
    draft.rename(place)


def make_roots():
    """`plain` has no systemd but its two tools that work alone; `systemd` can be booted."""
    ours = [*dependencies("quarn-authd"), *dependencies("quarn-authhelper"), "gss-ntlmssp"]
    make_root(ROOTS / "minimal", bootstrap, [])
    for name, more in (("plain", [*STANDALONE, "logrotate"]),
                       ("systemd", ["systemd", "systemd-sysv", "dbus", "iproute2"])):
        make_root(ROOTS / name, lambda draft: run("cp", "--archive", str(ROOTS / "minimal"), str(draft)), {*ours, *more})


class Root:
    """An overlay; what is done in it is forgotten at the end."""

    def __init__(self, lower, scratch):
        self.path = scratch / "root"
        for name in ("root", "upper", "work"):
            (scratch / name).mkdir()
        run("mount", "-t", "overlay", "overlay", "-o",
            f"lowerdir={lower},upperdir={scratch}/upper,workdir={scratch}/work", str(self.path))

    def mount_system(self):
        run("mount", "-t", "proc", "proc", str(self.path / "proc"))
        run("mount", "--rbind", "/dev", str(self.path / "dev"))
        run("mount", "-t", "tmpfs", "tmpfs", str(self.path / "run"))

    def __call__(self, *command, check=True):
        return in_chroot(self.path, *command, check=check)

    def shell(self, text):
        return self("sh", "-c", text).stdout.strip()

    def read(self, name):
        return (self.path / name.lstrip("/")).read_text()

    def write(self, name, text):
        (self.path / name.lstrip("/")).write_text(text)

    def exists(self, name):
        return os.path.lexists(f"{self.path}/{name.lstrip('/')}")


def until(condition, what, timeout=LONG_WAIT):
    deadline = time.monotonic() + timeout
    while not (value := condition()):
        assert time.monotonic() < deadline, f"did not happen within {timeout} s: {what() if callable(what) else what}"
        time.sleep(0.1)
    return value


def install(machine, path):
    """On a root or a booted machine; edited settings stay, as they do when nobody can be asked."""
    shutil.copy(path, f"{machine.path}/root/package.deb")
    machine("dpkg", "--install", "--force-confdef", "--force-confold", "/root/package.deb")


def answer(machine, *question):
    """The daemon's answer to authctl as a record."""
    def asked():
        done = machine("authctl", "--json", "--timeout", "5", *question, check=False)
        return json.loads(done.stdout) if done.stdout else None
    return until(asked, f"an answer to {question}")


def next_version(scratch):
    """The package once more, as a later version whose settings have another text than the first one's."""
    tree = scratch / "next"
    run("dpkg-deb", "--raw-extract", package("quarn-authd"), str(tree))
    control = tree / "DEBIAN/control"
    control.write_text(re.sub(r"(?m)^Version: .*$", r"\g<0>+next", control.read_text()))
    for name in ("LdapSetting.ini", "IPUserCache.ini"):
        path = tree / "etc/quarn" / name
        path.write_text(path.read_text() + "\n# A line of the later version.\n")
    result = scratch / "next.deb"
    run("dpkg-deb", "--root-owner-group", "-Znone", "--build", str(tree), str(result))
    return result
