// make_ldif USERS GROUPS > FILE: writes a directory of two domains for measurements, always the same one for
// the same numbers.
//
// Three of four users and groups are in corp.example, the rest in lab.example. Users are user0000000 and so
// on (over both domains), their passwords "Secret-0000000" and so on, stored as {SSHA}. A user is in about
// ten groups of the own domain, popular ones more often, and has "Domain Users" as the primary group. Groups
// are nested eight to a group, and the last one of each domain contains the first: a cycle.
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr size_t kLineLength = 76;  // where directories fold
constexpr size_t kBufferBytes = 1 << 20;
constexpr uint32_t kDomainUsersRid = 513;
constexpr uint32_t kFirstRid = 1000;
constexpr uint32_t kNested = 8;

constexpr std::array<std::string_view, 12> kFirstNames = {"Anna", "Ben",  "Carla", "David", "Elif", "Franz",
                                                          "Gül",  "Hugo", "Inès",  "Jörg",  "Kim",  "Łukasz"};
constexpr std::array<std::string_view, 12> kLastNames = {"Baker",   "Costa",  "Dąbrowski", "Evans",
                                                         "Fischer", "García", "Hansen",    "Ivanov",
                                                         "Keller",  "Müller", "Novak",     "Rossi"};
constexpr std::array<std::string_view, 6> kUnits = {"Sales",   "Finance", "Research",
                                                    "Support", "Legal",   "Production"};

// Fixed sequence of well-mixed numbers.
class Numbers {
 public:
  uint32_t below(uint32_t bound) {
    state_ += 0x9e3779b97f4a7c15;
    uint64_t mixed = state_;
    mixed = (mixed ^ mixed >> 30) * 0xbf58476d1ce4e5b9;
    mixed = (mixed ^ mixed >> 27) * 0x94d049bb133111eb;
    return static_cast<uint32_t>((mixed ^ mixed >> 31) % bound);
  }

 private:
  uint64_t state_ = 1;
};

class Output {
 public:
  ~Output() { flush(); }
  bool ok() const { return ok_; }

  void line(std::string_view name, std::string_view value) {
    const bool plain = std::none_of(value.begin(), value.end(),
                                    [](char c) { return static_cast<unsigned char>(c) - 32U >= 95U; });
    line_.assign(name);
    line_ += plain ? ": " : ":: ";
    if (plain) {
      line_ += value;
    } else {
      append_base64(value);
    }
    fold();
  }

  void end_record() {
    buffer_ += '\n';
    if (buffer_.size() >= kBufferBytes) flush();
  }

  void flush() {
    ok_ = std::fwrite(buffer_.data(), 1, buffer_.size(), stdout) == buffer_.size() &&
          std::fflush(stdout) == 0 && ok_;
    buffer_.clear();
  }

 private:
  void append_base64(std::string_view value) {
    const size_t start = line_.size();
    line_.resize(start + (value.size() + 2) / 3 * 4 + 1);
    const int length =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(line_.data() + start),
                        reinterpret_cast<const unsigned char*>(value.data()), static_cast<int>(value.size()));
    line_.resize(start + static_cast<size_t>(length));
  }

  void fold() {
    std::string_view rest = line_;
    buffer_ += rest.substr(0, kLineLength);
    for (rest.remove_prefix(std::min(kLineLength, rest.size())); !rest.empty();
         rest.remove_prefix(std::min(kLineLength - 1, rest.size()))) {
      buffer_ += "\n ";
      buffer_ += rest.substr(0, kLineLength - 1);
    }
    buffer_ += '\n';
  }

  std::string line_;
  std::string buffer_;
  bool ok_ = true;
};

std::string digits(uint32_t number) {
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), "%07u", number);
  return text.data();
}

std::string base64(std::string_view bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
  const int length =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                      reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
  text.resize(static_cast<size_t>(length));
  return text;
}

std::string ssha(const std::string& password, const std::string& salt) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  const std::string salted = password + salt;
  if (EVP_Digest(salted.data(), salted.size(), digest.data(), &size, EVP_sha1(), nullptr) != 1) std::abort();
  return "{SSHA}" + base64(std::string(reinterpret_cast<const char*>(digest.data()), size) + salt);
}

void append_little_endian(std::string& bytes, uint32_t number) {
  for (int shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(number >> shift & 0xff);
}

// S-1-5-21-7001-7002-<domain>-<rid> in its binary form.
std::string object_sid(uint32_t domain, uint32_t rid) {
  std::string sid("\x01\x05\x00\x00\x00\x00\x00\x05", 8);
  for (const uint32_t part : {21U, 7001U, 7002U, domain, rid}) append_little_endian(sid, part);
  return sid;
}

struct DomainPlan {
  uint32_t number;
  std::string_view dns_name;
  std::string_view base_dn;
  uint32_t first_user;
  uint32_t users;
  uint32_t groups;
};

std::string common_name(uint32_t user) {
  return std::string(kFirstNames[user % kFirstNames.size()]) + " " +
         std::string(kLastNames[user / kFirstNames.size() % kLastNames.size()]) + " " + digits(user);
}

std::string user_dn(const DomainPlan& domain, uint32_t user) {
  return "CN=" + common_name(user) + ",OU=" + std::string(kUnits[user % kUnits.size()]) + ",OU=People," +
         std::string(domain.base_dn);
}

std::string group_name(uint32_t group) {
  return std::string(kUnits[group % kUnits.size()]) + " Group " + digits(group);
}

std::string group_dn(const DomainPlan& domain, uint32_t group) {
  return "CN=" + group_name(group) + ",OU=Groups," + std::string(domain.base_dn);
}

std::vector<uint32_t> pick_groups(const DomainPlan& domain, Numbers& numbers) {
  std::vector<uint32_t> groups;
  const uint32_t wanted = std::min(domain.groups, 6 + numbers.below(9));
  for (uint32_t i = 0; i < wanted; ++i) {
    const uint32_t group = numbers.below(1 + numbers.below(domain.groups));  // low numbers are popular
    if (std::find(groups.begin(), groups.end(), group) == groups.end()) groups.push_back(group);
  }
  return groups;
}

void write_user(const DomainPlan& domain, uint32_t user, const std::vector<uint32_t>& groups,
                Output& output) {
  const std::string uid = "user" + digits(user);
  const std::string address = uid + "@" + std::string(domain.dns_name);
  output.line("dn", user_dn(domain, user));
  for (const char* name : {"top", "person", "organizationalPerson", "user"}) output.line("objectClass", name);
  output.line("cn", common_name(user));
  output.line("sn", kLastNames[user / kFirstNames.size() % kLastNames.size()]);
  output.line("givenName", kFirstNames[user % kFirstNames.size()]);
  output.line("sAMAccountName", uid);
  output.line("userPrincipalName", address);
  output.line("mail", address);
  output.line("objectSid", object_sid(domain.number, kFirstRid + user));
  output.line("primaryGroupID", std::to_string(kDomainUsersRid));
  output.line("userAccountControl", "512");
  for (const uint32_t group : groups) output.line("memberOf", group_dn(domain, group));
  output.line("userPassword", ssha("Secret-" + digits(user), digits(user * 7919U % 9'999'991U).substr(0, 4)));
  output.end_record();
}

void write_group(const DomainPlan& domain, uint32_t group, const std::vector<uint32_t>& members,
                 Output& output) {
  output.line("dn", group_dn(domain, group));
  output.line("objectClass", "top");
  output.line("objectClass", "group");
  output.line("cn", group_name(group));
  output.line("sAMAccountName", group_name(group));
  output.line("objectSid", object_sid(domain.number, 0x40000000 + group));
  for (uint64_t nested = uint64_t{group} * kNested + 1; nested <= uint64_t{group} * kNested + kNested;
       ++nested) {
    if (nested < domain.groups) output.line("member", group_dn(domain, static_cast<uint32_t>(nested)));
  }
  if (group > 0 && group + 1 == domain.groups) output.line("member", group_dn(domain, 0));
  for (const uint32_t user : members) output.line("member", user_dn(domain, user));
  output.end_record();
}

void write_containers(const DomainPlan& domain, Output& output) {
  const std::string base(domain.base_dn);
  output.line("dn", base);
  output.line("objectClass", "domainDNS");
  output.end_record();
  for (const std::string& unit : {"OU=People," + base, "OU=Groups," + base}) {
    output.line("dn", unit);
    output.line("objectClass", "organizationalUnit");
    output.end_record();
  }
  output.line("dn", "CN=Domain Users,OU=Groups," + base);
  output.line("objectClass", "group");
  output.line("cn", "Domain Users");
  output.line("objectSid", object_sid(domain.number, kDomainUsersRid));
  output.end_record();
}

void write_domain(const DomainPlan& domain, Numbers& numbers, Output& output) {
  write_containers(domain, output);
  std::vector<std::vector<uint32_t>> members(domain.groups);
  for (uint32_t user = domain.first_user; user < domain.first_user + domain.users; ++user) {
    const std::vector<uint32_t> groups =
        domain.groups == 0 ? std::vector<uint32_t>() : pick_groups(domain, numbers);
    for (const uint32_t group : groups) members[group].push_back(user);
    write_user(domain, user, groups, output);
  }
  for (uint32_t group = 0; group < domain.groups; ++group) write_group(domain, group, members[group], output);
}

std::optional<uint32_t> read_count(std::string_view text) {
  constexpr uint32_t kMost = 9'999'999;  // what seven digits name
  uint32_t count = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  if (error != std::errc() || end != text.data() + text.size() || count > kMost) return std::nullopt;
  return count;
}

}  // namespace

int main(int argc, char** argv) {
  const std::optional<uint32_t> users = argc == 3 ? read_count(argv[1]) : std::nullopt;
  const std::optional<uint32_t> groups = argc == 3 ? read_count(argv[2]) : std::nullopt;
  if (!users || !groups) {
    std::fputs("usage: make_ldif USERS GROUPS > FILE (each at most 9999999)\n", stderr);
    return 2;
  }
  Output output;
  Numbers numbers;
  const uint32_t lab_users = *users / 4;
  const uint32_t lab_groups = *groups / 4;
  output.line("version", "1");
  output.end_record();
  write_domain({1, "corp.example", "DC=corp,DC=example", 0, *users - lab_users, *groups - lab_groups},
               numbers, output);
  write_domain({2, "lab.example", "DC=lab,DC=example", *users - lab_users, lab_users, lab_groups}, numbers,
               output);
  output.flush();
  if (output.ok()) return 0;
  std::perror("make_ldif: standard output");
  return 1;
}
