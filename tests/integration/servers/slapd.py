"""A slapd of the tests' own: its files on the RAM disk, ldap and ldaps on ports of its own, filled by slapadd.

It limits ordinary searches to 500 entries and pages as Active Directory does, locks an account after three wrong
passwords, keeps memberOf, shows the directory to the reading account only, and writes every operation to its log.
"""

import functools
import itertools
import re
from pathlib import Path

from harness.directory import ldif_line
from servers.process import ServerProcess, need_programs, new_folder, run

SUFFIX = "dc=corp,dc=test"
PEOPLE, GROUPS = f"ou=people,{SUFFIX}", f"ou=groups,{SUFFIX}"
READER, READER_PASSWORD = f"cn=reader,{SUFFIX}", "may read"
ADMIN, ADMIN_PASSWORD = f"cn=admin,{SUFFIX}", "may write"
LOCKED_AFTER = 3

_CONFIGURATION = f"""
include /etc/ldap/schema/core.schema
include /etc/ldap/schema/cosine.schema
include /etc/ldap/schema/nis.schema
include /etc/ldap/schema/inetorgperson.schema
modulepath /usr/lib/ldap
moduleload back_mdb
moduleload memberof
moduleload ppolicy
pidfile {{folder}}/pid
TLSCACertificateFile {{ca}}
TLSCertificateFile {{folder}}/tls.pem
TLSCertificateKeyFile {{folder}}/tls.key
sizelimit size.soft=500 size.hard=500 size.prtotal=unlimited
database mdb
maxsize 2147483648
envflags nosync
suffix "{SUFFIX}"
rootdn "{ADMIN}"
rootpw "{ADMIN_PASSWORD}"
directory {{folder}}/db
index objectClass,uid,cn,member,uniqueMember,memberUid eq
overlay memberof
overlay ppolicy
ppolicy_default "cn=lockout,{SUFFIX}"
ppolicy_use_lockout
access to attrs=userPassword by anonymous auth by * none
access to dn.base="" by * read
access to * by dn.exact="{READER}" read by * none
"""

_KEY = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes")
_numbers = itertools.count()


def entry(dn, **attributes):
    """One LDIF entry; an attribute's value is a text or a list of them."""
    text = ldif_line("dn", dn)
    for name, values in attributes.items():
        for value in [values] if isinstance(values, (str, bytes)) else values:
            text += ldif_line(name, value)
    return text + "\n"


def rdn_value(text):
    """Escaped for a DN."""
    escaped = re.sub(r'([,+"\\<>;=])', r"\\\1", text)
    return "\\" + escaped if escaped.startswith(("#", " ")) else escaped


def skeleton():
    return (entry(SUFFIX, objectClass=["dcObject", "organization"], o="Corp", dc="corp")
            + entry(PEOPLE, objectClass="organizationalUnit", ou="people")
            + entry(GROUPS, objectClass="organizationalUnit", ou="groups")
            + entry(READER, objectClass=["organizationalRole", "simpleSecurityObject"], cn="reader",
                    userPassword=READER_PASSWORD)
            + entry(f"cn=lockout,{SUFFIX}", objectClass=["organizationalRole", "pwdPolicy"], cn="lockout",
                    pwdAttribute="userPassword", pwdLockout="TRUE", pwdMaxFailure=str(LOCKED_AFTER),
                    pwdLockoutDuration="0", pwdFailureCountInterval="0"))


@functools.cache
def authority(name):
    """The folder of a certification authority, made at its first use."""
    folder = new_folder(f"ca_{name}")
    run("openssl", "req", "-x509", *_KEY, "-days", "30", "-subj", f"/CN=Test Authority {name}",
        "-addext", "basicConstraints=critical,CA:TRUE", "-addext", "keyUsage=critical,keyCertSign,cRLSign",
        "-keyout", f"{folder}/ca.key", "-out", f"{folder}/ca.pem")
    return folder


class Slapd(ServerProcess):
    """`content` is the LDIF of the directory below the skeleton; `names` what its certificate says, which with less
    than no `days` has expired."""

    def __init__(self, content, names="IP:127.0.0.1", issuer="trusted", days=30):
        need_programs("slapd", "slapadd", "ldapmodify", "openssl")
        number = next(_numbers)
        self.folder = new_folder(f"slapd{number}")
        self.port, tls_port = 3890 + number, 6360 + number
        self.url, self.tls_url = f"ldap://127.0.0.1:{self.port}", f"ldaps://127.0.0.1:{tls_port}"
        self.configuration, self.ca, tls = f"{self.folder}/slapd.conf", f"{authority(issuer)}/ca.pem", f"{self.folder}/tls"
        run("openssl", "req", *_KEY, "-subj", "/CN=server", "-addext", f"subjectAltName={names}",
            "-keyout", f"{tls}.key", "-out", f"{tls}.csr")
        run("openssl", "x509", "-req", "-in", f"{tls}.csr", "-copy_extensions", "copy", "-CA", self.ca,
            "-CAkey", f"{authority(issuer)}/ca.key", "-CAcreateserial", "-days", str(days), "-out", f"{tls}.pem")
        Path(self.configuration).write_text(_CONFIGURATION.format(folder=self.folder, ca=self.ca), "utf-8")
        super().__init__(["slapd", "-f", self.configuration, "-d", "stats", "-h", f"{self.url}/ {self.tls_url}/"],
                         (self.port, tls_port), f"{self.folder}/log")
        self.fill(content)

    def fill(self, content):
        """Replaces the whole directory; not while the server runs."""
        new_folder(f"{self.folder}/db")
        run("slapadd", "-q", "-f", self.configuration, input=skeleton() + content)

    def refill(self, content):
        self.stop()
        self.fill(content)
        self.start()

    def change(self, ldif):
        """Over the wire, as the administrator; entries without a changetype are added."""
        run("ldapmodify", "-a", "-x", "-H", self.url, "-D", ADMIN, "-w", ADMIN_PASSWORD, input=ldif)

    def remove(self, dn):
        self.change(ldif_line("dn", dn) + "changetype: delete\n")

    # What the server's log tells. A line of a request stands there before its answer goes out.

    def binds(self, dn=None):
        """How many simple binds there were, by anybody but the reader or only as `dn`."""
        asked = re.findall(r'BIND dn="(.*)" method=128$', self.output(), re.MULTILINE)
        return sum(name == dn if dn is not None else name not in ("", READER) for name in asked)

    def searches(self):
        return len(re.findall(r" SRCH base=", self.output()))

    def filters(self):
        return re.findall(r' filter="(.*)"$', self.output(), re.MULTILINE)
