#!/usr/bin/env python3
"""NTLM and Negotiate exchanges per second: the daemon beside the programs that a proxy would call without it.

    gss.py BUILD_DIRECTORY [--quick]

NTLM with local hashes beside Samba's ntlm_auth, which is given the one user and password; Negotiate beside Squid's own
Kerberos helper, both with their replay caches. The same client, the same number of threads; the helpers get a process for
each thread, the daemon has two workers. They are asked in turns; the middle of the rounds counts.
"""

import os
import pathlib
import statistics
import subprocess
import sys
import tempfile

import machine
import servers
from machine import WORKDIR, Broken, Impossible

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "tests" / "fuzz"))
import gss_mutation  # noqa: E402  pylint: disable=wrong-import-position

SERVICE = f"HTTP@{gss_mutation.HOST}"
HASH = "8846F7EAEE8FB117AD06BDD830B7586C"  # of "password"
KERBEROS_HELPER = "/usr/lib/squid/negotiate_kerberos_auth"
LDIF = f"""version: 1

dn: cn=alice,dc=corp,dc=test
objectClass: user
cn: alice
sambaNTPassword: {HASH}
"""


def place(keytab, users):
    for path, text in ((WORKDIR / "directory.ldif", LDIF), (WORKDIR / "LdapSetting.ini", "[Negotiate]\nKeytab=http.keytab\n")):
        path.write_text(text, encoding="ascii")
    (WORKDIR / "http.keytab").write_bytes(pathlib.Path(keytab).read_bytes())
    for path in WORKDIR.iterdir():
        path.chmod(0o640)
        machine.own(path)
    pathlib.Path(users).write_text(f"alice:0:{'X' * 32}:{HASH}:[U]:LCT-0:\n", encoding="ascii")


def rate(load, what, count, threads, argument, *target):
    done = subprocess.run([load, what, str(count), str(threads), argument, *target], capture_output=True, text=True,
                          check=False, timeout=600)
    if done.returncode != 0:
        raise Broken(f"{what} with {target[0]}: {done.stderr.strip()[-300:]}")
    return float(done.stdout)


def measure(load, folder, quick):
    rounds, count = (1, 400) if quick else (5, 3000)
    ntlm_auth = [servers.need("ntlm_auth"), "--helper-protocol=squid-2.5-ntlmssp", "--username=alice", "--domain=CORP",
                 "--password=password", "--configfile=/dev/null"]
    cases = [("NTLM", "ntlm", f"{folder}/users", "ntlm_auth", ntlm_auth)]
    if os.access(KERBEROS_HELPER, os.X_OK):
        cases.append(("Negotiate", "negotiate", SERVICE, "negotiate_kerberos_auth",
                      [KERBEROS_HELPER, "-k", f"{folder}/keytab", "-s", "GSS_C_NO_NAME"]))
    print(f"{'':<12}{'threads':>8}{'daemon/s':>10}{'helper/s':>10}{'ratio':>8}  beside")
    for title, what, argument, name, helper in cases:
        for threads in (1, 8):
            pairs = []
            for _ in range(rounds):
                pairs.append([rate(load, what, count, threads, argument, *target) for target in (["127.0.0.1:1100"], helper)])
            ours, theirs = (statistics.median(column) for column in zip(*pairs))
            print(f"{title:<12}{threads:>8}{ours:>10.0f}{theirs:>10.0f}{ours / theirs:>8.2f}  {name}", flush=True)


def main():
    machine.enter()
    build, quick = pathlib.Path(sys.argv[1]).resolve(), "--quick" in sys.argv
    machine.build()
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    with tempfile.TemporaryDirectory(dir=machine.LAYERS) as folder:
        os.chmod(folder, 0o755)
        kdc = gss_mutation.start_realm(folder)
        place(f"{folder}/keytab", f"{folder}/users")
        daemon = servers.Daemon(str(build / "bin" / "AuthDaemon"))
        measure(str(build / "bin" / "gss_load"), folder, quick)
        daemon.stop()
        kdc.kill()


if __name__ == "__main__":
    try:
        main()
    except (Impossible, Broken) as error:
        sys.exit(f"gss.py: {error}")
