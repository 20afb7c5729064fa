"""The package on a machine that systemd runs: service, restart, reload, the filter of addresses."""

import resource
import socket

import pytest
from bare_root import ROOTS, Root, answer, install, next_version, package, run, until
from machine import Machine

WORK = "/var/lib/quarn-authd"
OURS, THEIRS = "192.0.2.1", "192.0.2.2"


@pytest.fixture
def machine(scratch):
    with Machine(Root(ROOTS / "systemd", scratch)) as made:
        yield made


def log(machine):
    return machine("sh", "-c", "cat /var/brel/log/AuthDaemon.log.*").stdout


def running(machine):
    return machine.state()[:2] == ["active", "running"] and machine.main_pid()


def test_a_life_as_a_service(machine, scratch):
    install(machine, package("quarn-authd"))
    first = until(lambda: running(machine), machine.state)
    assert first == int(machine("cat", "/etc/quarn/pids/auth_daemon.pid").stdout)
    status = machine("cat", f"/proc/{first}/status").stdout
    assert "CapBnd:\t0000000000000000" in status and "NoNewPrivs:\t1" in status
    soft, hard = machine("sh", "-c", f"grep 'open files' /proc/{first}/limits").stdout.split()[3:5]
    assert soft == hard == str(min(65536, resource.getrlimit(resource.RLIMIT_NOFILE)[1]))
    assert machine("stat", "-c", "%U", f"/proc/{first}").stdout.strip() == "quarn"

    assert answer(machine, "bind", "192.0.2.11", "jmueller@corp.example.com")["result"] == 0
    machine("sed", "-i", "s/^LdifFile=.*/LdifFile=example.ldif/", "/etc/quarn/LdapSetting.ini")
    machine("systemctl", "reload", "quarn-authd")
    assert "told 2 worker processes" in machine("journalctl", "--no-pager").stdout[-3000:]
    until(lambda: answer(machine, "ip-query", "192.0.2.11").get("userInfo", {}).get("uid") == "jmueller", "the example")
    # The mechanism keeps its secrets in memory files, which the unit's limits must not forbid.
    logon = machine("sh", "-c", "echo Trial.jmueller | authctl ntlm 'EXAMPLE\\jmueller'")
    assert logon.stdout == "EXAMPLE\\jmueller\n"
    assert machine("authctl", "status").stdout.startswith(f"daemon:     running, pid {first}, 2 of 2 workers")
    # Where it may write, and where not: the export of a client names the path.
    assert answer(machine, "export", f"{WORK}/export/bindings.csv")["result"] == 0
    assert answer(machine, "export", "/var/lib/misc/bindings.csv")["result"] != 0

    install(machine, next_version(scratch))
    second = until(lambda: running(machine), machine.state)
    assert second != first
    assert answer(machine, "ip-query", "192.0.2.11")["userInfo"]["uid"] == "jmueller"

    # A crash takes the workers along and is followed by a new start. What was bound a moment ago is not lost.
    assert answer(machine, "bind", "192.0.2.12", "jmueller@corp.example.com")["result"] == 0
    machine("kill", "-KILL", str(second))
    third = until(lambda: running(machine) not in (0, second) and running(machine), machine.state)
    assert machine("pgrep", "--session", str(second), check=False).stdout == ""
    for address in ("192.0.2.11", "192.0.2.12"):
        assert answer(machine, "ip-query", address)["userInfo"]["uid"] == "jmueller"

    # A worker that dies is the parent's business.
    worker = int(machine("pgrep", "--parent", str(third)).stdout.split()[0])
    machine("kill", "-KILL", str(worker))
    until(lambda: f"child process [{worker}] exit" in log(machine), "the worker's end")
    assert running(machine) == third

    machine("systemctl", "stop", "quarn-authd")
    assert machine.state()[0] == "inactive" and log(machine).rstrip().count("Daemon exit") >= 1
    machine("sed", "-i", "s/^Source=.*/Source=nothing/", "/etc/quarn/LdapSetting.ini")
    assert machine("systemctl", "start", "quarn-authd", check=False).returncode != 0
    assert "expected one of ldif, ldap" in machine("journalctl", "--no-pager").stdout[-3000:]

    machine("dpkg", "--purge", "quarn-authd")
    assert machine("systemctl", "cat", "quarn-authd", check=False).returncode != 0
    assert not machine.root.exists(WORK) and not machine.root.exists("/var/brel")


def connects(address):
    """Whether a connection to the daemon, from here, gets an answer."""
    try:
        with socket.create_connection((address, 1100), timeout=2) as connection:
            connection.settimeout(5)
            connection.sendall(bytes([5, 0, 0, 0, 6, 0, 0, 0, 10, 3]) + b"::1")
            return len(connection.recv(100)) > 8
    except OSError:
        return False


def test_only_the_machine_itself_reaches_the_port_until_others_are_allowed(machine):
    install(machine, package("quarn-authd"))
    until(lambda: running(machine), machine.state)
    run("ip", "addr", "add", f"{OURS}/24", "dev", f"ve-{machine.name}")
    run("ip", "link", "set", f"ve-{machine.name}", "up")
    machine("ip", "addr", "add", f"{THEIRS}/24", "dev", "host0")
    machine("ip", "link", "set", "host0", "up")
    assert answer(machine, "ip-query", "::1")["result"] == 1
    warned = machine("journalctl", "--no-pager", "--grep=BPF|firewall", check=False).stdout
    if "not supported" in warned or "firewalling is not" in warned:
        pytest.skip("this kernel cannot filter addresses for a unit")
    assert not connects(THEIRS)

    folder = machine.path / "etc/systemd/system/quarn-authd.service.d"
    folder.mkdir(parents=True, exist_ok=True)
    (folder / "proxies.conf").write_text(f"[Service]\nIPAddressAllow={OURS}\n")
    machine("systemctl", "daemon-reload")
    machine("systemctl", "restart", "quarn-authd")
    assert until(lambda: connects(THEIRS), "an answer to the proxy")

    # The way out to directory servers is shut as well, and opened by name.
    machine("sh", "-c", f"printf '[Domain_1]\\nDnsName=corp.test\\nServers=ldap://{OURS}\\n' >/etc/quarn/LdapSetting.ini")
    machine("quarn-authd-allow")
    shown = machine("systemctl", "show", "--value", "--property=IPAddressAllow", "quarn-authd").stdout
    assert f"{OURS}/32" in shown and "127.0.0.0/8" in shown
