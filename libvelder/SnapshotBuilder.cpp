// Gathers entries and works out who is in which group.
//
// Entries refer to each other by DN, before or after the entry itself has come. Each DN met becomes a node,
// and a membership is a pair of nodes; whether they are a user and a group is known at the end only. What
// refers to no known entry is dropped then.
#include <fcntl.h>
#include <openssl/crypto.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <functional>
#include <numeric>
#include <system_error>
#include <unordered_map>

#include "libvelder/DirectoryEntry.h"
#include "libvelder/Dn.h"
#include "libvelder/Fold.h"
#include "libvelder/SnapshotInternal.h"

namespace velder {
namespace {

using Pair = SnapshotContent::Pair;

// The same spelling of a DN is worked out once; beyond this many spellings the memory is better kept.
constexpr size_t kRememberedSpellings = 500'000;

struct TextHash {
  using is_transparent = void;
  size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
};
template <class Value>
using TextMap = std::unordered_map<std::string, Value, TextHash, std::equal_to<>>;

struct Node {
  EntryKind kind = EntryKind::kOther;
  bool seen = false;   // its entry has come
  uint32_t index = 0;  // of the user or group, in the order of coming
  size_t line = 0;
};

struct UidReference {  // a memberUid: a user of the group's own domain
  uint32_t group;      // node
  std::string name;    // scoped name of the user
};

struct PrimaryGroup {
  uint32_t user;          // node
  std::string group_sid;  // text form
};

constexpr uint32_t kAmbiguous = UINT32_MAX;

void keep_unique(TextMap<uint32_t>& map, std::string key, uint32_t value) {
  const auto [place, added] = map.try_emplace(std::move(key), value);
  if (!added) place->second = kAmbiguous;
}

void sort_unique(std::vector<Pair>& pairs) {
  std::sort(pairs.begin(), pairs.end());
  pairs.erase(std::unique(pairs.begin(), pairs.end()), pairs.end());
}

// Brings the rows into the order in which lists are answered. The result maps an index in the order of
// coming to the number of the row.
template <class Row>
std::vector<uint32_t> sort_rows(std::vector<Row>& rows) {
  std::vector<uint32_t> order(rows.size());
  std::iota(order.begin(), order.end(), 0U);
  std::sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
    const int by_cn = rows[a].cn_key.compare(rows[b].cn_key);
    return by_cn != 0 ? by_cn < 0 : rows[a].dn < rows[b].dn;
  });
  std::vector<uint32_t> numbers(rows.size());
  std::vector<Row> sorted;
  sorted.reserve(rows.size());
  for (const uint32_t index : order) {
    sorted.push_back(std::move(rows[index]));
    numbers[index] = static_cast<uint32_t>(sorted.size());
  }
  rows = std::move(sorted);
  return numbers;
}

Error system_error(const std::string& what, int code) {
  return Error{kDirectoryOther, what + ": " + std::error_code(code, std::generic_category()).message()};
}

// A draft on disk; gone when it is not kept.
class DraftFile {
 public:
  static Result<DraftFile> create(const std::string& path) {
    // The mode is said here: the daemon's umask is 0, and password hashes go into the file.
    unlink(path.c_str());
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return tl::make_unexpected(system_error(path + ": cannot be created", errno));
    return DraftFile(path, fd);
  }
  DraftFile(DraftFile&& other) noexcept
      : path_(std::move(other.path_)), fd_(std::exchange(other.fd_, -1)), kept_(other.kept_) {}
  DraftFile& operator=(DraftFile&&) = delete;
  ~DraftFile() {
    if (fd_ < 0) return;
    close(fd_);
    if (!kept_) unlink(path_.c_str());
  }

  // Puts the checksum into the header and everything on the disk.
  Result<void> seal() {
    struct stat status {};
    if (fstat(fd_, &status) != 0) return tl::make_unexpected(system_error(path_, errno));
    const auto size = static_cast<size_t>(status.st_size);
    void* memory = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd_, 0);
    if (memory == MAP_FAILED) return tl::make_unexpected(system_error(path_, errno));
    const uint32_t sum = snapshot_checksum(static_cast<const unsigned char*>(memory), size);
    munmap(memory, size);
    const std::array<unsigned char, 4> bytes = {
        static_cast<unsigned char>(sum >> 24), static_cast<unsigned char>(sum >> 16),
        static_cast<unsigned char>(sum >> 8), static_cast<unsigned char>(sum)};
    if (pwrite(fd_, bytes.data(), bytes.size(), kChecksumOffset) != ssize_t{bytes.size()} ||
        fsync(fd_) != 0) {
      return tl::make_unexpected(system_error(path_ + ": cannot be written", errno));
    }
    return {};
  }
  void keep() { kept_ = true; }

 private:
  DraftFile(std::string path, int fd) : path_(std::move(path)), fd_(fd) {}

  std::string path_;
  int fd_;
  bool kept_ = false;
};

// What NTLM and its challenges need to know of all users together.
void describe_logons(const SnapshotContent& content, SnapshotMeta& meta) {
  std::vector<size_t> users(content.domains.size());
  for (const SnapshotContent::User& user : content.users) {
    ++users[user.domain];
    if (!user.nt_hash.empty()) ++meta.nt_hashes;
  }
  if (content.users.empty()) return;
  const auto most = std::max_element(users.begin(), users.end());
  meta.main_domain = content.domains[static_cast<size_t>(most - users.begin())].netbios;
}

}  // namespace

struct SnapshotBuilder::Draft {
  Draft(const Settings& from, const BuildOptions& wanted) : settings(from), options(wanted) {}
  ~Draft() {
    for (SnapshotContent::User& user : content.users) {
      for (std::string& password : user.passwords) OPENSSL_cleanse(password.data(), password.size());
      OPENSSL_cleanse(user.nt_hash.data(), user.nt_hash.size());
    }
  }
  Draft(const Draft&) = delete;
  Draft& operator=(const Draft&) = delete;

  uint32_t node_of(std::string_view dn);
  uint32_t node_with_key(std::string_view key);
  uint32_t domain_of(std::string_view dn);
  void add_user(uint32_t node, std::string key, std::string_view dn, const EntryAttributes& entry);
  void add_group(uint32_t node, std::string key, std::string_view dn, const EntryAttributes& entry);
  std::string scoped(uint32_t domain, std::string_view uid_key) const;
  void resolve_uids();
  void resolve_primary_groups();
  void resolve();

  Settings settings;
  BuildOptions options;
  SnapshotContent content;  // users and groups in the order of coming until resolve()
  std::vector<Node> nodes;
  TextMap<uint32_t> node_by_key;
  TextMap<uint32_t> node_by_spelling;
  TextMap<uint32_t> domain_by_name;
  std::vector<Pair> memberships;  // nodes: member, group
  std::vector<UidReference> uid_references;
  std::vector<PrimaryGroup> primary_groups;
  TextMap<uint32_t> group_by_sid;  // node
  int64_t skipped_users = 0;
  size_t repeats = 0;
};

uint32_t SnapshotBuilder::Draft::node_with_key(std::string_view key) {
  if (const auto known = node_by_key.find(key); known != node_by_key.end()) return known->second;
  const auto node = static_cast<uint32_t>(nodes.size());
  nodes.emplace_back();
  node_by_key.emplace(key, node);
  return node;
}

// What is no DN gets a node that no entry ever has: the one of the empty key.
uint32_t SnapshotBuilder::Draft::node_of(std::string_view dn) {
  if (const auto known = node_by_spelling.find(dn); known != node_by_spelling.end()) return known->second;
  const uint32_t node = node_with_key(normalize_dn(dn));
  if (node_by_spelling.size() < kRememberedSpellings) node_by_spelling.emplace(dn, node);
  return node;
}

uint32_t SnapshotBuilder::Draft::domain_of(std::string_view dn) {
  std::string dns = domain_of_entry(settings, dn);
  std::string key = fold_text(dns);
  if (const auto known = domain_by_name.find(key); known != domain_by_name.end()) return known->second;
  const auto domain = static_cast<uint32_t>(content.domains.size());
  std::string netbios = dns.empty() ? std::string() : netbios_name_of(settings, dns);
  content.domains.push_back({std::move(dns), std::move(netbios)});
  domain_by_name.emplace(std::move(key), domain);
  return domain;
}

// A folded uid and its domain as one text; a NUL may stand in a uid, never in a number.
std::string SnapshotBuilder::Draft::scoped(uint32_t domain, std::string_view uid_key) const {
  return std::to_string(domain) + '\0' + std::string(uid_key);
}

void SnapshotBuilder::Draft::add_user(uint32_t node, std::string key, std::string_view dn,
                                      const EntryAttributes& entry) {
  SnapshotContent::User user;
  user.uid_key = fold_text(entry.uid);
  if (user.uid_key.empty()) {
    ++skipped_users;
    return;
  }
  user.dn = dn;
  user.dn_key = std::move(key);
  user.cn = entry.cn;
  user.cn_key = fold_text(entry.cn);
  user.uid = entry.uid;
  user.upn = entry.upn;
  user.domain = domain_of(dn);
  user.disabled = entry.disabled;
  if (options.keep_passwords) {
    user.passwords.assign(entry.passwords.begin(), entry.passwords.end());
    user.nt_hash = entry.nt_hash;
  }
  nodes[node].kind = EntryKind::kUser;
  nodes[node].index = static_cast<uint32_t>(content.users.size());
  content.users.push_back(std::move(user));
  if (!entry.primary_group.empty()) {
    std::string group_sid = sibling_sid(sid_text(entry.sid), entry.primary_group);
    if (!group_sid.empty()) primary_groups.push_back({node, std::move(group_sid)});
  }
}

void SnapshotBuilder::Draft::add_group(uint32_t node, std::string key, std::string_view dn,
                                       const EntryAttributes& entry) {
  SnapshotContent::Group group;
  group.dn = dn;
  group.dn_key = std::move(key);
  group.cn = entry.cn;
  group.cn_key = fold_text(entry.cn);
  nodes[node].kind = EntryKind::kGroup;
  nodes[node].index = static_cast<uint32_t>(content.groups.size());
  content.groups.push_back(std::move(group));
  for (const std::string_view member : entry.members) memberships.emplace_back(node_of(member), node);
  if (!entry.member_uids.empty()) {
    const uint32_t domain = domain_of(dn);
    for (const std::string_view uid : entry.member_uids) {
      uid_references.push_back({node, scoped(domain, fold_text(uid))});
    }
  }
  if (std::string sid = sid_text(entry.sid); !sid.empty()) keep_unique(group_by_sid, std::move(sid), node);
}

// A uid that several users of the domain have makes none of them a member.
void SnapshotBuilder::Draft::resolve_uids() {
  if (uid_references.empty()) return;
  TextMap<uint32_t> user_by_uid;
  for (uint32_t node = 0; node < nodes.size(); ++node) {
    if (nodes[node].kind != EntryKind::kUser) continue;
    const SnapshotContent::User& user = content.users[nodes[node].index];
    keep_unique(user_by_uid, scoped(user.domain, user.uid_key), node);
  }
  for (const UidReference& reference : uid_references) {
    const auto user = user_by_uid.find(reference.name);
    if (user != user_by_uid.end() && user->second != kAmbiguous) {
      memberships.emplace_back(user->second, reference.group);
    }
  }
  uid_references.clear();
}

void SnapshotBuilder::Draft::resolve_primary_groups() {
  for (const PrimaryGroup& primary : primary_groups) {
    const auto group = group_by_sid.find(primary.group_sid);
    if (group != group_by_sid.end() && group->second != kAmbiguous) {
      memberships.emplace_back(primary.user, group->second);
    }
  }
  primary_groups.clear();
}

void SnapshotBuilder::Draft::resolve() {
  resolve_uids();
  resolve_primary_groups();
  node_by_spelling.clear();
  node_by_key.clear();
  const std::vector<uint32_t> user_numbers = sort_rows(content.users);
  const std::vector<uint32_t> group_numbers = sort_rows(content.groups);
  for (const auto& [member, group] : memberships) {
    if (nodes[group].kind != EntryKind::kGroup || member == group) continue;
    const uint32_t group_number = group_numbers[nodes[group].index];
    if (nodes[member].kind == EntryKind::kUser) {
      content.user_groups.emplace_back(user_numbers[nodes[member].index], group_number);
    } else if (nodes[member].kind == EntryKind::kGroup) {
      content.nested.emplace_back(group_numbers[nodes[member].index], group_number);
    }
  }
  memberships = {};
  sort_unique(content.user_groups);
  sort_unique(content.nested);
}

SnapshotBuilder::SnapshotBuilder(const Settings& settings, const BuildOptions& options)
    : draft_(std::make_unique<Draft>(settings, options)) {}

SnapshotBuilder::~SnapshotBuilder() = default;

size_t SnapshotBuilder::user_count() const {
  return draft_->content.users.size();
}
size_t SnapshotBuilder::group_count() const {
  return draft_->content.groups.size();
}
size_t SnapshotBuilder::repeat_count() const {
  return draft_->repeats;
}

Result<void> SnapshotBuilder::add(const LdifRecord& record) {
  if (record.dn.empty()) return {};  // the server's own entry
  std::string key = normalize_dn(record.dn);
  if (key.empty()) {
    return tl::make_unexpected(Error{kDirectoryOther, "not a distinguished name: " + printable(record.dn)});
  }
  const uint32_t node = draft_->node_with_key(key);
  if (draft_->nodes[node].seen && draft_->options.pass_repeats) {
    ++draft_->repeats;
    return {};
  }
  if (draft_->nodes[node].seen) {
    return tl::make_unexpected(Error{kDirectoryOther, "the same distinguished name as in line " +
                                                          std::to_string(draft_->nodes[node].line) + ": " +
                                                          printable(record.dn)});
  }
  draft_->nodes[node].seen = true;
  draft_->nodes[node].line = record.line;

  const EntryAttributes entry = read_attributes(record);
  switch (entry.kind) {
    case EntryKind::kUser: draft_->add_user(node, std::move(key), record.dn, entry); break;
    case EntryKind::kGroup: draft_->add_group(node, std::move(key), record.dn, entry); break;
    case EntryKind::kOther: return {};
  }
  for (const std::string_view group : entry.member_of) {
    draft_->memberships.emplace_back(node, draft_->node_of(group));
  }
  return {};
}

Result<void> SnapshotBuilder::write(const std::string& path, SnapshotMeta& meta) {
  draft_->resolve();
  const SnapshotContent& content = draft_->content;
  meta.built_at = time(nullptr);
  meta.users = static_cast<int64_t>(content.users.size());
  meta.groups = static_cast<int64_t>(content.groups.size());
  meta.memberships = static_cast<int64_t>(content.user_groups.size() + content.nested.size());
  meta.skipped_users = draft_->skipped_users;
  describe_logons(content, meta);

  auto file = DraftFile::create(path);
  if (!file) return tl::make_unexpected(file.error());
  Database database;
  if (auto opened = database.open_draft(path); !opened) return opened;
  if (auto written = write_tables(database, content, meta); !written) {
    return tl::make_unexpected(Error{kDirectoryOther, path + ": " + written.error().text});
  }
  if (auto closed = database.close(); !closed) return closed;
  if (auto sealed = file->seal(); !sealed) return sealed;
  if (auto checked = SnapshotFile::open(path); !checked) return tl::make_unexpected(checked.error());
  file->keep();
  return {};
}

}  // namespace velder
