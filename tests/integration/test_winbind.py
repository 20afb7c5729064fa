"""A gateway that is a member of the domain: NTLM through winbind, Negotiate with the domain controller's tickets."""

import time
from pathlib import Path

import pytest

from harness import wire
from harness.wire import pb
from servers import kdc, ntlm, winbind, workdir
from servers.ntlm import Logon, SambaClient, last_refusal
from servers.samba_ad import GATEWAY, PEOPLE_OF_NOTE, READER, READER_PASSWORD, SambaDomain
from servers.winbind import Winbind

ALICES = PEOPLE_OF_NOTE["alice"][1]


@pytest.fixture(scope="module")
def domain():
    with SambaDomain(winbind.MEMBER_SERVICES) as controller:
        yield controller


@pytest.fixture(scope="module")
def member(domain):
    with open("/etc/hosts", "a", encoding="ascii") as file:
        file.write(f"127.0.0.1 {GATEWAY}\n")
    with Winbind() as one:
        yield one


def start(daemon, domain, may_ask=True, more="", workers=2, **files):
    winbind.let_daemon_ask(may_ask)
    workdir.place(workdir.settings([domain.tls_url], READER, CACertFile="ca.pem", OperationTimeout=5) + more, READER_PASSWORD,
                  **{"ca.pem": Path(domain.ca).read_bytes(), **files})
    workdir.good_sync()
    daemon.start("--process-num", str(workers), keep=True, workers=workers)


def test_logons__winbind_proves_and_the_directory_names(daemon, domain, member):
    start(daemon, domain)
    for user, typed in (("alice", "CORP"), ("ALICE", "corp.test"), ("alice", ""), ("alice@corp.test", "")):
        assert ntlm.log_on(user, ALICES, typed) == "CORP\\alice", (user, typed, last_refusal())
    assert ntlm.log_on("jm\u00fcller", PEOPLE_OF_NOTE["jm\u00fcller"][1], "CORP") == "CORP\\jm\u00fcller"
    assert ntlm.log_on_with_curl("CORP\\alice", ALICES) == "CORP\\alice"
    assert ntlm.log_on("alice", ALICES, "CORP", "--option=client NTLMv2 auth=no") is None and "NTLMv1" in last_refusal()
    for user, password, typed, why in (
            ("alice", "guess", "CORP", "winbind says no"), ("alice", ALICES, "EVIL", "the domain is not one"),
            ("gone", PEOPLE_OF_NOTE["gone"][1], "CORP", "winbind says no"), ("gw1$", "x", "CORP", "no such user")):
        assert ntlm.log_on(user, password, typed) is None
        assert why in last_refusal(), last_refusal()


def test_name_that_has_changed_hands__lets_nobody_in_as_its_former_owner(daemon, domain, member):
    winbind.let_daemon_ask(True)
    daemon.start(files={"directory.ldif": "dn: uid=before,dc=corp,dc=test\nobjectClass: person\nuid: before\ncn: Before\n"
                                          "userPrincipalName: alice@corp.test\n"})
    assert ntlm.log_on("alice@corp.test", ALICES, "") is None
    assert "CORP\\alice, who is somebody else" in last_refusal()


def test_without_the_right_or_winbind__the_log_says_which(daemon, domain, member):
    start(daemon, domain, may_ask=False)
    assert ntlm.log_on("alice", ALICES, "CORP") is None and "group winbindd_priv" in last_refusal()
    daemon.kill_everything()
    start(daemon, domain)
    with member.stopped():
        assert ntlm.log_on("alice", ALICES, "CORP") is None and "winbind is not reachable" in last_refusal()
    assert ntlm.log_on("alice", ALICES, "CORP") == "CORP\\alice"


def test_winbind_that_does_not_answer__holds_few_threads(daemon, domain, member):
    start(daemon, domain, workers=1)
    # Without a domain winbind is asked for its own first. More wait than the daemon has threads.
    with SambaClient("alice", ALICES, "") as client:
        assert client.log_on(Logon()) == "CORP\\alice"
        waiting = [Logon(timeout=60) for _ in range(12)]
        tokens = [client.type3(logon.challenge(client.type1())) for logon in waiting]
        with member.frozen():
            for logon, token in zip(waiting, tokens):
                logon.connection.send(wire.frame(wire.NTLM, pb.NTLMAuthRequest(
                    messageType=2, clientIP=ntlm.CLIENT, requestContent=token)))
            begin = time.monotonic()
            with wire.Connection() as connection:
                for _ in range(20):
                    assert connection.user_info("alice@corp.test").result == 0
            assert time.monotonic() - begin < 5
        answers = [logon.connection.receive_answer(wire.NTLM).result for logon in waiting]
    # Those that asked get their answer when winbind goes on; the others were refused meanwhile, or had their turn.
    assert answers.count(0) >= 5 and set(answers) <= {0, -1}, answers


def test_negotiate__with_tickets_of_the_controller(daemon, domain, member):
    start(daemon, domain, more=f"[Negotiate]\nKeytab=http.keytab\nService=HTTP@{GATEWAY}\n", **{"http.keytab": domain.keytab()})

    def answer(token):
        said = wire.ask(wire.NEGOTIATE, pb.NEGOAuthRequest(requestContent=token))
        assert (said.result, said.clientinfo) == (0, "alice@CORP.TEST")
        return said.returnmsg
    kdc.token(domain.folder, "alice", ALICES, GATEWAY, answer=answer)
