"""NTLM and Negotiate exchanges per second: the daemon beside the programs that a proxy would call without it.

NTLM with local hashes beside Samba's ntlm_auth, which is given the one user and password; Negotiate beside Squid's own
Kerberos helper, both with their replay caches. The same client, the same number of threads; the helpers get a process
for each thread, the daemon has two workers.
"""

import os
import pathlib
import shutil
import subprocess
import tempfile
from collections import namedtuple

import machine
import realm
import servers
from machine import WORKDIR, Broken

NTLM_TITLE, NEGOTIATE_TITLE = "NTLM exchanges", "Negotiate exchanges"
TITLES = (NTLM_TITLE, NEGOTIATE_TITLE)
THREADS = (1, 8)
HASH = "8846F7EAEE8FB117AD06BDD830B7586C"  # of "password"
KERBEROS_HELPER = "/usr/lib/squid/negotiate_kerberos_auth"
KDC = ("kdb5_util", "kadmin.local", "krb5kdc", "kinit")
LDIF = f"""version: 1

dn: cn=alice,dc=corp,dc=test
objectClass: user
cn: alice
sambaNTPassword: {HASH}
"""
LOAD_LIMIT = 120  # seconds

# `arguments` of gss_load before its target; `tools`: without one of them there is nothing to measure.
Case = namedtuple("Case", "title kind argument name helper tools")
# Results of the rounds; none, and why, when something is not installed.
Exchanges = namedtuple("Exchanges", "title threads name ours theirs missing", defaults=[(), (), ""])


def cases(folder):
    return (Case(NTLM_TITLE, "ntlm", f"{folder}/users", "ntlm_auth",
                 ["ntlm_auth", "--helper-protocol=squid-2.5-ntlmssp", "--username=alice", "--domain=CORP",
                  "--password=password", "--configfile=/dev/null"], ("ntlm_auth",)),
            Case(NEGOTIATE_TITLE, "negotiate", f"HTTP@{realm.HOST}", "negotiate_kerberos_auth",
                 [KERBEROS_HELPER, "-k", f"{folder}/keytab", "-s", "GSS_C_NO_NAME"], (KERBEROS_HELPER, *KDC)))


def missing(case):
    return next((tool for tool in case.tools if shutil.which(tool) is None), "")


def place(folder):
    """A directory of one user in the place of what the daemon had before."""
    shutil.rmtree(WORKDIR)
    WORKDIR.mkdir()
    texts = {"directory.ldif": LDIF}
    if os.path.exists(f"{folder}/keytab"):
        shutil.copy(f"{folder}/keytab", WORKDIR / "http.keytab")
        texts["LdapSetting.ini"] = "[Negotiate]\nKeytab=http.keytab\n"
    for name, text in texts.items():
        (WORKDIR / name).write_text(text, encoding="ascii")
    for path in (WORKDIR, *WORKDIR.iterdir()):
        path.chmod(0o750 if path == WORKDIR else 0o640)
        machine.own(path)
    pathlib.Path(f"{folder}/users").write_text(f"alice:0:{'X' * 32}:{HASH}:[U]:LCT-0:\n", encoding="ascii")


def rate(load, case, count, threads, *target):
    done = subprocess.run([load, case.kind, str(count), str(threads), case.argument, *target], capture_output=True,
                          text=True, check=False, timeout=LOAD_LIMIT)
    if done.returncode != 0:
        raise Broken(f"{case.title} with {target[0]}: {done.stderr.strip()[-300:]}")
    return {"rate": float(done.stdout)}


def measure_case(bench, daemon, case, threads):
    # Enough for a fifth of a second or more of each.
    rounds, count = (1, 200) if bench.quick else (3, 2000 if case.kind == "ntlm" else 800)
    pairs = []
    for _ in range(rounds):  # in turns
        with bench.intruders.watch(daemon):
            pairs.append([rate(bench.program("gss_load"), case, count, threads, *target)
                          for target in ([f"127.0.0.1:{daemon.port}"], case.helper)])
    return Exchanges(case.title, threads, case.name, *zip(*pairs))


def measure(bench, only, progress):
    """The last of a run: the daemon's directory is another one afterwards."""
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    found = []
    with tempfile.TemporaryDirectory(dir=machine.LAYERS) as folder:
        os.chmod(folder, 0o755)
        wanted = [case for case in cases(folder) if only.search(case.title)]
        for case in wanted:
            if tool := missing(case):
                found.append(Exchanges(case.title, "", case.name, missing=tool))
        wanted = [case for case in wanted if not missing(case)]
        kdc = realm.start(folder) if any("krb5kdc" in case.tools for case in wanted) else None
        if wanted:
            place(folder)
            daemon = servers.Daemon(bench.program("AuthDaemon"))
            for case in wanted:
                progress(case.title)
                found += [measure_case(bench, daemon, case, threads) for threads in THREADS]
            daemon.stop()
        if kdc:
            kdc.kill()
    return found
