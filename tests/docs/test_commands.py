"""Every command block of README and docs is run, in the order of the page, on a machine that looks like one with the
package: programs in PATH, settings in /etc/quarn, the working directory in /var/lib, a service to start and stop.

What a block is stands behind its fence: ```sh commands, each has to succeed; ```console commands with what they print,
to the letter or, with the word roughly, in the first words of lines; ```ini PATH and ```ldif PATH files that the reader
writes; "not run: REASON" behind the word what only a machine of another kind could run. Other blocks hold no commands,
which is checked."""

import os
import pathlib
import re
import shutil
import subprocess

import pytest

from harness import sandbox, wire
from harness.daemon import LONG_WAIT, PROGRAMS, Daemon, sanitizer_options, sanitizer_reports
from servers import people
from servers.samba_ad import PEOPLE_OF_NOTE, READER_PASSWORD as AD_PASSWORD, SambaDomain
from servers.slapd import READER, READER_PASSWORD, Slapd

TOP = pathlib.Path(__file__).resolve().parents[2]
EXAMPLES = TOP / "examples/workdir"
PAGES = sorted(str(page.relative_to(TOP)) for glob in ("README.md", "docs/*.md", "examples/*.md") for page in TOP.glob(glob))
WORK = "/var/lib/quarn-authd"
FENCE = re.compile(r"^(?P<indent> *)```(?P<info>[^\n]*)\n(?P<text>.*?)^(?P=indent)```$", re.MULTILINE | re.DOTALL)
OUR_PROGRAMS = r"authctl|ldap_sync|authhelper|AuthDaemon|LdapSyncTool\.sh|systemctl|quarn-authd-allow|make|ipcache_dump|sqlite3|kinit|ldapsearch"
TRIED = {"README.md", *(f"docs/{name}.md" for name in (
    "run-alone", "operations", "run-openldap", "run-active-directory", "directory-snapshot", "protocol"))}
DATA = ("ini", "ldif", "frames", "python", "text", "conf")

# Stands in for the init system: the package's own tests use the real one.
SYSTEMCTL = f"""#!/bin/sh
set -e
stop() {{
  if [ -s {sandbox.PID_FILE} ]; then kill "$(cat {sandbox.PID_FILE})"; fi
  for pid in $(pgrep -x AuthDaemon); do while grep -qs 'State:.[^Z]' /proc/$pid/task/*/status; do sleep 0.05; done; done
}}
start() {{
  AuthDaemon --workdir {WORK}
  i=0
  while ! authctl --timeout 5 ip-query 0.0.0.0 >/dev/null 2>&1 && [ $i -lt 200 ]; do
    if authctl ip-query 0.0.0.0 2>&1 | grep -q 'no binding'; then break; fi
    i=$((i + 1)); sleep 0.05
  done
}}
case "$1 $2" in
  "start quarn-authd") start ;;
  "stop quarn-authd") stop ;;
  "restart quarn-authd") stop; start ;;
  "reload quarn-authd") {WORK}/LdapSyncTool.sh ;;
  "daemon-reload ") ;;
  *) echo "systemctl: not here: $*" >&2; exit 1 ;;
esac
"""


class Block:
    def __init__(self, page, match):
        self.where = f"{page}:{match.string[:match.start()].count(chr(10)) + 1}"
        self.kind, _, self.rest = match["info"].strip().partition(" ")
        self.text = re.sub(rf"(?m)^{match['indent']}", "", match["text"])


def blocks(page):
    return [Block(page, match) for match in FENCE.finditer((TOP / page).read_text(encoding="utf-8"))]


def begins(text):
    """The first word of each line; numbers are all alike."""
    return [re.sub(r"\d+", "0", line.split()[0]) if line.strip() else "" for line in text.splitlines()]


def set_up():
    sandbox.clean(account=True)
    for folder in (WORK, "/root/bin"):
        shutil.rmtree(folder, ignore_errors=True)
        os.makedirs(folder)
    for folder in ("log", "export"):
        os.mkdir(f"{WORK}/{folder}")
    for name in ("LdapSetting.ini", "IPUserCache.ini"):
        shutil.copy(EXAMPLES / name, "/etc/quarn")
        os.symlink(f"/etc/quarn/{name}", f"{WORK}/{name}")
    for name in ("LdapSyncTool.sh", "wmi_agent.csv"):
        shutil.copy(EXAMPLES / name, WORK)
    shutil.copy(EXAMPLES / "directory.ldif", f"{WORK}/example.ldif")
    subprocess.run(["chown", "--recursive", "quarn:quarn", WORK], check=True)
    os.chmod(WORK, 0o750)
    systemctl = pathlib.Path("/root/bin/systemctl")
    systemctl.write_text(SYSTEMCTL)
    systemctl.chmod(0o755)
    shutil.copy(TOP / "packaging/quarn-authd-allow", "/root/bin")
    sh("systemctl start quarn-authd")


def tear_down():
    for path in pathlib.Path("/etc/quarn").glob("*.ini"):
        path.unlink()
    Daemon().kill_everything()
    assert not (reports := sanitizer_reports()), reports


def sh(commands):
    # Leaks are not looked for: the NTLM mechanism never gives back what a plain password cost its client.
    environment = {**os.environ, **sanitizer_options(), "LC_ALL": "C.UTF-8",
                   "PATH": f"/root/bin:{PROGRAMS}:{os.environ['PATH']}"}
    return subprocess.run(["bash", "-e", "-u", "-c", commands], env=environment, cwd=WORK, text=True, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=3 * LONG_WAIT, check=False)


def run(block, names):
    def meant(text):
        for said, here in names:
            text = text.replace(said, here)
        return text
    if block.rest.startswith("not run"):
        print(f"{block.where}: {block.rest}")
    elif block.kind == "sh":
        done = sh(meant(block.text))
        assert done.returncode == 0, f"{block.where}: status {done.returncode}\n{done.stdout}"
    elif block.kind == "console":
        for command, expected in re.findall(r"(?ms)^\$ (.*?)\n(.*?)(?=^\$ |\Z)", block.text):
            printed = sh(meant(command)).stdout
            alike = begins if block.rest == "roughly" else str
            assert alike(printed) == alike(expected), f"{block.where}: {command}\nprinted:\n{printed}"
    elif block.kind in ("ini", "ldif") and block.rest.startswith("/"):
        salted = sh("openssl passwd -6 -salt 0123456789abcdef 'first password'").stdout.strip()
        pathlib.Path(block.rest).write_text(meant(block.text).replace("$6$0123456789abcdef$HASH", salted))


def run_page(page, names=(), prepare=lambda: None, finish=lambda: None):
    """`names` turns what a page says into what the test's servers are called."""
    set_up()
    prepare()
    try:
        for block in blocks(page):
            run(block, names)
        finish()
    finally:
        tear_down()


def serve_examples():
    shutil.copy(EXAMPLES / "directory.ldif", WORK)
    assert sh("./LdapSyncTool.sh").returncode == 0


def test_page_readme():
    run_page("README.md", [("build/bin/", ""), ("/srv/auth", WORK)], serve_examples)


def test_page_directory_snapshot():
    run_page("docs/directory-snapshot.md", (), serve_examples)


def test_page_protocol():
    def write_client():
        serve_examples()
        (client,) = [block.text for block in blocks("docs/protocol.md") if block.kind == "python"]
        pathlib.Path(f"{WORK}/client.py").write_text(client)
    run_page("docs/protocol.md", (), write_client)


def test_page_run_alone():
    run_page("docs/run-alone.md")


def test_page_operations():
    """What was bound in the beginning is in the backup, and back in the end."""
    def bind():
        assert sh("authctl bind 192.0.2.77 OFFICE\\\\alice").returncode == 0

    def is_back():
        with wire.Connection() as connection:
            assert connection.bound_user("192.0.2.77") == "OFFICE\\alice"
    run_page("docs/operations.md", (), bind, is_back)


def test_page_openldap():
    # The certificate is for the address.
    with Slapd(people.content()) as server:
        run_page("docs/run-openldap.md", [
            ("cn=gateway,ou=services,dc=example,dc=com", READER), ("ldap://ldap1.example.com", server.url),
            ("example.com", "corp.test"), ("the reading account'\"'\"'s password", READER_PASSWORD),
        ], lambda: shutil.copy(server.ca, "/root/ca.pem"))


def test_page_active_directory():
    with SambaDomain() as domain:
        run_page("docs/run-active-directory.md", [
            ("corp.example.com", "corp.test"), ("CORP.EXAMPLE.COM", "CORP.TEST"), ("svc-gateway", "svc-read"),
            ("the reading account'\"'\"'s password", AD_PASSWORD), ("Al1ce.Pass", PEOPLE_OF_NOTE["alice"][1]),
        ], lambda: shutil.copy(domain.ca, "/root/ca.pem"))


@pytest.mark.parametrize("page", PAGES)
def test_no_command_is_overlooked(page):
    """A block that begins like a command says what it is, and a page with commands is run above."""
    command = re.compile(rf"(?m)^\s*(\$ |([\w./]*/)?({OUR_PROGRAMS})\s)")
    for block in blocks(page):
        if block.kind in ("sh", "console"):
            assert page in TRIED or block.rest.startswith("not run"), f"{block.where}: never run"
        else:
            assert block.kind in DATA or not command.search(block.text), f"{block.where}: a command?"
    outside = FENCE.sub("", (TOP / page).read_text(encoding="utf-8"))
    indented = "\n".join(line for line in outside.splitlines() if line.startswith("    "))
    assert not command.search(indented), f"{page}: {command.search(indented).group()} in no block"


@pytest.mark.parametrize("page", ["authctl.1", "authhelper.8", "ldap_sync.8"])
def test_the_manual_has_every_option_and_no_other(page):
    def help_text(*command):
        return subprocess.run([f"{PROGRAMS}/{page.partition('.')[0]}", *command, "--help"], capture_output=True, text=True,
                              check=True).stdout
    text = help_text()
    for command in re.findall(r"(?m)^  ([a-z-]+) ", text.partition("Subcommands:")[2]):
        text += help_text(command)
    manual = (TOP / "docs/man" / page).read_text(encoding="utf-8")
    assert set(re.findall(r"(?:Fl|[|,]) -([a-z-]+)", manual)) == set(re.findall(r"(?m)^  (?:-\w,)?--([a-z-]+)", text))
