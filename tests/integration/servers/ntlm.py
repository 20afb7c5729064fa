"""NTLM clients that nobody here wrote: Samba's ntlm_auth, and curl, whose messages a web server of ours hands to the
daemon."""

import base64
import subprocess

from harness import wire
from harness.daemon import LONG_WAIT
from harness.wire import pb
from servers.origin import Origin
from servers.process import need_programs

CLIENT = "192.0.2.77"
HASH = "8846F7EAEE8FB117AD06BDD830B7586C"  # of "password"


class Logon:
    """One exchange with the daemon on one connection."""

    def __init__(self, connection):
        self.connection = connection

    def send(self, leg, token):
        if isinstance(token, bytes):
            token = base64.b64encode(token).decode()
        return self.connection.ask(wire.NTLM, pb.NTLMAuthRequest(messageType=leg, clientIP=CLIENT, requestContent=token))

    def challenge(self, token):
        """The challenge in base64, or None."""
        answer = self.send(1, token)
        return answer.responseContent if answer.result == 0 else None

    def user(self, token):
        """The proven user, or None."""
        answer = self.send(2, token)
        assert (answer.result == 0) == bool(answer.responseContent), answer
        return answer.responseContent if answer.result == 0 else None


class SambaClient:
    """ntlm_auth as a client that knows a password. One process may make any number of exchanges."""

    def __init__(self, user, password, domain="", *options):
        need_programs("ntlm_auth")
        self.process = subprocess.Popen(
            ["ntlm_auth", "--helper-protocol=ntlmssp-client-1", f"--username={user}", f"--domain={domain}",
             f"--password={password}", "--configfile=/dev/null", *options],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        self.process.wait(LONG_WAIT)

    def _say(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()
        return self.process.stdout.readline().split()

    def type1(self):
        word, token = self._say("YR")
        assert word == "YR"
        return token

    def type3(self, challenge):
        word, *token = self._say(f"TT {challenge}")
        return token[0] if word in ("KK", "AF") else None

    def log_on(self, connection):
        logon = Logon(connection)
        challenge = logon.challenge(self.type1())
        return challenge and logon.user(self.type3(challenge))


def log_on(user, password, domain="", *options):
    """The user whom the daemon sees, or None."""
    with wire.Connection() as connection, SambaClient(user, password, domain, *options) as client:
        return client.log_on(connection)


def log_on_with_curl(user, password):
    """The same for curl, which sends messages of the older form."""
    need_programs("curl")
    proven = []

    def check(token, state):
        if "logon" not in state:
            state["logon"] = Logon(wire.Connection())
            return False, state["logon"].challenge(token) or ""
        proven.append(state.pop("logon").user(token))
        return proven[-1] is not None, ""

    with Origin("NTLM", check) as origin:
        subprocess.run(["curl", "--silent", "--ntlm", "--user", f"{user}:{password}",
                        f"http://127.0.0.1:{origin.server_port}/"], timeout=LONG_WAIT, check=True)
    return proven[0] if proven else None
