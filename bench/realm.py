"""A Kerberos realm of the benchmarks' own: its KDC listens on a free port of loopback."""

import os
import socket
import subprocess
import time

from machine import Broken

REALM, HOST = "CORP.TEST", "localhost"
START_LIMIT = 30  # seconds


def run(*command):
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise Broken(f"{' '.join(command)}: {done.stdout}{done.stderr}")


def start(folder):
    """The KDC's process; the environment points to it afterwards, with a ticket in the cache and a keytab in `folder`."""
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
    deadline = time.monotonic() + START_LIMIT
    while subprocess.run(["kinit", "-l", "20h", "alice"], input=b"password\n", capture_output=True, check=False).returncode:
        if kdc.poll() is not None or time.monotonic() > deadline:
            kdc.kill()
            raise Broken("the KDC did not start")
        time.sleep(0.05)
    return kdc
