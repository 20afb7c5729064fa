#include "libvelder/LiveSearch.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "libvelder/Dn.h"
#include "libvelder/Fold.h"

namespace velder {
namespace {

// Beyond this many entries a look-up is no look-up any more; a group of all users of a big directory passes.
constexpr uint64_t kMostEntries = 500'000;

constexpr int kReferral = 10;  // RFC 4511

tl::unexpected<Error> failed(int code, const std::string& text) {
  return tl::make_unexpected(Error{code, text});
}

std::string append_hex(std::string filter, uint64_t number, int bytes, bool big_endian) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  for (int i = 0; i < bytes; ++i) {
    const int shift = 8 * (big_endian ? bytes - 1 - i : i);
    const auto byte = static_cast<unsigned>(number >> shift) & 0xffU;
    filter += '\\';
    filter += kDigits[byte >> 4];
    filter += kDigits[byte & 15];
  }
  return filter;
}

// The bytes of an identifier ("S-1-5-21-..."), escaped for a filter; "" when the text is none.
std::string escaped_sid_bytes(std::string_view sid) {
  std::vector<uint64_t> parts;
  if (!sid.starts_with("S-1-")) return "";
  for (sid.remove_prefix(4); !sid.empty();) {
    uint64_t part = 0;
    const size_t length = std::min(sid.find('-'), sid.size());
    const auto [end, error] = std::from_chars(sid.data(), sid.data() + length, part);
    if (error != std::errc() || end != sid.data() + length) return "";
    parts.push_back(part);
    sid.remove_prefix(std::min(length + 1, sid.size()));
  }
  constexpr size_t kMostParts = 16;  // the authority and 15 more
  if (parts.empty() || parts.size() > kMostParts) return "";
  std::string filter = append_hex("", 1, 1, true);
  filter = append_hex(std::move(filter), parts.size() - 1, 1, true);
  filter = append_hex(std::move(filter), parts[0], 6, true);
  for (size_t i = 1; i < parts.size(); ++i) filter = append_hex(std::move(filter), parts[i], 4, false);
  return filter;
}

std::vector<std::string> attributes_for(Wanted wanted) {
  std::vector<std::string> names = {"objectClass", "cn"};
  const auto also = [&](std::initializer_list<const char*> more) {
    names.insert(names.end(), more.begin(), more.end());
  };
  if (wanted == Wanted::kUser || wanted == Wanted::kUserNames || wanted == Wanted::kBelow) {
    also({"uid", "sAMAccountName", "userPrincipalName"});
  }
  if (wanted == Wanted::kUser) also({"userAccountControl", "memberOf"});
  if (wanted == Wanted::kUser || wanted == Wanted::kBelow) also({"primaryGroupID", "objectSid"});
  if (wanted == Wanted::kGroupAbove) also({"memberOf"});
  if (wanted == Wanted::kGroupBelow) also({"memberOf", "objectSid"});
  if (wanted == Wanted::kGroupBelow || wanted == Wanted::kBelow)
    also({"member", "uniqueMember", "memberUid"});
  return names;
}

std::vector<std::string> copies(const std::vector<std::string_view>& views) {
  return {views.begin(), views.end()};
}

LiveEntry take_entry(LdifRecord& record, const Settings& settings) {
  const EntryAttributes attributes = read_attributes(record);
  LiveEntry entry;
  entry.kind = attributes.kind;
  if (entry.kind == EntryKind::kOther) return entry;
  entry.cn = attributes.cn;
  entry.uid = attributes.uid;
  entry.upn = attributes.upn;
  entry.disabled = attributes.disabled;
  entry.sid = sid_text(attributes.sid);
  if (!attributes.primary_group.empty()) {
    entry.primary_group_sid = sibling_sid(entry.sid, attributes.primary_group);
  }
  entry.member_of = copies(attributes.member_of);
  entry.members = copies(attributes.members);
  entry.member_uids = copies(attributes.member_uids);
  entry.dn = std::move(record.dn);
  entry.dn_key = normalize_dn(entry.dn);
  entry.domain_dns = domain_of_entry(settings, entry.dn);
  return entry;
}

// A user whom nobody can name is none.
bool is_usable(const LiveEntry& entry) {
  if (entry.dn_key.empty()) return false;
  return entry.kind == EntryKind::kGroup || (entry.kind == EntryKind::kUser && !fold_text(entry.uid).empty());
}

std::chrono::seconds longest_answer(const Settings& settings) {
  uint32_t longest = 0;
  for (const Domain& one : settings.domains) longest = std::max(longest, one.operation_timeout);
  return std::chrono::seconds(longest);
}

// A DN in the one form that every server reads; "" for a text that is no DN.
std::string plain_dn(std::string_view text) {
  const auto rdns = parse_dn(text);
  if (!rdns) return "";
  std::string dn;
  for (const Rdn& rdn : *rdns) {
    char separator = ',';
    for (const DnAttribute& attribute : rdn) {
      if (!dn.empty()) dn += separator;
      dn += attribute.type + '=' + (attribute.is_hex ? attribute.value : escape_dn_value(attribute.value));
      separator = '+';
    }
  }
  return dn;
}

// The attribute by which an entry is found by its DN.
const char* dn_attribute(Schema schema) {
  return schema == Schema::kAd ? "distinguishedName" : "entryDN";
}

std::string all_classes(Schema schema) {
  return any_of(std::string(user_classes(schema)) + std::string(group_classes(schema)));
}

}  // namespace

std::string equality(std::string_view attribute, std::string_view value) {
  const auto item = [&](std::string_view text) {
    return "(" + std::string(attribute) + "=" + escape_filter_value(text) + ")";
  };
  const bool ascii =
      std::all_of(value.begin(), value.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  std::string filter = item(value);
  if (ascii) return filter;
  const std::string folded = fold_text(value);
  return folded == value || folded.empty() ? filter : filter + item(folded);
}

std::string containing(std::string_view attribute, std::string_view value) {
  const std::string around = value.empty() ? "*" : "*" + escape_filter_value(value) + "*";
  return "(" + std::string(attribute) + "=" + around + ")";
}

// On Active Directory every user has the first, and the last is not indexed.
std::string uid_equality(Schema schema, std::string_view uid) {
  std::string filters = equality("sAMAccountName", uid) + equality("cn", uid);
  return schema == Schema::kAd ? filters : filters + equality("uid", uid);
}

std::string sid_equality(std::string_view sid) {
  const std::string bytes = escaped_sid_bytes(sid);
  const std::string text = "(objectSid=" + escape_filter_value(sid) + ")";
  return bytes.empty() ? text : any_of(text + "(objectSid=" + bytes + ")");
}

std::string any_of(std::string_view filters) {
  return "(|" + std::string(filters) + ")";
}

std::string all_of(std::string_view filters) {
  return "(&" + std::string(filters) + ")";
}

std::string_view user_classes(Schema schema) {
  return schema == Schema::kAd ? "(objectClass=user)"
                               : "(|(objectClass=inetOrgPerson)(objectClass=person)(objectClass=posixAccount)"
                                 "(objectClass=user))";
}

std::string_view group_classes(Schema schema) {
  return schema == Schema::kAd
             ? "(objectClass=group)"
             : "(|(objectClass=groupOfNames)(objectClass=groupOfUniqueNames)(objectClass=posixGroup)"
               "(objectClass=group))";
}

LiveSearch::LiveSearch(const ServerPools& pools, const Settings& settings)
    : pools_(pools),
      settings_(settings),
      finds_dns_(pools.size(), Finds::kUnknown),
      patience_(longest_answer(settings)) {
  for (const auto& servers : pools_) base_keys_.push_back(normalize_dn(servers->domain().base_dn));
  deadline_ = std::chrono::steady_clock::now() + kMostTime;
}

std::vector<size_t> LiveSearch::domains_holding(std::string_view dn_key) const {
  std::vector<size_t> numbers;
  for (size_t number = 0; number < pools_.size(); ++number) {
    if (!is_below(dn_key, base_keys_[number])) continue;
    const size_t length = base_keys_[number].size();
    const size_t longest = numbers.empty() ? 0 : base_keys_[numbers.front()].size();
    if (length > longest) numbers.clear();
    if (length >= longest) numbers.push_back(number);
  }
  return numbers;
}

bool LiveSearch::may_hold(size_t number, std::string_view dns) const {
  const std::string base = fold_text(dns_domain_of(domain(number).base_dn)), wanted = fold_text(dns);
  return base.empty() || wanted == base || wanted.ends_with("." + base);
}

Result<void> LiveSearch::in_time() {
  if (!patience_.may_go_on())
    return failed(kDirectoryTimeout, "the servers are slow, and too many look-ups take longer already");
  return before_deadline();
}

Result<void> LiveSearch::before_deadline() const {
  if (std::chrono::steady_clock::now() < deadline_) return {};
  return failed(kDirectoryTimeout, "the servers took too long over one look-up, more than " +
                                       std::to_string(kMostTime.count()) + " seconds");
}

// A server that wasted half of the time has failed: the next look-up had better begin with another one.
void LiveSearch::set_end(SearchLimits& limits) const {
  limits.until = deadline_;
  limits.longest_silence = kMostTime / 2;
}

// The pool may run the search again from its beginning, on another server.
Result<bool> LiveSearch::run(size_t number, SearchRequest request, const Question& question,
                             std::vector<LiveEntry>& found) {
  if (auto begin = in_time(); !begin) return tl::make_unexpected(begin.error());
  request.attributes = attributes_for(question.wanted);
  request.limits.max_entries = kMostEntries;
  set_end(request.limits);
  const size_t before = found.size();
  Result<void> time;  // no time left is not the server's time-out, which would put it aside
  const auto take = [&](LdifRecord& record) -> Result<void> {
    if (time = in_time(); !time) return failed(kDirectoryOther, "late");
    LiveEntry entry = take_entry(record, settings_);
    if (!is_usable(entry) || (question.keep && !question.keep(entry))) return {};
    if (found.size() - before == question.most) return failed(kDirectorySizeLimit, "enough");
    found.push_back(std::move(entry));
    return {};
  };
  const auto done = pools_[number]->read([&](LdapConnection& connection) {
    found.resize(before);
    return connection.search(request, take);
  });
  if (done) return true;
  const int code = done.error().code;
  if (time && code == kDirectoryOther) time = before_deadline();
  if (!time) return tl::make_unexpected(time.error());
  if (code == kDirectorySizeLimit) return false;
  // An entry that another server holds is not in this tree either.
  const bool elsewhere = code == kDirectoryNoSuchObject || code == kReferral;
  if (elsewhere && request.scope == SearchScope::kBase) return true;
  found.resize(before);
  if (code == kDirectoryServerDown || code == kDirectoryTimeout) return tl::make_unexpected(done.error());
  return failed(kDirectoryOther, "[" + domain(number).section + "] " + done.error().text);
}

Result<bool> LiveSearch::ask(size_t number, const Question& question, std::vector<LiveEntry>& found) {
  SearchRequest request;
  request.base = domain(number).base_dn;
  request.filter = question.filter;
  return run(number, std::move(request), question, found);
}

Result<void> LiveSearch::read_in(size_t number, const std::string& dn, std::string_view dn_key, Wanted wanted,
                                 std::vector<LiveEntry>& found) {
  SearchRequest request;
  request.base = dn;
  request.scope = SearchScope::kBase;
  request.filter = all_classes(domain(number).schema);
  Question question;
  question.wanted = wanted;
  // A server may take more texts for this DN than we do.
  question.keep = [&](const LiveEntry& entry) { return entry.dn_key == dn_key; };
  const auto done = run(number, std::move(request), question, found);
  if (!done) return tl::make_unexpected(done.error());
  return {};
}

Result<void> LiveSearch::read(std::string_view text, Wanted wanted, std::vector<LiveEntry>& found) {
  const std::string dn = plain_dn(text), key = normalize_dn(text);
  if (dn.empty() || key.empty()) return {};
  for (const size_t number : domains_holding(key)) {
    if (auto done = read_in(number, dn, key, wanted, found); !done) return done;
  }
  return {};
}

// Some servers cannot search for a DN, and say nothing: they find nothing. The base of the domain is there
// for certain.
Result<bool> LiveSearch::finds_dns(size_t number) {
  if (finds_dns_[number] == Finds::kUnknown) {
    bool found = false;
    SearchRequest request;
    request.base = domain(number).base_dn;
    request.scope = SearchScope::kBase;
    request.filter = equality(dn_attribute(domain(number).schema), domain(number).base_dn);
    request.attributes = {"1.1"};  // none
    set_end(request.limits);
    if (auto time = in_time(); !time) return tl::make_unexpected(time.error());
    const auto done = pools_[number]->read([&](LdapConnection& connection) {
      return connection.search(request, [&](LdifRecord&) -> Result<void> {
        found = true;
        return {};
      });
    });
    const int code = done ? kDirectorySuccess : done.error().code;
    if (code == kDirectoryServerDown || code == kDirectoryTimeout) return tl::make_unexpected(done.error());
    finds_dns_[number] = found ? Finds::kYes : Finds::kNo;
  }
  return finds_dns_[number] == Finds::kYes;
}

Result<void> LiveSearch::read_chunk(size_t number, const std::vector<std::string>& dns, Wanted wanted,
                                    std::string_view classes, std::vector<LiveEntry>& found) {
  Question question;
  question.wanted = wanted;
  std::string names;
  for (const std::string& dn : dns) names += equality(dn_attribute(domain(number).schema), dn);
  question.filter = all_of(std::string(classes) + any_of(names));
  const auto done = ask(number, question, found);
  if (!done) return tl::make_unexpected(done.error());
  if (!*done)
    return failed(kDirectoryOther, "[" + domain(number).section +
                                       "] the server's size limit is below what one look-up asks for");
  return {};
}

Result<void> LiveSearch::read_many(const std::vector<std::string>& dns, Wanted wanted, bool groups_only,
                                   std::vector<LiveEntry>& found) {
  const size_t before = found.size();
  for (size_t number = 0; number < pools_.size(); ++number) {
    std::vector<std::string> mine;
    for (const std::string& dn : dns) {
      const std::string key = normalize_dn(dn);
      const auto holders = key.empty() ? std::vector<size_t>() : domains_holding(key);
      if (std::find(holders.begin(), holders.end(), number) != holders.end()) mine.push_back(dn);
    }
    if (mine.empty()) continue;
    const auto finds = mine.size() > 1 ? finds_dns(number) : Result<bool>(false);
    if (!finds) return tl::make_unexpected(finds.error());
    const Schema schema = domain(number).schema;
    const std::string classes = groups_only ? std::string(group_classes(schema)) : all_classes(schema);
    for (size_t at = 0; at < mine.size(); at += *finds ? kChunk : 1) {
      const auto first = mine.begin() + static_cast<std::ptrdiff_t>(at);
      const auto last = first + static_cast<std::ptrdiff_t>(std::min(*finds ? kChunk : 1, mine.size() - at));
      const auto done = *finds ? read_chunk(number, {first, last}, wanted, classes, found)
                               : read_in(number, plain_dn(*first), normalize_dn(*first), wanted, found);
      if (!done) return done;
    }
  }
  if (!groups_only) return {};
  const auto is_no_group = [](const LiveEntry& entry) { return entry.kind != EntryKind::kGroup; };
  found.erase(std::remove_if(found.begin() + static_cast<std::ptrdiff_t>(before), found.end(), is_no_group),
              found.end());
  return {};
}

}  // namespace velder
