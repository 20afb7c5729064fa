#include "libvelder/Settings.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <functional>
#include <initializer_list>
#include <optional>
#include <utility>

#include "daemonbase/BRELConfigFile.h"
#include "libvelder/Dn.h"
#include "libvelder/Fold.h"

namespace velder {
namespace {

constexpr std::string_view kFileName = "LdapSetting.ini";
constexpr std::string_view kDomainPrefix = "Domain_";
const std::vector<std::string> kSections = {"LDAP_Setting", "NTLM", "Negotiate"};
constexpr uint32_t kMostSeconds = 3600;           // a worker thread waits that long for a server at most
constexpr uint32_t kMostMemorySeconds = 86400;    // a day: longer, and a mistake hides what the server knows
constexpr uint32_t kMostEntries = 1'000'000'000;  // fits the signed counts of the store
constexpr uint32_t kMostMinutes = 525'600;        // a year
constexpr size_t kLongestDnsName = 253;           // what DNS can carry
constexpr size_t kMostDomainDigits = 9;           // any such number fits an int

bool is_blank(char c) {
  return c == ' ' || c == '\t';
}

// Ini values keep the blanks behind them.
std::string_view trim(std::string_view text) {
  while (!text.empty() && is_blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_blank(text.back())) text.remove_suffix(1);
  return text;
}

std::vector<std::string> split_words(std::string_view text) {
  std::vector<std::string> words;
  for (text = trim(text); !text.empty(); text = trim(text)) {
    const size_t length = std::min(text.find_first_of(" \t"), text.size());
    words.emplace_back(text.substr(0, length));
    text.remove_prefix(length);
  }
  return words;
}

template <class Number>
std::optional<Number> read_number(std::string_view text, Number lowest, Number highest) {
  Number number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number < lowest || number > highest) {
    return std::nullopt;
  }
  return number;
}

// The keys of one section. Every look-up is remembered: what nobody asked for is reported. A key is refused
// once, for the first reason that was found.
class Section {
 public:
  Section(const ConfigFile& file, std::string name, ConfigFile::KeyMap keys)
      : file_(file), name_(std::move(name)), keys_(std::move(keys)) {}

  const std::string& name() const { return name_; }

  // Null when the key is not there.
  const std::string* find(std::string_view key) {
    asked_.emplace_back(key);
    const auto found = keys_.find(key);
    if (found == keys_.end()) return nullptr;
    found->second = trim(found->second);
    return &found->second;
  }

  std::string text(std::string_view key, const std::string& otherwise = {}) {
    const std::string* value = find(key);
    return value == nullptr || value->empty() ? otherwise : *value;
  }

  uint32_t number(std::string_view key, uint32_t otherwise, uint32_t lowest, uint32_t highest) {
    const std::string* value = find(key);
    if (value == nullptr) return otherwise;
    const std::optional<uint32_t> number = read_number<uint32_t>(*value, lowest, highest);
    if (!number) refuse(key, "a number from " + std::to_string(lowest) + " to " + std::to_string(highest));
    return number.value_or(otherwise);
  }

  template <class Value>
  Value choice(std::string_view key, Value otherwise,
               std::initializer_list<std::pair<std::string_view, Value>> choices) {
    const std::string* value = find(key);
    if (value == nullptr) return otherwise;
    std::string expected;
    for (const auto& [word, meaning] : choices) {
      if (ascii_iequals(*value, word)) return meaning;
      expected += (expected.empty() ? "" : ", ") + std::string(word);
    }
    refuse(key, "one of " + expected);
    return otherwise;
  }

  bool yes_or_no(std::string_view key, bool otherwise) {
    return choice(key, otherwise, {{"yes", true}, {"no", false}});
  }

  void refuse(std::string_view key, const std::string& expected) { complain(true, key, expected); }
  void warn(std::string_view key, const std::string& expected) { complain(false, key, expected); }
  bool refused(std::string_view key) const {
    return std::find(complained_.begin(), complained_.end(), key) != complained_.end();
  }

  // What was found, and what nobody asked for.
  std::vector<SettingsProblem> take_problems() {
    for (const auto& [key, value] : keys_) {
      if (std::find(asked_.begin(), asked_.end(), key) != asked_.end()) continue;
      const std::string meant = nearest_name(key, asked_);
      problems_.push_back(
          {false, file_.line_of(name_, key),
           where(printable(key)) + " is not known" + (meant.empty() ? "" : ", did you mean " + meant + "?")});
    }
    return std::move(problems_);
  }

 private:
  void complain(bool fatal, std::string_view key, const std::string& expected) {
    if (refused(key)) return;
    complained_.emplace_back(key);
    const auto found = keys_.find(key);
    const bool missing = found == keys_.end();
    const std::string given = missing ? "missing" : "\"" + printable(found->second) + "\"";
    problems_.push_back({fatal, file_.line_of(name_, missing ? "" : key),
                         where(key) + " is " + given + ", expected " + expected});
  }

  std::string where(std::string_view key) const { return "[" + printable(name_) + "] " + std::string(key); }

  const ConfigFile& file_;
  std::string name_;
  ConfigFile::KeyMap keys_;
  std::vector<std::string> asked_;
  std::vector<std::string> complained_;
  std::vector<SettingsProblem> problems_;
};

bool is_dns_name(std::string_view name) {
  if (name.empty() || name.size() > kLongestDnsName || name.front() == '.' || name.back() == '.')
    return false;
  if (name.find("..") != std::string_view::npos || !is_utf8(name)) return false;
  // Names beyond ASCII exist as dc components; what no such name holds would break user@domain and
  // DOMAIN\user.
  return std::none_of(name.begin(), name.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte <= 0x20 || byte == 0x7f ||
           std::string_view("\"*+,/:;<=>?@[\\]|").find(c) != std::string_view::npos;
  });
}

bool is_netbios_name(std::string_view name) {
  return std::none_of(name.begin(), name.end(), [](char c) {
    return static_cast<unsigned char>(c) <= 0x20 ||
           std::string_view("\"*/:<>?@\\|").find(c) != std::string_view::npos;
  });
}

bool is_port(std::string_view text) {
  return read_number<uint16_t>(text, 1, 65535).has_value();
}

// ldap:// or ldaps://, a host (IPv6 in brackets) and perhaps a port; where to search is not the URL's affair.
bool is_server_url(std::string_view url) {
  const size_t scheme_end = url.find("://");
  if (scheme_end == std::string_view::npos) return false;
  const std::string_view scheme = url.substr(0, scheme_end);
  if (!ascii_iequals(scheme, "ldap") && !ascii_iequals(scheme, "ldaps")) return false;
  url.remove_prefix(scheme_end + 3);
  if (url.ends_with('/')) url.remove_suffix(1);
  if (url.starts_with('[')) {
    const size_t close = url.find(']');
    if (close == std::string_view::npos || close == 1) return false;
    if (url.substr(1, close - 1).find_first_not_of("0123456789abcdefABCDEF:.") != std::string_view::npos)
      return false;
    const std::string_view rest = url.substr(close + 1);
    return rest.empty() || (rest.front() == ':' && is_port(rest.substr(1)));
  }
  const size_t colon = url.find(':');
  if (colon != std::string_view::npos && !is_port(url.substr(colon + 1))) return false;
  const std::string_view host = url.substr(0, colon);
  return !host.empty() && host.find_first_not_of(
                              "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                              "-._") == std::string_view::npos;
}

// service@host, or nothing.
bool is_service_name(std::string_view name) {
  const size_t at = name.find('@');
  return name.empty() ||
         (name.find_first_of(" \t/") == std::string_view::npos && at != std::string_view::npos && at > 0 &&
          at + 1 < name.size() && name.find('@', at + 1) == std::string_view::npos);
}

std::string first_label_upper(std::string_view dns_name) {
  return ascii_upper(dns_name.substr(0, dns_name.find('.')));
}

std::string base_dn_of(std::string_view dns_name) {
  std::string dn;
  while (!dns_name.empty()) {
    const size_t length = std::min(dns_name.find('.'), dns_name.size());
    dn += (dn.empty() ? "DC=" : ",DC=") + escape_dn_value(dns_name.substr(0, length));
    dns_name.remove_prefix(std::min(length + 1, dns_name.size()));
  }
  return dn;
}

void read_servers(Section& section, Source source, Domain& domain) {
  domain.servers = split_words(section.text("Servers"));
  const bool all_urls = std::all_of(domain.servers.begin(), domain.servers.end(), is_server_url);
  if (!all_urls || (domain.servers.empty() && source == Source::kLdap)) {
    section.refuse("Servers", "ldap://host[:port] or ldaps://host[:port], several with blanks between");
  }
  domain.start_tls = section.yes_or_no("StartTLS", domain.start_tls);
  const bool any_ldaps = std::any_of(
      domain.servers.begin(), domain.servers.end(),
      [](const std::string& url) { return ascii_iequals(std::string_view(url).substr(0, 8), "ldaps://"); });
  if (domain.start_tls && any_ldaps)
    section.refuse("StartTLS", "no, because a server is an ldaps:// one already");
}

void read_account(Section& section, const std::string& workdir, Domain& domain) {
  domain.bind_dn = section.text("BindDN");
  const std::string file = section.text("BindPasswordFile");
  // A bind with a name and no password succeeds at many servers and proves nothing.
  if (!domain.bind_dn.empty() && file.empty())
    section.refuse("BindPasswordFile", "a file, because BindDN is set");
  if (domain.bind_dn.empty() && !file.empty())
    section.refuse("BindDN", "a name, because BindPasswordFile is set");
  if (!file.empty()) domain.bind_password_file = path_in(workdir, file);
}

Domain read_domain(Section& section, const std::string& workdir, Source source) {
  Domain domain;
  domain.section = section.name();
  domain.dns_name = ascii_lower(section.text("DnsName"));
  if (!is_dns_name(domain.dns_name)) section.refuse("DnsName", "a DNS domain name such as corp.example.com");
  domain.netbios_name = section.text("NetbiosName", first_label_upper(domain.dns_name));
  if (!is_netbios_name(domain.netbios_name))
    section.refuse("NetbiosName", "a NetBIOS domain name such as CORP");
  read_servers(section, source, domain);
  domain.base_dn = section.text("BaseDN", base_dn_of(domain.dns_name));
  if (!section.refused("DnsName") && !parse_dn(domain.base_dn))
    section.refuse("BaseDN", "a distinguished name such as DC=corp,DC=example,DC=com");
  read_account(section, workdir, domain);
  const std::string ca_cert_file = section.text("CACertFile");
  if (!ca_cert_file.empty()) domain.ca_cert_file = path_in(workdir, ca_cert_file);
  domain.schema = section.choice(
      "Schema", domain.schema,
      {{"ad", Schema::kAd}, {"rfc2307", Schema::kRfc2307}, {"rfc2307bis", Schema::kRfc2307bis}});
  domain.connect_timeout = section.number("ConnectTimeout", domain.connect_timeout, 1, kMostSeconds);
  domain.operation_timeout = section.number("OperationTimeout", domain.operation_timeout, 1, kMostSeconds);
  return domain;
}

// The number of a section "Domain_<number>"; 0 for any other name, so that the numbers begin at 1.
int domain_number(std::string_view section) {
  if (!section.starts_with(kDomainPrefix)) return 0;
  section.remove_prefix(kDomainPrefix.size());
  if (section.size() > kMostDomainDigits || section.starts_with('0')) return 0;
  return read_number<int>(section, 1, 999'999'999).value_or(0);
}

class Loader {
 public:
  Loader(std::string workdir, const ConfigFile& file, SettingsReport& report)
      : workdir_(std::move(workdir)), file_(file), sections_(file.GetRawData()), report_(report) {}

  void load() {
    sort_sections();
    read_general();
    for (const auto& [number, name] : domain_sections_) read_domain_section(name);
    read_authentication();
    check_domains();
  }

 private:
  void add(bool fatal, int line, std::string text) {
    report_.problems.push_back({fatal, line, std::move(text)});
  }

  void sort_sections() {
    for (const auto& [name, keys] : sections_) {
      const int line = file_.line_of(name, "");
      if (const int number = domain_number(name); number > 0) {
        domain_sections_.emplace_back(number, name);
      } else if (ascii_iequals(std::string_view(name).substr(0, 6), "domain")) {
        add(true, line, "[" + printable(name) + "], expected Domain_<number> such as [Domain_1]");
      } else if (std::find(kSections.begin(), kSections.end(), name) == kSections.end()) {
        const std::string meant = nearest_name(name, kSections);
        add(false, line,
            "the section [" + printable(name) + "] is not known" +
                (meant.empty() ? "" : ", did you mean [" + meant + "]?"));
      }
    }
    std::sort(domain_sections_.begin(), domain_sections_.end());
  }

  void read_general() {
    read("LDAP_Setting", [this](Section& section) {
      settings_.source = section.choice("Source", domain_sections_.empty() ? Source::kLdif : Source::kLdap,
                                        {{"ldif", Source::kLdif}, {"ldap", Source::kLdap}});
      if (settings_.source == Source::kLdap && domain_sections_.empty()) {
        section.refuse("Source", "ldif, or a section [Domain_1] with the servers of the directory");
      }
      settings_.ldif_file = path_in(workdir_, section.text("LdifFile", "directory.ldif"));
      settings_.search_limit = section.number("SearchLimit", settings_.search_limit, 0, kMostEntries);
      settings_.shrink_guard = section.number("ShrinkGuard", settings_.shrink_guard, 0, 100);
      settings_.sync_time_limit = section.number("SyncTimeLimit", settings_.sync_time_limit, 0, kMostMinutes);
      settings_.refused_password_memory =
          section.number("RefusedPasswordMemory", settings_.refused_password_memory, 0, kMostMemorySeconds);
      // The daemon's own key, which it reads without a check: a strange value must not stop the start.
      const std::string* interval = section.find("SyncInterval");
      if (interval != nullptr && !read_number<uint32_t>(*interval, 1, kMostMinutes)) {
        section.warn("SyncInterval", "minutes from 1 to " + std::to_string(kMostMinutes));
      }
    });
  }

  void read_domain_section(const std::string& name) {
    read(name, [this](Section& section) {
      settings_.domains.push_back(read_domain(section, workdir_, settings_.source));
      const std::string& dns_name = settings_.domains.back().dns_name;
      const auto same = std::find_if(
          settings_.domains.begin(), settings_.domains.end() - 1,
          [&dns_name](const Domain& other) { return fold_text(other.dns_name) == fold_text(dns_name); });
      if (same != settings_.domains.end() - 1) {
        section.refuse("DnsName", "another name than that of [" + same->section + "]");
      }
    });
  }

  void read_authentication() {
    read("NTLM", [this](Section& section) {
      const std::string file = section.text("UserFile");
      if (!file.empty()) settings_.ntlm_user_file = path_in(workdir_, file);
    });
    read("Negotiate", [this](Section& section) {
      const std::string keytab = section.text("Keytab");
      if (!keytab.empty()) settings_.negotiate_keytab = path_in(workdir_, keytab);
      settings_.negotiate_service = section.text("Service");
      if (!is_service_name(settings_.negotiate_service)) {
        section.refuse("Service", "one name such as HTTP@proxy.example.com");
      }
      settings_.negotiate_replay_cache = section.yes_or_no("ReplayCache", settings_.negotiate_replay_cache);
    });
  }

  // NETBIOS\user cannot be told apart then; user@dns.domain still can.
  void check_domains() {
    for (size_t i = 0; i < settings_.domains.size(); ++i) {
      for (size_t j = 0; j < i; ++j) {
        const Domain& one = settings_.domains[j];
        const Domain& other = settings_.domains[i];
        if (!ascii_iequals(one.netbios_name, other.netbios_name)) continue;
        add(false, file_.line_of(other.section, "NetbiosName"),
            "[" + one.section + "] and [" + other.section + "] have the same NetbiosName " +
                printable(one.netbios_name));
      }
    }
  }

  void read(const std::string& name, const std::function<void(Section&)>& reader) {
    const auto found = sections_.find(name);
    Section section(file_, name, found == sections_.end() ? ConfigFile::KeyMap() : found->second);
    reader(section);
    for (SettingsProblem& problem : section.take_problems()) report_.problems.push_back(std::move(problem));
  }

  std::string workdir_;
  const ConfigFile& file_;
  ConfigFile::SectionMap sections_;
  std::vector<std::pair<int, std::string>> domain_sections_;
  SettingsReport& report_;
  Settings& settings_ = report_.settings;
};

// A file that cannot be read has no other problems; of one with lines that are no ini syntax everything else
// is looked at all the same.
void examine_file(const std::string& workdir, SettingsReport& report) {
  struct stat status {};
  const bool exists = stat(report.file.c_str(), &status) == 0 || errno != ENOENT;
  report.missing = !exists;
  const bool regular = exists && S_ISREG(status.st_mode);  // a pipe would wait for a writer
  const ConfigFile file(regular ? report.file : std::string());
  if (exists && !(regular && file.ok())) {
    report.problems.push_back({true, 0, "cannot be read, expected a readable file or none"});
    return;
  }
  for (const ConfigFile::Remark& wrong : file.syntax_errors()) {
    report.problems.push_back(
        {true, wrong.line, wrong.text + ", expected a [section], then key = value lines"});
  }
  Loader(workdir, file, report).load();
  for (const ConfigFile::Remark& again : file.repeated_keys()) {
    report.problems.push_back({false, again.line, printable(again.text, 300)});
  }
}

}  // namespace

std::string path_in(const std::string& workdir, const std::string& file) {
  return file.starts_with('/') ? file : workdir + "/" + file;
}

SettingsReport examine_settings(const std::string& workdir) {
  SettingsReport report;
  report.file = path_in(workdir, std::string(kFileName));
  examine_file(workdir, report);
  return report;
}

Result<Settings> load_settings(const std::string& workdir) {
  SettingsReport report = examine_settings(workdir);
  const std::string prefix = report.file + ": ";
  for (const SettingsProblem& problem : report.problems) {
    const bool names_a_key = problem.text.starts_with('[') || problem.line == 0;
    std::string text =
        prefix + (names_a_key ? "" : "line " + std::to_string(problem.line) + ": ") + problem.text;
    if (problem.fatal) return tl::unexpected(Error{1, std::move(text)});
    report.settings.warnings.push_back(std::move(text));
  }
  return std::move(report.settings);
}

std::string netbios_name_of(const Settings& settings, std::string_view dns_domain) {
  const std::string folded = fold_text(dns_domain);
  for (const Domain& domain : settings.domains) {
    if (fold_text(domain.dns_name) == folded) return domain.netbios_name;
  }
  return first_label_upper(dns_domain);
}

std::string domain_of_entry(const Settings& settings, std::string_view dn) {
  std::string dns = dns_domain_of(dn);
  if (!dns.empty() || settings.source != Source::kLdap) return dns;
  const std::string key = normalize_dn(dn);
  size_t longest = 0;
  for (const Domain& domain : settings.domains) {
    const std::string base = normalize_dn(domain.base_dn);
    if (base.size() < longest || !is_below(key, base)) continue;
    longest = base.size();
    dns = domain.dns_name;
  }
  return dns;
}

}  // namespace velder
