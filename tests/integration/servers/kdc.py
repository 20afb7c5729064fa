"""A Kerberos realm of the tests' own, and the tokens that curl makes of its tickets."""

import base64
import contextlib
import os
import subprocess
from pathlib import Path

from harness import sandbox
from harness.daemon import LONG_WAIT
from servers.origin import Origin
from servers.process import REALM, ServerProcess, kerberos_client, need_programs, new_folder, put_into_etc, run

GATEWAY, OTHER = "gw.corp.test", "other.corp.test"
PORT = 88
PASSWORDS = {"alice": "alice's", "zo\u00eb": "zo\u00eb's"}
BEHIND = "-10m"  # twice as much as clocks may differ

_SERVER = """[realms]
{realm} = {{
database_name = {folder}/principal
key_stash_file = {folder}/stash
}}
"""


def at(clock, *command):
    """The command under another clock."""
    return ["faketime", "-f", clock, *command] if clock else list(command)


class Realm(ServerProcess):
    def __init__(self):
        need_programs("krb5kdc", "kdb5_util", "kadmin.local", "kinit", "curl", "faketime")
        self.folder = new_folder("kdc")
        # faketime leaves names there that the next run's process of the same number would trip over.
        if not os.path.ismount("/dev/shm") or os.listdir("/dev/shm"):
            run("mount", "-t", "tmpfs", "shm", "/dev/shm")
        os.environ["KRB5_KDC_PROFILE"] = f"{self.folder}/kdc.conf"
        Path(os.environ["KRB5_KDC_PROFILE"]).write_text(_SERVER.format(folder=self.folder, realm=REALM), "utf-8")
        put_into_etc({"krb5.conf": kerberos_client("127.0.0.1"), "hosts": f"127.0.0.1 localhost {GATEWAY} {OTHER}\n"})
        run("kdb5_util", "create", "-s", "-r", REALM, "-P", "master")
        for user, password in PASSWORDS.items():
            self.admin(f'addprinc -pw "{password}" {user}')
        for host in (GATEWAY, OTHER):
            self.admin(f"addprinc -randkey HTTP/{host}")
        super().__init__(["krb5kdc", "-n", "-P", f"{self.folder}/pid"], (PORT,), f"{self.folder}/output")

    @staticmethod
    def admin(command):
        return run("kadmin.local", "-r", REALM, "-q", command)

    @contextlib.contextmanager
    def with_clock(self, clock):
        """The realm's clock is off meanwhile, that of its users too where they say so."""
        usual = self.command

        with self.stopped():
            self.command = at(clock, *usual)
            self.start()
            try:
                yield
            finally:
                self.stop()
                self.command = usual

    def keytab(self, *hosts, fresh=False):
        """The present keys of these hosts; `fresh` ones are made, so that older keytabs are out of date."""
        path = f"{self.folder}/new.keytab"
        with contextlib.suppress(FileNotFoundError):
            os.unlink(path)
        for host in hosts:
            self.admin(f"ktadd -k {path} {'' if fresh else '-norandkey'} HTTP/{host}")
        return Path(path).read_bytes()

    def token(self, user="alice", host=GATEWAY, **more):
        return token(self.folder, user, PASSWORDS[user], host, **more)


def wrong_keytab(keytab):
    """Another key of the same name and number: its last byte, which the number follows, differs."""
    end = 6 + int.from_bytes(keytab[2:6], "big") - 5
    return keytab[:end] + bytes([keytab[end] ^ 1]) + keytab[end + 1:]


def client_environment(folder):
    """Of programs that use the tickets of the user for whom token() was called last."""
    return dict(os.environ, KRB5CCNAME=f"FILE:{folder}/tickets", LC_ALL="C.UTF-8")


def token(folder, user, password, host, life="1h", clock=None, answer=None):
    """What a browser sends, in base64. `answer` gets it and says what to send back; curl has to like that."""
    environment = client_environment(folder)
    run(*at(clock, "kinit", "-l", life, user), input=password + "\n", env=environment)
    with Origin("Negotiate", lambda sent, _: (True, answer(sent) if answer else "")) as origin:
        done = subprocess.run(at(clock, "curl", "--silent", "--show-error", "--fail", "--negotiate", "--user", ":",
                                 f"http://{host}:{origin.server_port}/"), env=environment, capture_output=True, text=True,
                              check=False, timeout=LONG_WAIT)
    if not origin.tokens:
        raise sandbox.Impossible(f"curl sent no token: {done.stderr}")
    assert done.returncode == 0, done.stderr
    return origin.tokens[0]


# Tokens of other forms, made of real ones.

def bare_kerberos(token):
    """What SPNEGO carries inside."""
    data = base64.b64decode(token)
    begin = data.index(b"\x60\x82", 4)
    return data[begin:begin + 4 + int.from_bytes(data[begin + 2:begin + 4], "big")]


KERBEROS = bytes.fromhex("06092a864886f712010202")
NTLM = bytes.fromhex("060a2b06010401823702020a")
SPNEGO = bytes.fromhex("06062b0601050502")


def encode(tag, content):
    size = len(content)
    length = size.to_bytes(max(1, (size.bit_length() + 7) // 8), "big")
    return bytes([tag]) + (length if size < 0x80 else bytes([0x80 | len(length)]) + length) + content


def spnego(mechanisms, token):
    """A first message that offers these mechanisms, the token being of the first one."""
    lists = encode(0xa0, encode(0x30, b"".join(mechanisms))) + (encode(0xa2, encode(0x04, token)) if token else b"")
    return encode(0x60, SPNEGO + encode(0xa0, encode(0x30, lists)))


def later_leg(token):
    return encode(0xa1, encode(0x30, encode(0xa2, encode(0x04, token))))
