// The directory library: users, groups, memberships and passwords of one or more directory domains.
//
// Look-ups are answered from a local snapshot (a SQLite file in the working directory) that is built
// from an LDIF file (RFC 2849) or from directory servers. All calls may be made from any number of
// threads at once. After a fork the child opens everything anew at its first call.
//
// Calls that return int give the LDAP result codes of RFC 4511: kDirectorySuccess and so on. A search
// without a hit is a success with an empty list. A name of more than 64 KiB is nobody's and in no other.
// Lists are appended to and owned by the caller. Nothing throws.
#pragma once

#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// One user entry. upn is empty when the entry has no principal name.
struct UserMeta {
  std::string dn;
  std::string cn;
  std::string uid;
  std::string upn;
};

// One group entry.
struct GroupMeta {
  std::string dn;
  std::string cn;
};

// The member users of one group, each as "uid@dns.domain".
struct GroupUserMeta {
  std::string group_dn;
  std::list<std::string> users;
};

// What get_user_info and get_user_groups give of one user, in memory that the library keeps.
struct KnownUser {
  struct Group {
    std::string_view dn;
    std::string_view cn;
  };
  std::string_view domain_dns;
  std::string_view uid;
  std::string_view cn;
  std::string_view dn;
  std::string_view upn;
  std::vector<Group> groups;
};

// Result codes of the calls below (RFC 4511, appendix A, and the client library's own 81 and 85).
enum DirectoryResult : int {
  kDirectorySuccess = 0,
  kDirectoryOther = 1,
  kDirectorySizeLimit = 4,      // the list holds the first SearchLimit hits
  kDirectoryNoSuchObject = 32,  // no such user or group, or a name that more than one entry has
  kDirectoryBadCredentials = 49,
  kDirectoryServerDown = 81,
  kDirectoryTimeout = 85,
};

// Most of the interface is static: one directory per process. An object is needed only for an NTLM
// exchange, whose state it keeps; one object serves one exchange and one thread at a time.
class LdapModule {
 public:
  LdapModule();
  ~LdapModule();
  LdapModule(const LdapModule&) = delete;
  LdapModule& operator=(const LdapModule&) = delete;

  // Reads LdapSetting.ini in `workdir` and, for the ldif source, brings the snapshot up to date with
  // the LDIF file; for the ldap source neither a server nor a snapshot is needed. Called once in the parent
  // before any fork; leaves nothing open. 0, or a result code after one log line that names the file, the
  // line or key, and what was expected. An empty `workdir` means the root directory. `flag` is accepted and
  // not used.
  static int initialize(const char* workdir, bool flag);

  // Makes the next look-ups use the newest snapshot (for the ldif source after bringing it up to date);
  // look-ups under way finish on the old one. When the new data is bad the old stays in use and one line
  // is logged. 0 or a result code.
  static int load_db_cache();

  // For a program that wants to do something else meanwhile: `hook` is called, by the thread that made the
  // call, before work that may take long: a directory server, a new snapshot to open or another thread that
  // opens it to wait for, a password hash that is costly on purpose, a search, a user of very many groups, a
  // logon. Until then a call only works in memory, for microseconds, unless the memory is that of a file
  // whose pages are cold. A call may call it several times. It must not throw or call the library. To be set
  // before other threads run; null, as in the beginning, for none.
  static void call_before_long_work(void (*hook)());

  // flag 1: `name` is a whole cn, uid or upn (groups: cn). flag 0: it occurs anywhere inside them; the
  // empty name finds everything. Letter case never matters. Ordered by cn, then dn.
  static int search_users(const std::string& name, int flag, std::list<UserMeta>& users);
  static int search_groups(const std::string& name, int flag, std::list<GroupMeta>& groups);

  // `user` is DOMAIN\uid, uid@dns.domain, a principal name, a DN, or a bare uid that only one domain has.
  // Direct, nested and primary groups, ordered by cn, then dn.
  static int get_user_groups(const std::string& user, std::list<GroupMeta>& groups);

  // The groups nested inside the named group at any depth. flag 1: `group` is a whole cn or a DN;
  // flag 0: every group whose cn contains it.
  static int get_group_groups(const std::string& group, int flag, std::list<GroupMeta>& groups);

  // One record per given group that exists (a DN when is_dn is 1, else a cn), nested members included,
  // in the given order. 32 when none of them exists; 4 after some two million listed users.
  static int get_all_users(std::list<std::string> groups, int is_dn, std::list<GroupUserMeta>& group_users);

  // Fills the five strings of one user; upn stays empty when the entry has none.
  static int get_user_info(const std::string& user, std::string& domain_dns, std::string& uid,
                           std::string& cn, std::string& dn, std::string& upn);

  // Both in one, of one snapshot, without a copy. Null when the snapshot does not have the user, for whatever
  // reason: then the two calls above answer.
  static std::shared_ptr<const KnownUser> get_known_user(const std::string& user);

  // True only when the password was proven. `reserved` is accepted and not used.
  static bool validate_credential(const char* user, const char* password, void* reserved);

  // One Negotiate step. `token` is base64 text; `clientinfo` gets the client's principal, `returnmsg`
  // the base64 answer token, `neednego` whether another leg is needed. True when the client is proven.
  static bool validate_negotiate_message(const char* token, std::string& clientinfo, std::string& returnmsg,
                                         bool& neednego);

  // The DNS name made of the DC= components of `dn`, "" when there are none or `dn` is null.
  static std::string dn_to_dns_name(const char* dn);

  // One NTLM step of the exchange that this object serves. `out_len` is the capacity of `out` on entry
  // and the number of bytes written on return. 1: a challenge was written; 0: the user is proven and
  // `out` holds DOMAIN\uid; -1: refused, out_len 0.
  int validate_ntlm_message(const char* client_ip, char* token, int token_len, char* out, int& out_len);

 private:
  struct Exchange;
  std::unique_ptr<Exchange> exchange_;
};

// Prepares the LDAP client layer for use from several threads: checks that the linked library declares
// its sessions and operations thread-safe and sets the process-wide client options. Called once before
// any fork with (nullptr, 1). 0, or -1 when the library cannot be shared between threads.
int prldap_install_routines(void* ld, int shared);
