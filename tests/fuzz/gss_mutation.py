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


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def start_realm(folder):
    """The KDC's process; the environment points to it afterwards, with a ticket in the cache."""
    port = free_port()
    os.environ.update(KRB5_CONFIG=f"{folder}/krb5.conf", KRB5_KDC_PROFILE=f"{folder}/kdc.conf",
                      KRB5CCNAME=f"FILE:{folder}/cache")
    with open(f"{folder}/krb5.conf", "w", encoding="ascii") as file:
        file.write(f"[libdefaults]\ndefault_realm = {REALM}\ndns_lookup_kdc = false\ndns_lookup_realm = false\n"
                   f"dns_canonicalize_hostname = false\nrdns = false\n[realms]\n{REALM} = {{\nkdc = 127.0.0.1:{port}\n}}\n"
                   f"[domain_realm]\n{HOST} = {REALM}\n")
    with open(f"{folder}/kdc.conf", "w", encoding="ascii") as file:
        file.write(f"[kdcdefaults]\nkdc_listen = 127.0.0.1:{port}\nkdc_tcp_listen = 127.0.0.1:{port}\n[realms]\n{REALM} = {{\n"
                   f"database_name = {folder}/principal\nkey_stash_file = {folder}/stash\nacl_file = {folder}/acl\n"
                   f"max_life = 24h\n}}\n[logging]\nkdc = FILE:{folder}/log\n")
    run("kdb5_util", "create", "-s", "-r", REALM, "-P", "master")
    for command in ("addprinc -pw password alice", f"addprinc -randkey HTTP/{HOST}", f"ktadd -k {folder}/keytab HTTP/{HOST}"):
        run("kadmin.local", "-r", REALM, "-q", command)
    kdc = subprocess.Popen(["krb5kdc", "-n", "-P", f"{folder}/pid"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    deadline = time.monotonic() + 30
    while socket.socket().connect_ex(("127.0.0.1", port)) != 0:
        if kdc.poll() is not None or time.monotonic() > deadline:
            sys.exit("the KDC did not start")
        time.sleep(0.05)
    run("kinit", "-l", "20h", "alice", input="password\n")
    return kdc


def main():
    parser = argparse.ArgumentParser(description="Mutated messages into the NTLM and Kerberos mechanisms.")
    parser.add_argument("program")
    parser.add_argument("--count", type=int, default=1_000_000)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--jobs", type=int, default=1)
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
