// The directory library's part of LdapSetting.ini. Every key is optional; the defaults stand here.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "daemonbase/SettingsProblem.h"
#include "libvelder/Error.h"

namespace velder {

enum class Source { kLdif, kLdap };
enum class Schema { kAd, kRfc2307, kRfc2307bis };

// One section Domain_<number>.
struct Domain {
  std::string section;
  std::string dns_name;      // lower case, never empty
  std::string netbios_name;  // as written; else the first label of dns_name in upper case
  std::vector<std::string>
      servers;                     // ldap:// or ldaps:// URLs, the preferred one first; may be empty for ldif
  std::string base_dn;             // never empty
  std::string bind_dn;             // empty: read anonymously; else bind_password_file is set, too
  std::string bind_password_file;  // complete path
  bool start_tls = false;
  std::string ca_cert_file;  // complete path; empty: the system's trusted CAs
  Schema schema = Schema::kAd;
  uint32_t connect_timeout = 3;     // seconds, at least 1
  uint32_t operation_timeout = 10;  // seconds, at least 1

  bool operator==(const Domain&) const = default;
};

struct Settings {
  Source source = Source::kLdif;
  std::string ldif_file;                  // complete path
  uint32_t search_limit = 1000;           // entries of one search; 0: no limit
  uint32_t shrink_guard = 20;             // percent; 100: off
  uint32_t sync_time_limit = 120;         // minutes; 0: none
  uint32_t refused_password_memory = 60;  // seconds; 0: off
  std::vector<Domain> domains;            // by the number of the section; dns_name is unique
  std::string ntlm_user_file;             // complete path or empty
  std::string negotiate_keytab;           // complete path or empty
  std::string negotiate_service;          // such as HTTP@proxy.example.com; empty: any in the keytab
  bool negotiate_replay_cache = true;
  std::vector<std::string> warnings;  // one line each, for the log: keys and sections that nobody reads, ...

  bool operator==(const Settings&) const = default;
};

// Reads `workdir`/LdapSetting.ini; a missing file gives the defaults. Files named in it are relative to
// `workdir` and not opened here. The error names file, section, key, the value and what was expected.
Result<Settings> load_settings(const std::string& workdir);

struct SettingsReport {
  std::string file;  // complete path
  bool missing = false;
  Settings settings;  // what could be read, defaults for the rest; without `warnings`
  std::vector<SettingsProblem> problems;
};

// The same for whoever wants all problems at once: load_settings fails with the first fatal one, the others
// are its warnings.
SettingsReport examine_settings(const std::string& workdir);

// The NetBIOS name of the domain `dns_domain` (any letter case): from its section, else its first label in
// upper case.
std::string netbios_name_of(const Settings& settings, std::string_view dns_domain);

// The DNS domain of the entry with this DN: what its DC= components say. An entry without any in the tree of
// a domain of servers belongs to that domain (of a tree and one below it the lower one); else "".
std::string domain_of_entry(const Settings& settings, std::string_view dn);

// `file` when it is an absolute path, else below `workdir`; the empty `workdir` is the root directory.
std::string path_in(const std::string& workdir, const std::string& file);

}  // namespace velder
