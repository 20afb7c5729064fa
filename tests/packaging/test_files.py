"""What the packages bring, judged without installing it: the unit, the drop-in for directory servers, the manual."""

import pathlib
import re
import shutil
import subprocess

import pytest

TOP = pathlib.Path(__file__).resolve().parents[2]
UNIT = TOP / "debian/quarn-authd.service"
WORST_EXPOSURE = 29  # tenths


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, timeout=60, check=False, **options)


@pytest.mark.skipif(not shutil.which("systemd-analyze"), reason="no systemd-analyze")
def test_the_unit_is_understood_and_hardened():
    done = run("systemd-analyze", "security", "--offline=true", f"--threshold={WORST_EXPOSURE}", "--no-pager", UNIT)
    assert done.returncode == 0, done.stdout[-1000:]
    assert "nknown" not in done.stderr, done.stderr
    limits = UNIT.read_text()
    for line in ("IPAddressDeny=any", "IPAddressAllow=localhost"):
        assert f"\n{line}\n" in limits


def allow(tmp_path, settings):
    (tmp_path / "settings").write_text(settings)
    (tmp_path / "resolv.conf").write_text("# old\nnameserver 192.0.2.53\nsearch corp.test\nnameserver fe80::1%eth0\n")
    return run("sh", TOP / "packaging/quarn-authd-allow", "--print",
               env={"PATH": "/usr/sbin:/usr/bin:/bin", "AUTH_SETTINGS": f"{tmp_path}/settings",
                    "AUTH_RESOLV_CONF": f"{tmp_path}/resolv.conf"})


def test_the_drop_in_names_exactly_the_configured_servers(tmp_path):
    done = allow(tmp_path, "\ufeff[Domain_1]\r\n# Servers=ldap://192.0.2.98\n"
                           " Servers = ldaps://192.0.2.1:3269  ldap://[2001:db8::7]:389/ LDAPS://192.0.2.2\r\n"
                           "[LDAP_Setting]\nServers=ldap://192.0.2.99\n[Domain_2]\nServers=ldap://127.0.0.1\n")
    assert done.returncode == 0, done
    assert [line for line in done.stdout.splitlines() if not line.startswith("#")] == [
        "[Service]", "IPAddressAllow=192.0.2.1", "IPAddressAllow=2001:db8::7", "IPAddressAllow=192.0.2.2",
        "IPAddressAllow=127.0.0.1", "IPAddressAllow=192.0.2.53", "IPAddressAllow=fe80::1"]


def test_an_unknown_server_changes_nothing(tmp_path):
    done = allow(tmp_path, "[Domain_1]\nServers=ldap://127.0.0.1 ldap://no-such-host.invalid\n")
    assert (done.returncode, done.stdout) == (1, "") and "no-such-host.invalid" in done.stderr


@pytest.mark.skipif(not shutil.which("mandoc") or not shutil.which("man"), reason="neither mandoc nor man")
@pytest.mark.parametrize("page", sorted((TOP / "docs/man").iterdir()), ids=lambda page: page.name)
def test_the_manual_is_well_formed(page):
    assert run("mandoc", "-T", "lint", "-W", "warning", page).stdout == ""
    assert run("man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", page).stderr == ""


def test_the_package_is_built_with_what_the_makefile_installs():
    lines = [line.split() for line in (TOP / "packaging/apt-packages.txt").read_text().splitlines()]
    libraries = {name for group, name, *_ in lines if group == "build" and name.endswith("-dev")}
    installed = {name for group, name, *_ in lines if group in ("build", "deb")}
    control = (TOP / "debian/control").read_text().partition("Build-Depends:")[2].partition("Standards-Version:")[0]
    needed = {re.sub(r" ?\(.*", "", clause.strip()) for clause in control.split(",")}
    # debhelper brings its levels and most of its sequences itself; every build wants the essential packages.
    needed = {name for name in needed if not name.startswith(("debhelper-compat", "dh-sequence-"))} | {"build-essential"}
    assert libraries and libraries <= needed <= installed
