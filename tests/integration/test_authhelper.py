"""authhelper in all its modes: with the real daemon, with the daemon away, and with one that misbehaves."""

import subprocess
import threading
import time
from urllib.parse import quote

import pytest

from harness import directory, wire
from harness.daemon import LONG_WAIT, program, until
from harness.helper import Helper, ScriptedDaemon
from harness.wire import pb

NO_ANSWER = 'BH message="the authentication daemon did not answer"'
WRONG = 'ERR message="wrong user name or password"'
UNREADABLE = 'BH message="the request cannot be read"'
STRANGE_USER = 'CORP\\al "x"\n% user=root\u00fc'
ALICE = "OK user=alice@corp.test"


def credentials(user, password=None):
    return f"{quote(user)} {quote(directory.PASSWORDS[user.lower()] if password is None else password)}"


REPLIES = {
    "basic": [
        (credentials("alice"), ALICE),
        (f"CORP%5CALICE {credentials('alice').split()[1]} 10.0.0.1", ALICE),
        (credentials("bob"), WRONG),  # disabled
        (credentials("alice", "guessed"), WRONG),
        (credentials("alice", ""), 'ERR message="user name or password is empty"'),
        ("alice %zz", UNREADABLE), (b"x" * 300000, UNREADABLE),
        (credentials("dave"), "OK user=dave@corp.test"),
    ],
    "ip-user": [
        ("10.8.1.1 -", f"OK user={quote(STRANGE_USER, safe='@')}"),
        ("2001:db8:0::8", "OK user=Proxy_guest_user"),
        ("10.8.1.2", 'ERR message="nobody is bound to this address"'),
        ("-", 'ERR message="no address"'),
        ("not-an-address", 'BH message="the authentication daemon could not find out"'),
    ],
    "group": [
        ("CORP%5Cbob nix STAFF", "OK"),
        (f"dave {quote(directory.GROUPS['Staff'].lower())}", "OK"),
        ("alice labrats %C3%BCber%20G%C3%84STE", 'ERR message="in none of the groups"'),
        ("nobody staff", 'ERR message="the directory does not know the user"'),
        ("- staff", 'ERR message="no user"'), ("alice -", 'BH message="no group is named"'),
    ],
    "ntlm": [("YR " + "A" * 65536, 'ERR message="the NTLM message was refused"'),
             ("WHAT AAAA", 'BH message="neither YR nor KK"')],
}


@pytest.mark.parametrize("mode", REPLIES)
def test_request__gets_its_reply(served, mode):
    with wire.Connection() as connection, Helper(mode) as helper:
        assert connection.bind("10.8.1.1", STRANGE_USER) == connection.bind("2001:db8::8", "Proxy_guest_user") == 0
        for request, reply in REPLIES[mode]:
            assert helper.ask(request) == reply, request
        assert connection.unbind("10.8.1.1") == connection.unbind("2001:db8::8") == 0
    assert helper.errors.count("\n") <= 1 and "guessed" not in helper.errors


def test_daemon__that_goes_and_comes_back(daemon):
    right = credentials("alice")
    with Helper("basic") as helper, Helper("ip-user") as address, Helper("group", "--concurrency", "5") as group:
        assert helper.ask(right) == address.ask("10.8.2.1") == NO_ANSWER  # not there yet
        daemon.start(files=directory.files())
        until(lambda: helper.ask(right) == ALICE, "the first answer")
        until(lambda: address.ask("10.8.2.1").startswith("ERR "), "an answer about an address")
        until(lambda: group.ask("4 alice staff") == "4 OK", "an answer about a group")

        daemon.kill_everything()
        begin = time.monotonic()
        for _ in range(200):
            assert helper.ask(right) == address.ask("10.8.2.1") == NO_ANSWER
        assert group.ask("0 alice staff") == f"0 {NO_ANSWER}"
        assert time.monotonic() - begin < 10

        daemon.start(files=directory.files(), keep=True)
        until(lambda: helper.ask(right) == ALICE, "the helper to find the daemon again")
    assert "the daemon answers again" in helper.errors and helper.errors.count("\n") <= 4, helper.errors


def test_end_of_input__gives_the_answers_that_are_due(served):
    right = credentials("alice").encode()
    for options, lines, expected in [
        ([], right + b"\n" + right, 1),  # the second has no end: it may have been cut
        (["--concurrency", "9"], b"".join(b"%d %s\n" % (channel, right) for channel in range(9)), 9),
    ]:
        done = subprocess.run([program("authhelper"), "--mode", "basic", *options], input=lines, timeout=LONG_WAIT,
                              capture_output=True, check=False)
        assert (done.returncode, done.stdout.count(ALICE.encode() + b"\n"), done.stderr) == (0, expected, b"")


def test_options__that_make_no_sense():
    for options in ("", "--mode dance", "--mode ntlm --concurrency 5", "--mode basic --connections 5",
                    "--mode basic --strip-realm", "--mode basic --server 127.0.0.1:x", "--mode basic more"):
        done = subprocess.run([program("authhelper"), *options.split()], stdin=subprocess.DEVNULL, capture_output=True,
                              check=False)
        assert (done.returncode, done.stdout) == (2, b"") and done.stderr, options


# With a daemon that says what the test wants.

def negotiated(result, client="", token="", more=False):
    return pb.NEGOAuthResponse(result=result, clientinfo=client, returnmsg=token, neednego=more)


@pytest.mark.parametrize("mode, kind, answer, request_line, repeated", [
    ("basic", wire.VALIDATE, pb.UserValidateResponse(result=-1), "alice pw", False),
    ("negotiate", wire.NEGOTIATE, negotiated(-1), "YR AAAA", False),
    ("ip-user", wire.IP_QUERY, pb.IPUserQueryResponse(result=1), "10.0.0.1", True),
], ids=lambda value: value if isinstance(value, str) else "")
def test_request__is_repeated_only_where_it_does_no_harm(mode, kind, answer, request_line, repeated):
    """The daemon ends after it has read a request; the helper cannot know whether it was carried out."""
    answers = [answer, answer, None, None]
    with ScriptedDaemon(lambda *_: answers.pop(0)) as scripted, scripted.helper(mode) as helper:
        assert helper.ask(request_line).startswith("ERR ")
        scripted.drop()  # while nothing is asked: costs no request
        assert helper.ask(request_line).startswith("ERR ")
        assert helper.ask(request_line) == NO_ANSWER
        if mode == "basic":
            assert helper.ask(request_line) == NO_ANSWER  # the proxy says it again at once
        assert [asked for _, asked, _ in scripted.requests] == [kind] * (4 if repeated else 3)


BROKEN = 'BH message="the answer of the authentication daemon cannot be used"'
REFUSED = 'ERR message="the Negotiate token was refused"'


@pytest.mark.parametrize("options, answer, reply", [
    ("ip-user", b"\xff\xff", NO_ANSWER),
    ("ip-user --timeout 0.5", None, NO_ANSWER),
    ("ip-user", pb.IPUserQueryResponse(result=0), BROKEN),  # nobody is named
    ("ntlm", pb.NTLMAuthResponse(result=0, responseContent="no base64"), BROKEN),
    ("negotiate", negotiated(0, "", "YWJj"), BROKEN),
    ("negotiate", negotiated(0, "alice@CORP.TEST", "no base64"), BROKEN),
    ("negotiate", negotiated(0, "a b=c@CORP.TEST", "YWJj"), "OK user=a%20b%3Dc@CORP.TEST token=YWJj"),
    ("negotiate --strip-realm", negotiated(0, "alice@CORP.TEST", "YWJj"), "OK user=alice token=YWJj"),
    ("negotiate", negotiated(-1, "", "YWJj", True), "TT YWJj"),
    ("negotiate", negotiated(0, "alice@CORP.TEST", "", True), REFUSED),
    ("negotiate", negotiated(-1, "alice@CORP.TEST", "YWJj"), REFUSED + " token=YWJj"),
], ids=lambda value: value if isinstance(value, str) else "")
def test_answer__becomes_a_reply(options, answer, reply):
    begin = time.monotonic()
    with ScriptedDaemon(lambda *_: answer or time.sleep(LONG_WAIT)) as scripted:
        with scripted.helper(*options.split()) as helper:
            assert helper.ask("10.0.0.1" if options.startswith("ip-user") else "YR YWJj 10.0.0.1") == reply
    assert time.monotonic() - begin < LONG_WAIT / 2


def test_channels__carry_many_requests_and_a_slow_one_holds_up_nobody():
    release = threading.Event()
    nothing = dict.fromkeys(("domain_dns", "uid", "cn", "dn", "upn"), "")

    def script(_kind, body):
        ip = pb.IPUserQueryRequest.FromString(body).ip
        if ip == "10.0.0.0":
            release.wait(LONG_WAIT)
        return pb.IPUserQueryResponse(result=0, userInfo=pb.UserInfo(user_ln=f"user of {ip}", **nothing))
    with ScriptedDaemon(script) as scripted, scripted.helper("ip-user", "--concurrency", "500") as helper:
        helper.send(*(f"{channel} 10.0.0.{channel}" for channel in range(500)))
        replies = {helper.receive() for _ in range(499)}
        assert replies == {f"{channel} OK user=user%20of%2010.0.0.{channel}" for channel in range(1, 500)}
        release.set()
        assert helper.receive().startswith("0 OK ")
        assert scripted.connections <= 4


CHALLENGE, RIGHT, USER = "Q2hhbGxlbmdl", "UmlnaHQ=", 'CORP\\Zo\u00eb "x" user=y'


def challenge_or_prove(_kind, body):
    request = pb.NTLMAuthRequest.FromString(body)
    if request.messageType == 1:
        return pb.NTLMAuthResponse(result=0, responseContent=CHALLENGE)
    right = request.requestContent == RIGHT
    return pb.NTLMAuthResponse(result=0 if right else -1, responseContent=USER if right else "")


def test_ntlm__holds_an_exchange_on_one_connection():
    challenge, user = f"TT {CHALLENGE}", f"OK user={quote(USER, safe='@')}"
    with ScriptedDaemon(challenge_or_prove) as scripted, scripted.helper("ntlm") as helper:
        for request, reply in [
            ("YR TlRM 10.1.1.1", challenge), (f"KK {RIGHT} 10.1.1.1", user),
            ("YR TlRM -", challenge), ("KK V3Jvbmc=", WRONG),
            (f"KK {RIGHT}", 'BH message="no NTLM exchange is under way"'),
            ("YR TlRM", challenge), ("YR TlRM 2001:db8::1", challenge), (f"KK {RIGHT}", user),
        ]:
            assert helper.ask(request) == reply, request
        seen = [(number, pb.NTLMAuthRequest.FromString(body)) for number, _, body in scripted.requests]
        # A client that begins anew leaves the old exchange with its connection.
        assert [(number, one.messageType, one.clientIP) for number, one in seen] == [
            (1, 1, "10.1.1.1"), (1, 2, "10.1.1.1"), (1, 1, "0.0.0.0"), (1, 2, "0.0.0.0"),
            (1, 1, "0.0.0.0"), (2, 1, "2001:db8::1"), (2, 2, "0.0.0.0")]

        assert helper.ask("YR TlRM") == challenge
        scripted.drop()
        asked = len(scripted.requests)
        assert helper.ask(f"KK {RIGHT}") == NO_ANSWER
        assert len(scripted.requests) == asked, "a proof went to a daemon that never gave the challenge"
        assert helper.ask("YR TlRM") == challenge and helper.ask(f"KK {RIGHT}") == user
