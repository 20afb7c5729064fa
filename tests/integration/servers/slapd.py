"""A slapd of the tests' own: its files on the RAM disk, ldap and ldaps on ports of its own, filled by slapadd.

It limits ordinary searches to 500 entries and pages as Active Directory does, locks an account after three wrong
passwords, keeps memberOf, shows the directory to the reading account only, and writes every operation to its log.
"""

import itertools
import os
import re
import subprocess

from harness.directory import ldif_line
from servers.certificates import authority
from servers.process import ServerProcess, need_programs, new_folder, run

SUFFIX = "dc=corp,dc=test"
PEOPLE, GROUPS = f"ou=people,{SUFFIX}", f"ou=groups,{SUFFIX}"
READER, READER_PASSWORD = f"cn=reader,{SUFFIX}", "may read"
ADMIN, ADMIN_PASSWORD = f"cn=admin,{SUFFIX}", "may write"
SIZE_LIMIT = 500
LOCKED_AFTER = 3

_CONFIGURATION = """
include /etc/ldap/schema/core.schema
include /etc/ldap/schema/cosine.schema
include /etc/ldap/schema/nis.schema
include /etc/ldap/schema/inetorgperson.schema
modulepath /usr/lib/ldap
moduleload back_mdb
moduleload memberof
moduleload ppolicy
pidfile {folder}/pid
TLSCACertificateFile {ca}
TLSCertificateFile {certificate}
TLSCertificateKeyFile {key}
sizelimit size.soft={limit} size.hard={limit} size.prtotal=unlimited
threads 4
tool-threads 2
database mdb
maxsize 2147483648
envflags nosync
suffix "{suffix}"
rootdn "{admin}"
rootpw "{admin_password}"
directory {folder}/db
index objectClass,uid,cn,member,uniqueMember,memberUid eq
overlay memberof
memberof-group-oc groupOfNames
overlay ppolicy
ppolicy_default "cn=lockout,{suffix}"
ppolicy_use_lockout
access to attrs=userPassword by anonymous auth by * none
access to dn.base="" by * read
access to * by dn.exact="{reader}" read by * none
"""

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


class Slapd(ServerProcess):
    """`content` is the LDIF of the directory below the skeleton; `names` what its certificate says."""

    def __init__(self, content, names="IP:127.0.0.1", authority_name="trusted", days=30):
        need_programs("slapd", "slapadd", "ldapmodify", "openssl")
        number = next(_numbers)
        self.folder = new_folder(f"slapd{number}")
        self.port, self.tls_port = 3890 + number, 6360 + number
        self.url, self.tls_url = f"ldap://127.0.0.1:{self.port}", f"ldaps://127.0.0.1:{self.tls_port}"
        issuer = authority(authority_name)
        self.ca = issuer.certificate
        certificate, key = issuer.issue(names, days)
        self.configuration = os.path.join(self.folder, "slapd.conf")
        with open(self.configuration, "w", encoding="utf-8") as file:
            file.write(_CONFIGURATION.format(
                folder=self.folder, ca=self.ca, certificate=certificate, key=key, limit=SIZE_LIMIT, suffix=SUFFIX,
                admin=ADMIN, admin_password=ADMIN_PASSWORD, reader=READER))
        super().__init__(["slapd", "-f", self.configuration, "-d", "stats", "-h", f"{self.url}/ {self.tls_url}/"],
                         (self.port, self.tls_port), os.path.join(self.folder, "log"))
        self.fill(content)

    def fill(self, content):
        """Replaces the whole directory; not while the server runs."""
        new_folder(os.path.join(self.folder, "db"))
        run("slapadd", "-q", "-f", self.configuration, input=skeleton() + content)

    def refill(self, content):
        self.stop()
        self.fill(content)
        self.start()

    def change(self, ldif):
        """Over the wire, as the administrator; entries without a changetype are added."""
        run("ldapmodify", "-a", "-x", "-H", self.url, "-D", ADMIN, "-w", ADMIN_PASSWORD, input=ldif)

    def set_password(self, dn, password):
        self.change(f"{ldif_line('dn', dn)}changetype: modify\nreplace: userPassword\n"
                    f"{ldif_line('userPassword', password)}")

    def operational(self, dn, attribute):
        """The values of an operational attribute, as the administrator sees them."""
        found = subprocess.run(["ldapsearch", "-x", "-LLL", "-o", "ldif-wrap=no", "-H", self.url, "-D", ADMIN,
                                "-w", ADMIN_PASSWORD, "-s", "base", "-b", dn, attribute],
                               capture_output=True, text=True, check=True).stdout
        return [line.partition(": ")[2] for line in found.splitlines() if line.startswith(f"{attribute}: ")]

    # What the server's log tells. A line of a request stands there before its answer goes out.

    def binds(self, dn=None):
        """How many simple binds there were, by anybody but the reader or only as `dn`."""
        asked = re.findall(r'BIND dn="(.*)" method=128$', self.output(), re.MULTILINE)
        return sum(name == dn if dn is not None else name not in ("", READER) for name in asked)

    def searches(self):
        return len(re.findall(r" SRCH base=", self.output()))

    def filters(self):
        return re.findall(r' filter="(.*)"$', self.output(), re.MULTILINE)
