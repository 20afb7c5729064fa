"""Through a real Squid with curl: who gets the page, and who stands in the proxy's log."""

import re

import pytest

from harness import directory, wire
from harness.daemon import Daemon, until
from harness.helper import ScriptedDaemon
from servers.kdc import GATEWAY, PASSWORDS, Realm, client_environment
from servers.ntlm import HASH
from servers.origin import Origin
from servers.process import run
from servers.squid import ORIGIN_PORT, Squid

LOGIN, GROUP, ADDRESS, ADDRESS_GROUP = range(3128, 3132)

_CONFIGURATION = """
auth_param negotiate program {helper} --mode negotiate
auth_param negotiate children 5 startup=0 idle=1
auth_param ntlm program {helper} --mode ntlm
auth_param ntlm key_extras "%>a"
auth_param ntlm children 10 startup=0 idle=1
auth_param basic program {helper} --mode basic --concurrency 20
auth_param basic children 2 startup=0 idle=1 concurrency=20
auth_param basic credentialsttl 1 second
auth_param basic utf8 on
external_acl_type in_group ttl=0 concurrency=20 %#un {helper} --mode group --concurrency 20
external_acl_type bound ttl=0 %>a {helper} --mode ip-user

acl at_login myportname port3128
acl at_group myportname port3129
acl at_address myportname port3130
acl at_address_group myportname port3131
acl logged_in proxy_auth REQUIRED
acl is_bound external bound
acl in_staff external in_group "{groups}"
http_access allow at_login logged_in
http_access deny at_group !logged_in
http_access allow at_group in_staff
http_access allow at_address is_bound
http_access deny at_address_group !is_bound
http_access allow at_address_group in_staff
http_access deny all
"""


# Their passwords are "password". The second one's account is disabled.
_NTLM_USERS = "".join(
    directory.entry(directory.user_dn(uid), ("objectClass", "user"), ("cn", uid), ("sAMAccountName", uid),
                    ("userAccountControl", control), ("sambaNTPassword", HASH))
    for uid, control in [("nora", "512"), ("oscar", "514")])


def login(user, password=None):
    return ["--proxy-basic", "-U", f"{user}:{directory.PASSWORDS[user] if password is None else password}"]


def ntlm(user, password="password"):
    return ["--proxy-ntlm", "-U", f"{user}:{password}"]


@pytest.fixture(scope="module")
def realm():
    with Realm() as one:
        yield one


@pytest.fixture(scope="module")
def gateway(tmp_path_factory, realm):
    """A daemon and a Squid; (daemon, squid)."""
    groups = tmp_path_factory.mktemp("groups") / "list"
    groups.write_text("no such group\n\u00dcber G\u00e4ste\nstaff\n", encoding="utf-8")
    run("chmod", "755", groups.parent, groups.parent.parent)
    daemon = Daemon()
    try:
        daemon.start("--verbose", files={
            "directory.ldif": directory.ldif() + _NTLM_USERS, "http.keytab": realm.keytab(GATEWAY),
            "LdapSetting.ini": "[Negotiate]\nKeytab=http.keytab\n"})
        with (Origin(port=ORIGIN_PORT),
              Squid(_CONFIGURATION.replace("{groups}", str(groups)), range(LOGIN, ADDRESS_GROUP + 1)) as squid):
            yield daemon, squid
    finally:
        daemon.kill_everything()


@pytest.fixture
def squid(gateway):
    return gateway[1]


def test_passwords__basic_and_ntlm(gateway):
    daemon, squid = gateway
    assert squid.fetch(LOGIN) == (407, "-")
    for options, user in [(login("alice"), "alice"), (login("dave"), "dave"),  # letters beyond ASCII in the password
                          (ntlm("nora"), "CORP\\nora"), (ntlm("CORP\\NORA"), "CORP\\nora")]:
        assert squid.fetch(LOGIN, *options) == (200, user)
    for options in [login("alice", "guessed"), login("alice", ""), login("bob"), ntlm("nora", "guessed"), ntlm("oscar")]:
        assert squid.fetch(LOGIN, *options)[0] == 407
    # The client's address came along with key_extras.
    daemon.wait_line(re.compile("NTLM from 127.0.0.1 refused: .*oscar"))
    assert squid.fetch(GROUP, *login("alice")) == (200, "alice")
    assert squid.fetch(GROUP, *login("rat"))[0] in (403, 407)


def test_negotiate__with_a_ticket(realm, squid):
    environment = client_environment(realm.folder)

    def fetch(port):
        return squid.fetch(port, "--proxy-negotiate", "-U", ":", host=GATEWAY, environment=environment)
    for user, group_status in (("alice", 200), ("zo\u00eb", 403)):
        run("kinit", user, input=PASSWORDS[user] + "\n", env=environment)
        assert fetch(LOGIN) == (200, f"{user}@CORP.TEST")
        assert fetch(GROUP)[0] == group_status
    for token in ("TlRMTVNTUAABAAAAB4IIogAAAAAAAAAAAAAAAAAAAAA=", "YIIabc", "%41"):
        assert squid.fetch(LOGIN, "-H", f"Proxy-Authorization: Negotiate {token}")[0] == 407
    assert "authhelper negotiate: a client sent an NTLM message for Negotiate" in squid.cache_log()


def test_address__of_a_bound_user(squid):
    with wire.Connection() as connection:
        assert connection.bind("127.0.0.7", "CORP\\alice") == connection.bind("127.0.0.8", "rat@lab.test") == 0
        for port, source, status in [(ADDRESS, 7, 200), (ADDRESS, 9, 403), (ADDRESS_GROUP, 7, 200), (ADDRESS_GROUP, 8, 403)]:
            got = squid.fetch(port, source=f"127.0.0.{source}")
            assert got == (200, "CORP\\alice") if status == 200 else got[0] == 403
        assert connection.unbind("127.0.0.7") == connection.unbind("127.0.0.8") == 0
        assert squid.fetch(ADDRESS, source="127.0.0.7")[0] == 403


def test_daemon__that_is_away_lets_nobody_through_and_nothing_break(gateway):
    daemon, squid = gateway
    daemon.kill_everything()
    assert squid.fetch(LOGIN, *login("carol"))[0] == 407
    assert squid.fetch(ADDRESS)[0] == 403
    # A password whose verdict was lost is not sent again, although Squid repeats what got no answer.
    with ScriptedDaemon(lambda *_: None, wire.ADDRESS) as scripted:
        until(lambda: squid.fetch(LOGIN, *login("dave")) and scripted.requests, "a request")
        assert [kind for _, kind, _ in scripted.requests] == [wire.VALIDATE]
    daemon.start(files=directory.files())
    until(lambda: squid.fetch(LOGIN, *login("carol")) == (200, "carol"), "the first login")
    log = squid.cache_log()
    assert "authhelper basic: cannot connect" in log
    for text in ("exited", "FATAL", "unexpected"):
        assert text not in log
