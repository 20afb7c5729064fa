"""NTLM clients that nobody here wrote: Samba's ntlm_auth, and curl, whose messages a web server of ours hands to the
daemon."""

import subprocess

from harness import wire
from harness.daemon import LONG_WAIT, log_lines
from harness.wire import pb
from servers.origin import Origin
from servers.process import need_programs

CLIENT = "192.0.2.77"
HASH = "8846F7EAEE8FB117AD06BDD830B7586C"  # of "password"


class Logon:
    """One exchange with the daemon on one connection."""

    def __init__(self, timeout=20):
        self.connection = wire.Connection(timeout)

    def send(self, leg, token):
        """The challenge in base64, or the proven user; None when refused."""
        answer = self.connection.ask(wire.NTLM, pb.NTLMAuthRequest(messageType=leg, clientIP=CLIENT, requestContent=token))
        assert (answer.result == 0) == bool(answer.responseContent), answer
        return answer.responseContent or None

    def challenge(self, token):
        return self.send(1, token)

    def user(self, token):
        return self.send(2, token)


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
        word, token, *_ = [*self.process.stdout.readline().split(), None, None]
        return token if word in ("YR", "KK", "AF") else None

    def type1(self):
        return self._say("YR")

    def type3(self, challenge):
        return self._say(f"TT {challenge}")

    def log_on(self, logon):
        challenge = logon.challenge(self.type1())
        return challenge and logon.user(self.type3(challenge))


def log_on(user, password, domain="", *options):
    """The user whom the daemon sees, or None."""
    with SambaClient(user, password, domain, *options) as client:
        return client.log_on(Logon())


def log_on_with_curl(user, password):
    """The same for curl, which sends messages of the older form."""
    need_programs("curl")
    proven = []

    def check(token, state):
        if "logon" not in state:
            state["logon"] = Logon()
            return False, state["logon"].challenge(token) or ""
        proven.append(state.pop("logon").user(token))
        return proven[-1] is not None, ""

    with Origin("NTLM", check) as origin:
        subprocess.run(["curl", "--silent", "--output", "/dev/null", "--ntlm", "--user", f"{user}:{password}",
                        f"http://127.0.0.1:{origin.server_port}/"], timeout=LONG_WAIT, check=True)
    return proven[0] if proven else None


def last_refusal():
    return [line.text for line in log_lines() if line.level == "INF" and "NTLM from" in line.text][-1]
