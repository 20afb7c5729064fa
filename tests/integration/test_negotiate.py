"""Negotiate with tickets of a real KDC, in tokens that curl makes."""

import base64
import os
import re
import subprocess
from pathlib import Path

import pytest

from harness import sandbox, wire
from harness.authctl import OK, OTHER as REFUSED, USAGE, authctl
from harness.daemon import log_lines, program, write_file
from harness.directory import files
from harness.wire import pb
from servers import kdc
from servers.kdc import GATEWAY, OTHER, Realm


@pytest.fixture(scope="module")
def realm():
    with Realm() as one:
        yield one


def settings(keytab="http.keytab", **keys):
    return "\n".join(["[Negotiate]", f"Keytab={keytab}", *(f"{key}={value}" for key, value in keys.items()), ""])


def start(daemon, keytab, **keys):
    daemon.start("--verbose", files=files(**{"http.keytab": keytab, "LdapSetting.ini": settings(**keys)}))


def check(token):
    if isinstance(token, bytes):
        token = base64.b64encode(token).decode()
    return wire.ask(wire.NEGOTIATE, pb.NEGOAuthRequest(requestContent=token))


def refusals():
    return [line.text.partition("Negotiate refused: ")[2] for line in log_lines()
            if line.level == "INF" and "Negotiate refused: " in line.text]


def expect_refusal(token, why, another_leg=False):
    before = len(refusals())
    answer = check(token)
    assert (answer.result, answer.clientinfo, answer.neednego) == (-1, "", another_leg)
    [line] = refusals()[before:]
    assert re.search(why, line), line
    return answer


def test_ticket__proves_its_user_once(daemon, realm):
    start(daemon, realm.keytab(GATEWAY, OTHER))

    def answer(token):
        said = check(token)
        assert (said.result, said.clientinfo, said.neednego) == (0, "alice@CORP.TEST", False)
        return said.returnmsg
    token = realm.token(answer=answer)  # curl checks what came back
    for _ in range(3):  # whichever worker takes it
        assert expect_refusal(token, "replay").returnmsg
    assert check(realm.token("zo\u00eb", OTHER)).clientinfo == "zo\u00eb@CORP.TEST"
    assert check(kdc.bare_kerberos(realm.token())).clientinfo == "alice@CORP.TEST"
    assert os.stat(f"{sandbox.WORKDIR}/negotiate.rcache").st_mode & 0o777 == 0o600


def test_descriptors__that_are_used_up_at_the_first_ticket_spoil_no_later_one(daemon, realm):
    daemon.start("--process-num", "1", "--thread-num", "1", workers=1, open_files=(60, 60),
                 files=files(**{"http.keytab": realm.keytab(GATEWAY), "LdapSetting.ini": settings()}))
    with wire.Connection() as connection:
        connection.user_info("alice")  # accepted, and the directory is open
        request = pb.NEGOAuthRequest(requestContent=realm.token())
        with daemon.without_descriptors(60):
            assert connection.ask(wire.NEGOTIATE, request).result == -1
        assert connection.ask(wire.NEGOTIATE, request).clientinfo == "alice@CORP.TEST", refusals()


def test_authctl__shows_a_ticket_to_the_daemon(daemon, realm, monkeypatch):
    start(daemon, realm.keytab(GATEWAY))
    monkeypatch.setenv("KRB5CCNAME", kdc.client_environment(realm.folder)["KRB5CCNAME"])
    token = realm.token()
    code, out, errors = authctl("negotiate", "--service", f"HTTP@{GATEWAY}")
    assert (code, errors) == (OK, "") and "principal:  alice@CORP.TEST" in out
    assert [authctl("negotiate", "-", given=token + "\n")[0], authctl("negotiate", token)[0]] == [OK, REFUSED], "shown before"
    code, out, errors = authctl("negotiate", "--service", f"HTTP@{OTHER}")
    assert code == REFUSED and "principal" in out and "not accepted" in errors
    code, out, errors = authctl("negotiate", "--service", "HTTP@nowhere.corp.test")
    assert (code, out) == (USAGE, "") and "nowhere.corp.test" in errors


def test_refused_tickets__each_with_its_reason(daemon, realm):
    start(daemon, realm.keytab(GATEWAY, OTHER), Service=f"HTTP@{GATEWAY.upper()}", ReplayCache="no")
    token = realm.token()
    assert [check(token).result for _ in range(4)] == [0] * 4
    expect_refusal(realm.token(host=OTHER), "(?i)other.corp.test.*")
    with realm.with_clock(kdc.BEHIND):
        expect_refusal(realm.token(clock=kdc.BEHIND), "(?i)clock skew")
        expect_refusal(realm.token(clock=kdc.BEHIND, life="1m"), "(?i)expired")
    keytab = realm.keytab(GATEWAY)
    write_file("http.keytab", kdc.wrong_keytab(keytab))
    expect_refusal(realm.token(), "(?i)cannot decrypt|decrypt integrity")
    write_file("http.keytab", keytab)
    fresh = realm.keytab(GATEWAY, fresh=True)
    expect_refusal(realm.token(), "Cannot find key.*kvno")
    write_file("http.keytab", fresh)
    assert check(realm.token()).result == 0, "a new keytab is noticed without a reload"
    os.unlink(f"{sandbox.WORKDIR}/http.keytab")
    expect_refusal(realm.token(), "(?i)keytab")


def test_other_tokens__are_refused_cleanly(daemon, realm):
    start(daemon, realm.keytab(GATEWAY))
    ntlm = b"NTLMSSP\0\1\0\0\0\x07\x82\x08\xa2" + bytes(24)
    expect_refusal(ntlm, "NTLM in the place")
    expect_refusal(kdc.spnego([kdc.NTLM], ntlm), "NTLM inside")
    expect_refusal(kdc.spnego([kdc.NTLM, kdc.KERBEROS], ntlm), "NTLM inside", another_leg=True)
    expect_refusal(kdc.spnego([kdc.KERBEROS], b""), "begin with a Kerberos ticket", another_leg=True)
    expect_refusal(kdc.later_leg(kdc.bare_kerberos(realm.token())), "later leg")
    expect_refusal("", "empty")
    for text in ("AA", "AAA*", "QQ==\n", "QR=="):
        expect_refusal(text, "not base64")
    expect_refusal(b"\0" * 9, "damaged")
    expect_refusal(kdc.bare_kerberos(realm.token())[:-1], "cut short")
    expect_refusal("A" * (1 << 20) + "AAAA", "longer than any ticket")
    # Lists of groups make tickets long; so do lists of mechanisms the tokens.
    others = [bytes.fromhex("06082b06010401821f") + bytes([number]) for number in range(100)] * 80
    long = kdc.spnego([kdc.KERBEROS, *others], kdc.bare_kerberos(realm.token()))
    assert len(long) > 80_000 and check(long).clientinfo == "alice@CORP.TEST"


def test_mutated_messages__of_ntlm_and_negotiate_prove_nobody(realm):
    keytab = Path(f"{realm.folder}/mutation.keytab")
    keytab.write_bytes(realm.keytab(GATEWAY))
    realm.token()  # a ticket for it
    done = subprocess.run([program("gss_mutation"), "4000", "1", f"HTTP@{GATEWAY}", keytab], capture_output=True, text=True,
                          env=kdc.client_environment(realm.folder), check=False)
    assert done.returncode == 0, done.stdout + done.stderr[-3000:]


@pytest.mark.parametrize("keys, expected", [
    ({"keytab": "away.keytab"}, "away.keytab.*cannot be read.*(?i:no such file|not found)"),
    ({"keytab": "empty.keytab"}, "empty.keytab.*(holds no key|cannot be read)"),
    ({"keytab": "directory.ldif"}, "directory.ldif.*cannot be read.*(?i:format)"),
    ({"Service": f"HTTP@{OTHER}"}, f"http.keytab.*no key of the Service HTTP@{OTHER}"),
], ids=["missing", "empty", "no keytab", "other service"])
def test_start__says_what_is_wrong_with_the_keytab(daemon, realm, keys, expected):
    daemon.start(wait=False, files=files(**{"http.keytab": realm.keytab(GATEWAY), "empty.keytab": b"\x05\x02",
                                            "LdapSetting.ini": settings(**keys)}))
    assert daemon.status() == 1
    errors = [line.text for line in log_lines() if line.level == "ERR" and line.text.startswith("Directory: ")]
    assert len(errors) == 1 and re.search(expected, errors[0]), errors


def test_without_a_keytab__nobody_is_let_in_and_nothing_is_said(daemon, realm):
    daemon.start("--verbose", files=files())
    answer = check(realm.token())
    assert (answer.result, answer.clientinfo, answer.returnmsg, answer.neednego) == (-1, "", "", False)
    assert daemon.count_lines(re.compile("Negotiate")) == 0
