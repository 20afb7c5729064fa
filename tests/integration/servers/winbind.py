"""A gateway that is a member of the Samba domain: winbind, and the account's right to ask it."""

import grp
import os
import subprocess

from harness import sandbox
from harness.daemon import until
from servers.process import START_WAIT, ServerProcess, need_programs, new_folder, run

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
private dir = {folder}/private
state directory = {state}
cache directory = {folder}/cache
lock directory = {folder}/lock
pid directory = {folder}/run
log file = {folder}/log
idmap config * : backend = tdb
idmap config * : range = 10000-20000
"""


class Winbind(ServerProcess):
    def __init__(self):
        need_programs("winbindd", "wbinfo", "net")
        self.folder = new_folder("member")
        for name in ("private", "cache", "lock", "run"):
            os.makedirs(os.path.join(self.folder, name), 0o755)
        privileged = os.path.join(STATE, "winbindd_privileged")
        os.makedirs(privileged, 0o750, exist_ok=True)
        os.chmod(privileged, 0o750)
        os.chown(privileged, 0, grp.getgrnam(GROUP).gr_gid)
        configuration = os.path.join(self.folder, "smb.conf")
        with open(configuration, "w", encoding="ascii") as file:
            file.write(_CONFIGURATION.format(folder=self.folder, state=STATE))
        run("net", "ads", "join", "-U", "Administrator%Adm1n.Pass", f"--configfile={configuration}", "--no-dns-updates")
        super().__init__(["winbindd", "--foreground", "--no-process-group", f"--configfile={configuration}"], (),
                         os.path.join(self.folder, "output"))

    def start(self):
        super().start()
        until(lambda: subprocess.run(["wbinfo", "-t"], capture_output=True, check=False).returncode == 0,
              lambda: f"winbind to trust its domain:\n{self.output()[-2000:]}", START_WAIT)
        return self


def let_daemon_ask(may):
    """Whether the daemon's account, from its next start on, is one of those who may have passwords checked."""
    number = grp.getgrnam(GROUP).gr_gid
    sandbox._set_line("/etc/group", GROUP, f"{GROUP}:x:{number}:{sandbox.ACCOUNT if may else ''}", True)
