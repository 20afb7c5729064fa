#!/usr/bin/env python3
"""Runs gss_mutation with a Kerberos realm of its own.

    gss_mutation.py PROGRAM [--count N] [--seed S] [--jobs J]

N turns are shared among J processes with the seeds S, S + 1, ... Needs no privilege: the KDC listens on a free port of
loopback and keeps its files in a temporary folder. Exit status 0 when all is well, 77 when there is no KDC installed.
"""

import argparse
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time

REALM, HOST = "CORP.TEST", "localhost"


def run(*command, **more):
    done = subprocess.run(command, capture_output=True, text=True, check=False, **more)
    if done.returncode != 0:
        sys.exit(f"{' '.join(command)}: {done.stdout}{done.stderr}")


def start_realm(folder):
    """The KDC's process; the environment points to it afterwards, with a ticket in the cache."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        address = f"127.0.0.1:{probe.getsockname()[1]}"
    os.environ.update(KRB5_CONFIG=f"{folder}/conf", KRB5_KDC_PROFILE=f"{folder}/conf", KRB5CCNAME=f"FILE:{folder}/cache")
    with open(f"{folder}/conf", "w", encoding="ascii") as file:  # of the clients and of the KDC
        file.write(f"""[libdefaults]
default_realm = {REALM}
dns_lookup_kdc = false
dns_canonicalize_hostname = false
rdns = false
[kdcdefaults]
kdc_listen = {address}
kdc_tcp_listen = {address}
[realms]
{REALM} = {{
kdc = {address}
database_name = {folder}/principal
key_stash_file = {folder}/stash
acl_file = {folder}/acl
max_life = 24h
}}
[domain_realm]
{HOST} = {REALM}
[logging]
kdc = FILE:{folder}/log
""")
    run("kdb5_util", "create", "-s", "-r", REALM, "-P", "master")
    for command in ("addprinc -pw password alice", f"addprinc -randkey HTTP/{HOST}", f"ktadd -k {folder}/keytab HTTP/{HOST}"):
        run("kadmin.local", "-r", REALM, "-q", command)
    kdc = subprocess.Popen(["krb5kdc", "-n", "-P", f"{folder}/pid"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    deadline = time.monotonic() + 30
    while subprocess.run(["kinit", "-l", "20h", "alice"], input=b"password\n", capture_output=True, check=False).returncode:
        if kdc.poll() is not None or time.monotonic() > deadline:
            sys.exit("the KDC did not start")
        time.sleep(0.05)
    return kdc


def main():
    parser = argparse.ArgumentParser(description="Mutated messages into the NTLM and Kerberos mechanisms.")
    parser.add_argument("program")
    for name, default in (("--count", 1_000_000), ("--seed", 1), ("--jobs", 1)):
        parser.add_argument(name, type=int, default=default)
    options = parser.parse_args()
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    if not all(map(shutil.which, ("krb5kdc", "kdb5_util", "kadmin.local", "kinit"))):
        print("SKIPPED: no KDC is installed", file=sys.stderr)
        sys.exit(77)
    os.environ["ASAN_OPTIONS"] = ":".join(filter(None, [os.environ.get("ASAN_OPTIONS"), "quarantine_size_mb=16"]))
    with tempfile.TemporaryDirectory(prefix="gss-mutation-") as folder:
        kdc = start_realm(folder)
        try:
            begin = time.monotonic()
            jobs = [subprocess.Popen([options.program, str(options.count // options.jobs), str(options.seed + number),
                                      f"HTTP@{HOST}", f"{folder}/keytab"])
                    for number in range(options.jobs)]
            worst = max(abs(job.wait()) for job in jobs)
            print(f"{options.count // options.jobs * options.jobs} turns in {time.monotonic() - begin:.0f} s, "
                  f"{options.jobs} processes, status {worst}")
        finally:
            kdc.kill()
            kdc.wait()
    sys.exit(1 if worst else 0)


if __name__ == "__main__":
    main()
