// Two domains on one directory server: corp as RFC 2307 has it, lab as Active Directory does. Entries of corp
// are found by their DN in one search for many; those of lab, where no entry has a distinguishedName, one by
// one.
#pragma once

#include <string>

#include "tests/unit/libvelder/SampleDirectory.h"

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

inline constexpr char kLiveEntries[] = R"(dc=example,dc=com|domain|dc: example
dc=corp,dc=example,dc=com|domain|dc: corp
ou=people%c|organizationalUnit|ou: people
ou=old%c|organizationalUnit|ou: old
uid=anna,ou=people%c|inetOrgPerson|uid: anna|cn: Anna Berg|userPassword: anna-secret
uid=Bert,ou=people%c|posixAccount|uid: Bert|cn: Bert Zorn
uid=carla,ou=people%c|inetOrgPerson|uid: carla|cn: Anna Berg|memberOf: cn=said%c|memberOf: cn=gone%c
uid=twin,ou=people%c|inetOrgPerson|uid: twin|cn: Twin One
uid=twin,ou=old%c|inetOrgPerson|uid: twin|cn: Twin Two
uid=shared,ou=people%c|inetOrgPerson|uid: shared|cn: Shared|userPassword: corp-secret
uid=off,ou=people%c|inetOrgPerson|uid: off|cn: Off|userAccountControl: 514|userPassword: off-secret
uid=o\2C*(d)\5C\22d,ou=people%c|inetOrgPerson|uid: o,*(d)\"d|cn: Odd (one), * \
uid=jörg,ou=people%c|inetOrgPerson|uid: jörg|cn: Jörg Schmitt
cn=posix%c|posixGroup|cn: posix|gidNumber: 1|memberUid: Bert|memberUid: twin|memberUid: nobody
cn=inner%c|groupOfNames|cn: inner|member: uid=anna,ou=people%c|member: cn=Lena Meyer%l|member: uid=missing%c
cn=Outer%c|groupOfUniqueNames|cn: Outer|uniqueMember: cn=inner%c|uniqueMember: cn=posix%c
cn=ring one%c|groupOfNames|cn: ring one|member: cn=ring two%c|member: cn=Outer%c
cn=ring two%c|groupOfNames|cn: ring two|member: CN=Ring One, DC=Corp, DC=Example, DC=com|member: cn=ring two%c
cn=said%c|groupOfNames|cn: said|member: cn=nobody%c|memberOf: cn=above said%c
cn=above said%c|groupOfNames|cn: above said|member: cn=nobody%c
cn=Staff%c|groupOfNames|cn: Staff|member: uid=shared,ou=people%c
dc=lab,dc=example,dc=com|domain|dc: lab
cn=Lena Meyer%l|user|cn: Lena Meyer|sAMAccountName: lena|userPrincipalName: l.meyer@example.com
  |objectSid: S-1-5-21-1-2-3-1105|primaryGroupID: 513|userPassword: lena-secret
cn=Shared%l|user|cn: Shared|sAMAccountName: shared|objectSid: S-1-5-21-9-9-9-1106|primaryGroupID: 513
cn=PC1%l|computer|cn: PC1|sAMAccountName: PC1$
cn=Contact%l|person|cn: Contact
cn=Domain Users%l|group|cn: Domain Users|objectSid:: AQUAAAAAAAUVAAAAAQAAAAIAAAADAAAAAQIAAA==
cn=Staff%l|group|cn: Staff|member: cn=PC1%l|member: cn=Domain Users%l|member: cn=Contact%l
)";

inline std::string live_ldif() {
  std::string users, many = "cn=Many%c|groupOfNames|cn: Many";
  for (int number = 100; number < 100 + kManyUsers; ++number) {
    const std::string name = "m" + std::to_string(number);
    users += "uid=" + name + "%c|inetOrgPerson|cn: " + name + "|uid: " + name + "\n";
    many += "|member: uid=" + name + "%c";
  }
  return ldif_of(kLiveEntries + users + many + "\n");
}
