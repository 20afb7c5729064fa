"""The package's whole life on a bare root without systemd: installed, asked, upgraded under load of bindings,
removed, purged."""

import os
import time

from bare_root import answer, call, install, next_version, package, until

WORK = "/var/lib/quarn-authd"


def start(root):
    root("/etc/init.d/quarn-authd", "start")
    return int(root.read("etc/quarn/pids/auth_daemon.pid"))


def daemons():
    """Pids of the live processes of the daemon in this process namespace."""
    listed = call("ps", "-C", "AuthDaemon", "-o", "pid=,stat=", check=False).stdout.splitlines()
    return [int(pid) for pid, state in map(str.split, listed) if state[0] != "Z"]


def account_of(pid):
    with open(f"/proc/{pid}/status", encoding="utf-8") as file:
        return {line.split()[1] for line in file if line.startswith(("Uid", "Gid"))}


def try_example(root):
    """An administrator's edit: the example directory instead of none."""
    path = "etc/quarn/LdapSetting.ini"
    root.write(path, root.read(path).replace("LdifFile=directory.ldif", "LdifFile=example.ldif"))


def test_a_life_on_a_bare_root(root, scratch):
    install(root, package("quarn-authd"))
    for name, owner in {"/etc/quarn": "root:root 755", "/etc/quarn/LdapSetting.ini": "root:root 644",
                        "/etc/quarn/pids": "quarn:quarn 755", "/var/brel": "root:root 755",
                        "/var/brel/log": "quarn:adm 2750", WORK: "quarn:quarn 750", f"{WORK}/log": "quarn:quarn 750",
                        f"{WORK}/export": "quarn:adm 2750"}.items():
        assert root.shell(f"stat -c '%U:%G %a' {name}") == owner, name
    account = root.shell("getent passwd quarn").split(":")
    assert account[5:] == [WORK, "/usr/sbin/nologin"]

    # A chroot that nobody has told what to start: nothing was. From here on scripts may start and stop services.
    assert daemons() == []
    root.write("usr/sbin/policy-rc.d", "#!/bin/sh\nexit 0\n")
    root("chmod", "755", "/usr/sbin/policy-rc.d")

    # Nothing of the example is believed before somebody asks for it.
    first = start(root)
    assert account_of(first) == set(account[2:4])
    os.kill(first, 9)  # its workers stay, and keep the port
    first = start(root)
    # The account may put what it likes into its folder; root does not run it.
    root.shell(f"cd {WORK} && mv LdapSyncTool.sh link && printf '#!/bin/sh\nid -un\n' >LdapSyncTool.sh && chmod 755 *.sh")
    assert root("/etc/init.d/quarn-authd", "reload").stdout == "quarn\n"
    root("mv", f"{WORK}/link", f"{WORK}/LdapSyncTool.sh")
    assert answer(root, "user-search", "").get("userList", []) == []
    try_example(root)
    root(f"{WORK}/LdapSyncTool.sh")
    until(lambda: answer(root, "user-search", "--full", "jmueller").get("userList"), "the example directory")
    assert answer(root, "bind", "192.0.2.11", "jmueller@corp.example.com")["result"] == 0
    assert root.shell("stat -c '%U:%G %a' /var/brel/log/AuthDaemon.log.*") == "quarn:adm 660"

    install(root, package("quarn-authhelper"))
    assert root.shell("echo 192.0.2.11 | authhelper --mode ip-user") == "OK user=jmueller@corp.example.com"
    root("dpkg", "--purge", "quarn-authhelper")

    # A later version over the running daemon: its files are in place, the daemon a new one, nothing is lost.
    install(root, next_version(scratch))
    second = int(root.read("etc/quarn/pids/auth_daemon.pid"))
    assert second != first and first not in daemons()
    assert root.shell("dpkg-query -W -f '${Version}' quarn-authd").endswith("+next")
    assert answer(root, "ip-query", "192.0.2.11")["userInfo"]["uid"] == "jmueller"
    # The edited file stays and the new one lies beside it; the one that nobody had touched is replaced.
    assert "LdifFile=example.ldif" in root.read("etc/quarn/LdapSetting.ini")
    assert root.exists("etc/quarn/LdapSetting.ini.dpkg-dist")
    assert "A line of the later version" in root.read("etc/quarn/IPUserCache.ini")

    root.write(f"{WORK}/directory.ldif", "")  # the administrator's own
    root("dpkg", "--remove", "quarn-authd")
    assert daemons() == []
    assert not root.exists("usr/sbin/AuthDaemon")
    for name in (f"{WORK}/ip_user_cache", f"{WORK}/directory.db", "etc/quarn/LdapSetting.ini"):
        assert root.exists(name), f"removal took {name}"

    install(root, package("quarn-authd"))  # which starts it, too
    assert answer(root, "ip-query", "192.0.2.11")["userInfo"]["uid"] == "jmueller"

    told = root("dpkg", "--purge", "quarn-authd").stderr
    assert daemons() == []
    assert WORK in told and root.shell(f"ls -A {WORK}") == "directory.ldif"
    for name in ("/etc/quarn", "/var/brel", "/etc/default/quarn-authd", "/etc/logrotate.d/quarn-authd",
                 "/etc/init.d/quarn-authd"):
        assert not root.exists(name), f"purge left {name}"
    assert root.shell("getent passwd quarn")
    root("rm", f"{WORK}/directory.ldif")
    install(root, package("quarn-authd"))
    root("dpkg", "--purge", "quarn-authd")
    assert not root.exists(WORK)


def test_what_the_administrator_changed_stays_and_a_start_that_fails_is_told(root):
    install(root, package("quarn-authd"))
    root.shell(f"rm {WORK}/LdapSetting.ini && echo '[LDAP_Setting]' > {WORK}/LdapSetting.ini")  # was a link
    install(root, package("quarn-authd"))
    assert root.read(f"{WORK}/LdapSetting.ini") == "[LDAP_Setting]\n"
    start(root)
    root("rm", "/etc/quarn/pids/auth_daemon.pid")
    done = root("/etc/init.d/quarn-authd", "start", check=False)
    assert done.returncode != 0 and "Address already in use" in done.stdout
    for pid in daemons():
        os.kill(pid, 9)
    root.write(f"{WORK}/LdapSetting.ini", "[LDAP_Setting]\nSource=nothing\n")
    done = root("/etc/init.d/quarn-authd", "restart", check=False)
    assert done.returncode != 0 and daemons() == []
    assert "expected one of ldif, ldap" in done.stdout
    root("dpkg", "--purge", "quarn-authd")
    assert "Source=nothing" in root.read(f"{WORK}/LdapSetting.ini")


def test_logs_go_by_age_and_by_size(root):
    install(root, package("quarn-authd"))
    start(root)
    logs = f"{root.path}/var/brel/log"
    today = next(os.scandir(logs)).name
    age = time.time() - 40 * 86400
    for name, content in (("AuthDaemon.log.20240101.0001", b"yesterday\n"), ("AuthDaemon.log.20230101.0001.1.gz", b"old"),
                          ("AuthDaemon.log.20240102.0001.1.gz", b"young"), ("other.20230101", b"not ours")):
        with open(f"{logs}/{name}", "wb") as file:
            file.write(content)
        os.chown(file.name, os.stat(f"{logs}/{today}").st_uid, -1)
    for name in ("AuthDaemon.log.20230101.0001.1.gz", "other.20230101"):
        os.utime(f"{logs}/{name}", (age, age))
    os.truncate(f"{logs}/{today}", 101 * 1024 * 1024)
    # The state says that everything was seen two days ago, as it would be then.
    root.write("tmp/state", 'logrotate state -- version 2\n"/var/brel/log/AuthDaemon.log.20240101.0001" 2024-1-1-0:0:0\n')
    done = root("logrotate", "--state", "/tmp/state", "/etc/logrotate.d/quarn-authd")
    assert "error" not in done.stderr, done
    assert sorted(os.listdir(logs)) == sorted([
        f"{today}.1.gz", "AuthDaemon.log.20240101.0001.1.gz", "AuthDaemon.log.20240102.0001.1.gz", "other.20230101"])
    answer(root, "user-info", "nobody")
    root("/etc/init.d/quarn-authd", "stop")
    assert "Daemon exit" in root.read(f"/var/brel/log/{today}")
