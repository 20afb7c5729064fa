"""authhelper in all its modes: with the real daemon, with the daemon away, and with one that misbehaves."""

import os
import signal
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


def credentials(user, password):
    return f"{quote(user)} {quote(password)}"


# --- with the real daemon ----------------------------------------------------------------------------------------

def test_basic__says_who_it_is_or_that_it_is_wrong(served):
    password = directory.PASSWORDS
    with Helper("basic") as helper:
        for request, reply in [
            (credentials("alice", password["alice"]), "OK user=alice@corp.test"),
            (credentials("CORP\\ALICE", password["alice"]) + " 10.0.0.1", "OK user=alice@corp.test"),
            (credentials("dave", password["dave"]), "OK user=dave@corp.test"),
            (credentials("bob", password["bob"]), WRONG),  # disabled
            (credentials("alice", "guessed"), WRONG),
            (credentials("alice", ""), 'ERR message="user name or password is empty"'),
            (credentials("nobody", password["alice"]), WRONG),
            ("alice", UNREADABLE), ("", UNREADABLE), ("alice %zz", UNREADABLE), (b"alice a\0b", UNREADABLE),
            (b"x" * 300000, UNREADABLE),
            (credentials("rat", password["rat"]), "OK user=rat@lab.test"),
        ]:
            assert helper.ask(request) == reply, request
    assert helper.errors.count("\n") == 1 and "guessed" not in helper.errors


def test_ip_user__gives_the_bound_user_as_one_value(served):
    with wire.Connection() as connection, Helper("ip-user") as helper:
        assert connection.bind("10.8.1.1", STRANGE_USER) == connection.bind("2001:db8::8", "Proxy_guest_user") == 0
        for request, reply in [
            ("10.8.1.1 -", f"OK user={quote(STRANGE_USER, safe='@')}"),
            ("2001:db8:0::8", "OK user=Proxy_guest_user"),
            ("10.8.1.2", 'ERR message="nobody is bound to this address"'),
            ("-", 'ERR message="no address"'),
            ("not-an-address", 'BH message="the authentication daemon could not find out"'),
        ]:
            assert helper.ask(request) == reply, request
        assert connection.unbind("10.8.1.1") == connection.unbind("2001:db8::8") == 0
        assert helper.ask("10.8.1.1 -").startswith("ERR ")


def test_group__counts_nested_ones_and_ignores_letter_case(served):
    none = 'ERR message="in none of the groups"'
    with Helper("group") as helper:
        for request, reply in [
            ("alice staff", "OK"), ("CORP%5Cbob nix STAFF", "OK"), ("alice domain%20USERS", "OK"),
            (f"dave {quote(directory.GROUPS['Staff'].lower())}", "OK"), ("rat@lab.test labrats", "OK"),
            ("chad staff", none), ("alice labrats %C3%BCber%20G%C3%84STE", none), ("alice", UNREADABLE),
            ("nobody staff", 'ERR message="the directory does not know the user"'),
            ("- staff", 'ERR message="no user"'), ("alice -", 'BH message="no group is named"'),
        ]:
            assert helper.ask(request) == reply, request


def test_tokens__that_are_garbage_are_refused(served):
    for mode in ("ntlm", "negotiate"):
        with Helper(mode) as helper:
            for token in ("AAAA", "TlRMTVNTUAABAAAA", "A" * 65536, "%41", "=", "!"):
                assert helper.ask(f"YR {token}").startswith("ERR "), token
            assert helper.ask("YR").startswith("ERR ")
            assert helper.ask("WHAT AAAA") == 'BH message="neither YR nor KK"'
    assert served.sockets().keys() == set(served.workers())


def test_channels__carry_many_requests_at_once(served):
    right, wrong = credentials("alice", directory.PASSWORDS["alice"]), credentials("alice", "guessed")
    with Helper("basic", "--concurrency", "500", "--connections", "8") as helper:
        helper.send(*(f"{channel} {wrong if channel % 3 == 0 else right}" for channel in range(500)))
        replies = dict(helper.receive().split(" ", 1) for _ in range(500))
        helper.send("alice pw", "7 alice", f"8 {right}")
        assert {helper.receive() for _ in range(3)} == {UNREADABLE, f"7 {UNREADABLE}", "8 OK user=alice@corp.test"}
    assert replies == {str(channel): WRONG if channel % 3 == 0 else "OK user=alice@corp.test" for channel in range(500)}


def test_daemon__that_goes_and_comes_back(daemon):
    right, wrong = credentials("alice", directory.PASSWORDS["alice"]), credentials("alice", "guessed")
    with Helper("basic") as helper, Helper("ip-user") as address, Helper("group", "--concurrency", "5") as group:
        assert helper.ask(right) == address.ask("10.8.2.1") == NO_ANSWER  # not there yet
        daemon.start(files=directory.files())
        until(lambda: helper.ask(right) == "OK user=alice@corp.test", "the first answer")
        until(lambda: address.ask("10.8.2.1").startswith("ERR "), "an answer about an address")
        until(lambda: group.ask("4 alice staff") == "4 OK", "an answer about a group")

        daemon.kill_everything()  # what is idle has ended, and nobody listens
        begin = time.monotonic()
        for _ in range(200):
            assert helper.ask(right) == helper.ask(wrong) == address.ask("10.8.2.1") == NO_ANSWER
        assert group.ask("0 alice staff") == f"0 {NO_ANSWER}"
        assert time.monotonic() - begin < 10

        daemon.start(files=directory.files(), keep=True)
        until(lambda: helper.ask(right) == "OK user=alice@corp.test", "the helper to find the daemon again")
        assert helper.ask(wrong) == WRONG
        until(lambda: address.ask("10.8.2.1").startswith("ERR "), "the same")
    assert "the daemon answers again" in helper.errors and helper.errors.count("\n") <= 4, helper.errors


def test_worker__that_dies_while_nothing_is_asked_costs_no_request(daemon):
    daemon.start(files=directory.files())
    with Helper("basic") as helper:
        right = credentials("alice", directory.PASSWORDS["alice"])
        assert helper.ask(right).startswith("OK ")
        victim = max(daemon.sockets().items(), key=lambda item: item[1])[0]
        os.kill(victim, signal.SIGKILL)
        # Its connections end with its last thread; then the parent can collect it.
        until(lambda: not os.path.exists(f"/proc/{victim}"), f"the end of worker {victim}")
        assert helper.ask(right).startswith("OK ")
    assert helper.errors == ""


def test_end_of_input__gives_the_answers_that_are_due(served):
    right = credentials("alice", directory.PASSWORDS["alice"]).encode()
    for options, lines, expected in [
        ([], right + b"\n" + right, 1),  # the second has no end: it may have been cut
        (["--concurrency", "9"], b"".join(b"%d %s\n" % (channel, right) for channel in range(9)), 9),
        ([], b"", 0),
    ]:
        done = subprocess.run([program("authhelper"), "--mode", "basic", *options], input=lines, timeout=LONG_WAIT,
                              capture_output=True, check=False)
        assert (done.returncode, done.stdout.count(b"OK user=alice@corp.test\n"), done.stderr) == (0, expected, b"")


@pytest.mark.parametrize("options", [
    [], ["--mode", "dance"], ["--mode", "ntlm", "--concurrency", "5"], ["--mode", "basic", "--connections", "5"],
    ["--mode", "basic", "--strip-realm"], ["--mode", "basic", "--server", "127.0.0.1:x"], ["--mode", "basic", "more"],
    ["--mode", "basic", "--concurrency", "0"],
], ids=" ".join)
def test_options__that_make_no_sense(options):
    done = subprocess.run([program("authhelper"), *options], stdin=subprocess.DEVNULL, capture_output=True, check=False)
    assert (done.returncode, done.stdout) == (2, b"") and done.stderr


# --- with a daemon that says what the test wants ---------------------------------------------------------------

def test_request__is_repeated_only_where_it_does_no_harm():
    """The daemon ends after it has read a request; the helper cannot know whether it was carried out."""
    answers = {wire.VALIDATE: pb.UserValidateResponse(result=-1), wire.IP_QUERY: pb.IPUserQueryResponse(result=1),
               wire.NEGOTIATE: pb.NEGOAuthResponse(result=-1, clientinfo="", returnmsg="", neednego=False)}
    closing = threading.Event()
    for mode, kind, request, repeated in [("basic", wire.VALIDATE, "alice pw", False),
                                          ("negotiate", wire.NEGOTIATE, "YR AAAA", False),
                                          ("ip-user", wire.IP_QUERY, "10.0.0.1", True)]:
        def script(asked, _body):
            return None if closing.is_set() else answers[asked]
        with ScriptedDaemon(script) as scripted, scripted.helper(mode) as helper:
            assert helper.ask(request).startswith("ERR ")
            closing.set()
            assert helper.ask(request) == NO_ANSWER
            if mode == "basic":
                assert helper.ask(request) == NO_ANSWER  # the proxy says it again at once
            assert [asked for _, asked, _ in scripted.requests] == [kind] * (3 if repeated else 2)
            closing.clear()
            assert helper.ask(request.replace("alice", "bob")).startswith("ERR ")


def test_answers__that_are_no_answers_are_nobodys_fault():
    silence = threading.Event()
    for answer in [b"", b"\xff\xff", pb.IPUserQueryResponse(result=0), pb.IPUserQueryResponse(result=-2), silence]:
        def script(_kind, _body, answer=answer):
            if answer is not silence:
                return answer
            silence.wait(LONG_WAIT)
            return None
        with ScriptedDaemon(script) as scripted, scripted.helper("ip-user", "--timeout", "0.5") as helper:
            begin = time.monotonic()
            assert helper.ask("10.0.0.1").startswith("BH "), answer
            assert (time.monotonic() - begin >= 0.5) == (answer is silence)
            if answer is silence:
                silence.set()
        assert helper.errors.count("\n") == 1, helper.errors


def test_slow_answer__does_not_hold_up_the_others():
    release = threading.Event()

    def script(_kind, body):
        slow = pb.IPUserQueryRequest.FromString(body).ip == "10.0.0.1"
        return pb.IPUserQueryResponse(result=1) if not slow or release.wait(LONG_WAIT) else None
    with ScriptedDaemon(script) as scripted, scripted.helper("ip-user", "--concurrency", "20") as helper:
        helper.send("0 10.0.0.1", *(f"{channel} 10.0.0.2" for channel in range(1, 20)))
        assert {helper.receive().split()[0] for _ in range(19)} == {str(channel) for channel in range(1, 20)}
        release.set()
        assert helper.receive().startswith("0 ERR ")
        assert scripted.connections <= 4


class NtlmDaemon(ScriptedDaemon):
    """Challenges everybody; proves whoever sends `RIGHT`."""

    CHALLENGE, RIGHT, USER = "Q2hhbGxlbmdl", "UmlnaHQ=", 'CORP\\Zo\u00eb "x" user=y'

    def __init__(self):
        super().__init__(self.answer)
        self.seen = []

    def answer(self, _kind, body):
        request = pb.NTLMAuthRequest.FromString(body)
        self.seen.append((self.requests[-1][0], request.messageType, request.clientIP))
        if request.messageType == 1:
            return pb.NTLMAuthResponse(result=0, responseContent=self.CHALLENGE)
        right = request.requestContent == self.RIGHT
        return pb.NTLMAuthResponse(result=0 if right else -1, responseContent=self.USER if right else "")


def test_ntlm__holds_an_exchange_on_one_connection():
    challenge, user = f"TT {NtlmDaemon.CHALLENGE}", f"OK user={quote(NtlmDaemon.USER, safe='@')}"
    with NtlmDaemon() as scripted, scripted.helper("ntlm") as helper:
        for request, reply in [
            ("YR TlRM 10.1.1.1", challenge), (f"KK {NtlmDaemon.RIGHT} 10.1.1.1", user),
            ("YR TlRM -", challenge), ("KK V3Jvbmc=", WRONG),
            (f"KK {NtlmDaemon.RIGHT}", 'BH message="no NTLM exchange is under way"'),
            ("YR TlRM", challenge), ("YR TlRM 2001:db8::1", challenge), (f"KK {NtlmDaemon.RIGHT}", user),
        ]:
            assert helper.ask(request) == reply, request
        # A client that begins anew leaves the old exchange with its connection.
        assert scripted.seen == [(1, 1, "10.1.1.1"), (1, 2, "10.1.1.1"), (1, 1, "0.0.0.0"), (1, 2, "0.0.0.0"),
                                 (1, 1, "0.0.0.0"), (2, 1, "2001:db8::1"), (2, 2, "0.0.0.0")]

        assert helper.ask("YR TlRM") == challenge
        scripted.drop()
        assert helper.ask(f"KK {NtlmDaemon.RIGHT}") == NO_ANSWER
        assert scripted.seen[-1][1] == 1, "a proof went to a daemon that never gave the challenge"
        assert helper.ask("YR TlRM") == challenge and helper.ask(f"KK {NtlmDaemon.RIGHT}") == user


@pytest.mark.parametrize("challenge", ["", "no base64", "A" * 40000, None])
def test_ntlm__challenge_that_cannot_be_used(challenge):
    answer = pb.NTLMAuthResponse(result=0, responseContent=challenge)
    with ScriptedDaemon(lambda *_: answer) as scripted, scripted.helper("ntlm") as helper:
        assert helper.ask("YR TlRM").startswith("BH ")


def test_negotiate__replies_in_the_form_of_current_proxies():
    def answer(result, client="", token="", more=False):
        return pb.NEGOAuthResponse(result=result, clientinfo=client, returnmsg=token, neednego=more)
    refused = 'ERR message="the Negotiate token was refused"'
    unusable = 'BH message="the answer of the authentication daemon cannot be used"'
    rows = [
        (answer(0, "alice@CORP.TEST", "YWJj"), "OK user=alice@CORP.TEST token=YWJj"),
        (answer(0, "alice@CORP.TEST"), "OK user=alice@CORP.TEST token="),
        (answer(0, "a b=c@CORP.TEST", "YWJj"), "OK user=a%20b%3Dc@CORP.TEST token=YWJj"),
        (answer(0, "", "YWJj"), unusable),
        (answer(0, "alice@CORP.TEST", "no base64"), unusable),
        (answer(-1, "", "YWJj", True), "TT YWJj"),
        (answer(0, "alice@CORP.TEST", "", True), refused),
        (answer(-1), refused), (answer(-1, "alice@CORP.TEST", "YWJj"), refused + " token=YWJj"),
    ]
    todo = []
    with ScriptedDaemon(lambda *_: todo.pop()) as scripted, scripted.helper("negotiate") as helper:
        for message, reply in rows:
            todo.append(message)
            assert helper.ask(("KK" if message.neednego else "YR") + " YWJj 10.0.0.1") == reply
        with scripted.helper("negotiate", "--strip-realm") as short:
            todo.append(rows[0][0])
            assert short.ask("YR YWJj") == "OK user=alice token=YWJj"
