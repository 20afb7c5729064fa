// Two domains on one directory server: corp as RFC 2307 has it, lab as Active Directory does. Entries of corp
// are found by their DN in one search for many; those of lab, where no entry has a distinguishedName, one by
// one.
#pragma once

#include <string>

inline constexpr char kLiveSchema[] = R"(
attributetype ( 2.25.904.1.1 NAME 'sAMAccountName' EQUALITY caseIgnoreMatch SUBSTR caseIgnoreSubstringsMatch SYNTAX 1.3.6.1.4.1.1466.115.121.1.15 SINGLE-VALUE )
attributetype ( 2.25.904.1.2 NAME 'userPrincipalName' EQUALITY caseIgnoreMatch SUBSTR caseIgnoreSubstringsMatch SYNTAX 1.3.6.1.4.1.1466.115.121.1.15 SINGLE-VALUE )
attributetype ( 2.25.904.1.3 NAME 'userAccountControl' EQUALITY integerMatch SYNTAX 1.3.6.1.4.1.1466.115.121.1.27 SINGLE-VALUE )
attributetype ( 2.25.904.1.4 NAME 'primaryGroupID' EQUALITY integerMatch SYNTAX 1.3.6.1.4.1.1466.115.121.1.27 SINGLE-VALUE )
attributetype ( 2.25.904.1.5 NAME 'objectSid' EQUALITY octetStringMatch SYNTAX 1.3.6.1.4.1.1466.115.121.1.40 SINGLE-VALUE )
attributetype ( 2.25.904.1.6 NAME 'memberOf' EQUALITY distinguishedNameMatch SYNTAX 1.3.6.1.4.1.1466.115.121.1.12 )
objectclass ( 2.25.904.2.1 NAME 'user' SUP top STRUCTURAL MAY ( cn ) )
objectclass ( 2.25.904.2.2 NAME 'computer' SUP user STRUCTURAL )
objectclass ( 2.25.904.2.3 NAME 'group' SUP top STRUCTURAL MAY ( cn ) )
)";

inline constexpr char kLiveSuffix[] = "dc=example,dc=com";

// Of "Many" members there are more than one question names.
inline constexpr int kManyUsers = 120;

inline std::string live_ldif() {
  std::string ldif = R"(dn: dc=example,dc=com
objectClass: domain
dc: example

dn: dc=corp,dc=example,dc=com
objectClass: domain
dc: corp

dn: ou=people,dc=corp,dc=example,dc=com
objectClass: organizationalUnit
ou: people

dn: ou=old,dc=corp,dc=example,dc=com
objectClass: organizationalUnit
ou: old

dn: uid=anna,ou=people,dc=corp,dc=example,dc=com
objectClass: inetOrgPerson
uid: anna
cn: Anna Berg
sn: Berg
userPassword: anna-secret

dn: uid=Bert,ou=people,dc=corp,dc=example,dc=com
objectClass: posixAccount
objectClass: account
uid: Bert
cn: Bert Zorn
userPassword: bert-secret

dn: uid=carla,ou=people,dc=corp,dc=example,dc=com
objectClass: inetOrgPerson
uid: carla
cn: Anna Berg
sn: C
memberOf: cn=said,dc=corp,dc=example,dc=com
memberOf: cn=gone,dc=corp,dc=example,dc=com

dn: uid=twin,ou=people,dc=corp,dc=example,dc=com
objectClass: inetOrgPerson
uid: twin
cn: Twin One
sn: T

dn: uid=twin,ou=old,dc=corp,dc=example,dc=com
objectClass: inetOrgPerson
uid: twin
cn: Twin Two
sn: T

dn: uid=shared,ou=people,dc=corp,dc=example,dc=com
objectClass: inetOrgPerson
uid: shared
cn: Shared
sn: S
userPassword: corp-secret

dn: uid=off,ou=people,dc=corp,dc=example,dc=com
objectClass: inetOrgPerson
uid: off
cn: Off
sn: O
userAccountControl: 514
userPassword: off-secret

dn: uid=o\2C*(d)\5C\22d,ou=people,dc=corp,dc=example,dc=com
objectClass: inetOrgPerson
uid: o,*(d)\"d
cn: Odd (one), * \
sn: O
userPassword: odd-secret

dn:: dWlkPWrDtnJnLG91PXBlb3BsZSxkYz1jb3JwLGRjPWV4YW1wbGUsZGM9Y29t
objectClass: inetOrgPerson
uid:: asO2cmc=
cn:: SsO2cmcgU2NobWl0dA==
sn: S
userPassword: joerg-secret

dn: cn=posix,dc=corp,dc=example,dc=com
objectClass: posixGroup
cn: posix
gidNumber: 1
memberUid: Bert
memberUid: twin
memberUid: nobody

dn: cn=inner,dc=corp,dc=example,dc=com
objectClass: groupOfNames
cn: inner
member: uid=anna,ou=people,dc=corp,dc=example,dc=com
member: cn=Lena Meyer,dc=lab,dc=example,dc=com
member: uid=missing,ou=people,dc=corp,dc=example,dc=com

dn: cn=Outer,dc=corp,dc=example,dc=com
objectClass: groupOfUniqueNames
cn: Outer
uniqueMember: cn=inner,dc=corp,dc=example,dc=com
uniqueMember: cn=posix,dc=corp,dc=example,dc=com

dn: cn=ring one,dc=corp,dc=example,dc=com
objectClass: groupOfNames
cn: ring one
member: cn=ring two,dc=corp,dc=example,dc=com
member: cn=Outer,dc=corp,dc=example,dc=com

dn: cn=ring two,dc=corp,dc=example,dc=com
objectClass: groupOfNames
cn: ring two
member: CN=Ring One, DC=Corp, DC=Example, DC=com
member: cn=ring two,dc=corp,dc=example,dc=com

dn: cn=said,dc=corp,dc=example,dc=com
objectClass: groupOfNames
cn: said
member: cn=nobody,dc=corp,dc=example,dc=com
memberOf: cn=above said,dc=corp,dc=example,dc=com

dn: cn=above said,dc=corp,dc=example,dc=com
objectClass: groupOfNames
cn: above said
member: cn=nobody,dc=corp,dc=example,dc=com

dn: cn=Staff,dc=corp,dc=example,dc=com
objectClass: groupOfNames
cn: Staff
member: uid=shared,ou=people,dc=corp,dc=example,dc=com

dn: dc=lab,dc=example,dc=com
objectClass: domain
dc: lab

dn: cn=Lena Meyer,dc=lab,dc=example,dc=com
objectClass: user
cn: Lena Meyer
sAMAccountName: lena
userPrincipalName: l.meyer@example.com
objectSid: S-1-5-21-1-2-3-1105
primaryGroupID: 513
userPassword: lena-secret

dn: cn=Shared,dc=lab,dc=example,dc=com
objectClass: user
cn: Shared
sAMAccountName: shared
objectSid: S-1-5-21-9-9-9-1106
primaryGroupID: 513
userPassword: lab-secret

dn: cn=PC1,dc=lab,dc=example,dc=com
objectClass: user
objectClass: computer
cn: PC1
sAMAccountName: PC1$

dn: cn=Contact,dc=lab,dc=example,dc=com
objectClass: person
cn: Contact
sn: C

dn: cn=Domain Users,dc=lab,dc=example,dc=com
objectClass: group
cn: Domain Users
objectSid:: AQUAAAAAAAUVAAAAAQAAAAIAAAADAAAAAQIAAA==

dn: cn=Staff,dc=lab,dc=example,dc=com
objectClass: group
cn: Staff
member: cn=PC1,dc=lab,dc=example,dc=com
member: cn=Domain Users,dc=lab,dc=example,dc=com
member: cn=Contact,dc=lab,dc=example,dc=com

dn: cn=Many,dc=corp,dc=example,dc=com
objectClass: groupOfNames
cn: Many
)";
  std::string users;
  for (int number = 100; number < 100 + kManyUsers; ++number) {
    const std::string name = "m" + std::to_string(number), dn = "uid=" + name + ",dc=corp,dc=example,dc=com";
    ldif += "member: " + dn + "\n";
    users += "\ndn: " + dn + "\nobjectClass: inetOrgPerson\ncn: " + name + "\nsn: M\nuid: " + name + "\n";
  }
  return ldif + users;
}
