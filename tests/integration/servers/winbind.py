"""A gateway that is a member of the Samba domain: winbind, and the account's right to ask it."""

import grp
import os
import subprocess
from pathlib import Path

from harness import sandbox
from servers.process import ServerProcess, need_programs, new_folder, run

MEMBER_SERVICES = "rpc, ldap, cldap, kdc, winbindd, dns, s3fs"  # what the controller needs for members
GROUP = "winbindd_priv"
STATE = "/var/lib/samba"  # where winbind's clients look for the pipe of the privileged

_CONFIGURATION = """[global]
netbios name = GW1
realm = CORP.TEST
workgroup = CORP
security = ads
interfaces = lo 10.99.0.1/24
bind interfaces only = yes
private dir = {folder}
state directory = {state}
cache directory = {folder}
lock directory = {folder}
pid directory = {folder}
log file = {folder}/log
idmap config * : backend = tdb
idmap config * : range = 10000-20000
"""


class Winbind(ServerProcess):
    def __init__(self):
        need_programs("winbindd", "wbinfo", "net")
        folder = new_folder("member")
        privileged = f"{STATE}/winbindd_privileged"
        os.makedirs(privileged, exist_ok=True)
        os.chmod(privileged, 0o750)
        os.chown(privileged, 0, grp.getgrnam(GROUP).gr_gid)
        configuration = f"{folder}/smb.conf"
        Path(configuration).write_text(_CONFIGURATION.format(folder=folder, state=STATE), "utf-8")
        run("net", "ads", "join", "-U", "Administrator%Adm1n.Pass", f"--configfile={configuration}", "--no-dns-updates")
        super().__init__(["winbindd", "--foreground", "--no-process-group", f"--configfile={configuration}"], (),
                         f"{folder}/output")

    def is_ready(self):
        """It trusts its domain."""
        return subprocess.run(["wbinfo", "-t"], capture_output=True, check=False).returncode == 0


def let_daemon_ask(may):
    """Whether the daemon's account, from its next start on, is one of those who may have passwords checked."""
    number = grp.getgrnam(GROUP).gr_gid
    sandbox.set_line("/etc/group", GROUP, f"{GROUP}:x:{number}:{sandbox.ACCOUNT if may else ''}")
