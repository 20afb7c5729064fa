// Searches: pages, entries, and the attributes that a server hands out in ranges.
//
// A range is continued after the page that its entry came in, because answers to two requests at once would
// pile up in the client library. So an entry with ranges waits until then; the others are handed on at once.
#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "libvelder/Fold.h"
#include "libvelder/LdapConnection.h"
#include "libvelder/LdapConnectionInternal.h"

namespace velder {
namespace {

using std::chrono::steady_clock;

// Below the 1,000 that Active Directory grants.
constexpr ber_int_t kPageSize = 900;

// A server may hand out a page without an entry when it looked through many that do not match. One that does
// nothing else is broken.
constexpr int kMostEmptyPages = 1000;

// Active Directory gives 1,500 values at a time, at the least 30 where that was changed.
constexpr int kMostRanges = 10'000;

struct BerFree {
  void operator()(BerElement* ber) const { ber_free(ber, 0); }
};
using BerCursor = std::unique_ptr<BerElement, BerFree>;

struct MemoryFree {
  void operator()(void* memory) const { ldap_memfree(memory); }
};

std::string_view view_of(const berval& value) {
  return value.bv_val != nullptr ? std::string_view(value.bv_val, value.bv_len) : std::string_view();
}

bool parse_number(std::string_view text, uint64_t& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return !text.empty() && error == std::errc() && end == text.data() + text.size();
}

// One attribute of an entry; the values point into the message.
struct RawAttribute {
  AttributeName name;
  std::unique_ptr<berval, MemoryFree> values;  // an array that ends with a null pointer

  size_t count() const {
    size_t number = 0;
    while (values && values.get()[number].bv_val != nullptr) ++number;
    return number;
  }
};

// Walks through the attributes of one entry.
class EntryWalk {
 public:
  EntryWalk(LdapConnection::Session& session, LDAPMessage* message) : session_(session), message_(message) {}

  Result<std::string> read_dn() {
    BerElement* ber = nullptr;
    berval dn{};
    const int rc = ldap_get_dn_ber(session_.ld, message_, &ber, &dn);
    cursor_.reset(ber);
    if (rc != LDAP_SUCCESS || !cursor_)
      return session_.fail(kDirectoryOther, "search: an entry that cannot be decoded");
    return std::string(view_of(dn));
  }

  // False: there are no more.
  Result<bool> next(RawAttribute& attribute) {
    berval name{};
    berval* values = nullptr;
    const int rc = ldap_get_attribute_ber(session_.ld, message_, cursor_.get(), &name, &values);
    attribute.values.reset(values);
    if (rc != LDAP_SUCCESS)
      return session_.fail(kDirectoryOther, "search: an entry with an attribute that cannot be decoded");
    if (name.bv_val == nullptr) return false;
    attribute.name = parse_attribute_name(view_of(name));
    if (!attribute.name.valid)
      return session_.fail(kDirectoryOther,
                           "search: an attribute that cannot be read: " + printable(view_of(name)));
    return true;
  }

 private:
  LdapConnection::Session& session_;
  LDAPMessage* message_;
  BerCursor cursor_;
};

// The end of a request: what the server said, and where the next page begins.
struct PageEnd {
  Outcome outcome;
  std::string cookie;  // empty: there is no next page
};

class Search {
 public:
  Search(LdapConnection::Session& session, const SearchRequest& request, const EntrySink& each)
      : session_(session), request_(request), each_(each) {
    paged_ = request.scope != SearchScope::kBase;
  }

  Result<void> run() {
    std::string cookie;
    int empty_pages = 0;
    for (;;) {
      const uint64_t before = entries_;
      auto page = read_page(cookie);
      if (!page) return tl::unexpected(page.error());
      if (refuses_pages(page->outcome.code)) {
        paged_ = false;
        continue;
      }
      const int code = page->outcome.code;
      if (code == LDAP_SUCCESS || code == LDAP_SIZELIMIT_EXCEEDED) {
        if (auto finished = finish_ranges(); !finished) return finished;
      }
      if (code != LDAP_SUCCESS) return session_.refused(page->outcome, "search");
      if (page->cookie.empty()) return {};
      empty_pages = entries_ == before ? empty_pages + 1 : 0;
      if (empty_pages > kMostEmptyPages)
        return session_.fail(kDirectoryOther,
                             "search: the server sends pages without entries and without end");
      cookie = std::move(page->cookie);
    }
  }

 private:
  struct OpenRange {
    std::string attribute;
    uint64_t next = 0;  // the number of the first value that is missing
  };
  struct WaitingEntry {
    LdifRecord entry;
    std::vector<OpenRange> ranges;
  };

  // A server may know paging and not grant it to us. It is asked once more, for everything at once.
  bool refuses_pages(int code) const {
    const bool refused = code == LDAP_ADMINLIMIT_EXCEEDED || code == LDAP_UNAVAILABLE_CRITICAL_EXTENSION;
    return refused && paged_ && entries_ == 0;
  }

  Result<void> within_time() const {
    if (steady_clock::now() < request_.limits.until) return {};
    return session_.fail(kDirectoryOther, "search: not done in the time that it is given");
  }

  // The next one that answers the request that was sent last.
  Result<Message> receive(int id, std::string_view doing) {
    if (request_.limits.by_entry) answered_by_ = session_.deadline();
    auto message = session_.wait(id, std::min(answered_by_, request_.limits.until), doing);
    const auto now = steady_clock::now();
    if (message) heard_ = now;
    if (message || message.error().code != kDirectoryTimeout) return message;
    if (now - heard_ >= request_.limits.longest_silence) return message;
    const auto in_time = within_time();
    return in_time ? std::move(message) : tl::unexpected(in_time.error());
  }

  Result<int> send(const std::string& base, int scope, const std::string& filter,
                   const std::vector<std::string>& attributes, LDAPControl* control) {
    if (auto in_time = within_time(); !in_time) return tl::unexpected(in_time.error());
    std::vector<char*> names;
    names.reserve(attributes.size() + 1);
    for (const std::string& one : attributes) names.push_back(const_cast<char*>(one.c_str()));  // only read
    names.push_back(nullptr);
    std::array<LDAPControl*, 2> controls{control, nullptr};
    int id = 0;
    answered_by_ = session_.deadline();
    heard_ = steady_clock::now();
    const int rc = ldap_search_ext(session_.ld, base.c_str(), scope, filter.c_str(),
                                   attributes.empty() ? nullptr : names.data(), 0,
                                   control != nullptr ? controls.data() : nullptr, nullptr, nullptr, 0, &id);
    if (rc != LDAP_SUCCESS) return session_.fail_local(rc, "search");
    return id;
  }

  Result<int> send_page(const std::string& cookie) {
    const int scope = request_.scope == SearchScope::kBase       ? LDAP_SCOPE_BASE
                      : request_.scope == SearchScope::kOneLevel ? LDAP_SCOPE_ONELEVEL
                                                                 : LDAP_SCOPE_SUBTREE;
    if (!paged_) return send(request_.base, scope, request_.filter, request_.attributes, nullptr);
    berval place{cookie.size(), const_cast<char*>(cookie.data())};  // only read
    LDAPControl* raw = nullptr;
    const uint64_t wanted = std::min<uint64_t>(kPageSize, request_.limits.max_entries + 1);
    const int rc = ldap_create_page_control(
        session_.ld, static_cast<ber_int_t>(std::max<uint64_t>(wanted, 1)), &place, 0, &raw);
    const Control control(raw);
    if (rc != LDAP_SUCCESS) return session_.fail_local(rc, "search");
    return send(request_.base, scope, request_.filter, request_.attributes, control.get());
  }

  Result<PageEnd> read_page(const std::string& cookie) {
    const auto id = send_page(cookie);
    if (!id) return tl::unexpected(id.error());
    for (;;) {
      auto message = receive(*id, "search");
      if (!message) return tl::unexpected(message.error());
      const int type = ldap_msgtype(message->get());
      if (type == LDAP_RES_SEARCH_RESULT) return end_of_page(message->get());
      // What is no entry is a reference to another server, or a remark.
      auto taken = type == LDAP_RES_SEARCH_ENTRY ? take_entry(message->get()) : count_other();
      if (taken) taken = within_time();
      if (!taken) {
        session_.abandon(*id);
        return tl::unexpected(taken.error());
      }
    }
  }

  Result<PageEnd> end_of_page(LDAPMessage* message) {
    auto outcome = session_.parse_outcome(message, "search");
    if (!outcome) return tl::unexpected(outcome.error());
    PageEnd end{std::move(*outcome), {}};
    LDAPControl* control = ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, end.outcome.controls.get(), nullptr);
    if (control == nullptr) return end;
    ber_int_t estimate = 0;
    berval cookie{};
    const int rc = ldap_parse_pageresponse_control(session_.ld, control, &estimate, &cookie);
    const std::unique_ptr<char, MemoryFree> owner(cookie.bv_val);
    if (rc != LDAP_SUCCESS) return session_.fail_local(rc, "search");
    end.cookie = view_of(cookie);
    return end;
  }

  Result<void> take_entry(LDAPMessage* message) {
    EntryWalk walk(session_, message);
    auto dn = walk.read_dn();
    if (!dn) return tl::unexpected(dn.error());
    if (auto known = check_dn(*dn); !known) return known;
    if (auto counted = count_entry(dn->size()); !counted) return counted;
    entry_.dn = std::move(*dn);
    entry_.attributes.clear();
    entry_.line = 0;
    std::vector<OpenRange> ranges;
    RawAttribute attribute;
    for (;;) {
      const auto more = walk.next(attribute);
      if (!more) return tl::unexpected(more.error());
      if (!*more) break;
      auto added = add_values(entry_, attribute);
      if (added && attribute.name.ranged) added = begin_range(attribute, ranges);
      if (!added) return added;
    }
    if (ranges.empty()) return each_(entry_);
    waiting_.push_back({std::move(entry_), std::move(ranges)});
    return {};
  }

  // Only the server itself has the empty name.
  Result<void> check_dn(const std::string& dn) const {
    const bool is_root = dn.empty() && request_.base.empty() && request_.scope == SearchScope::kBase;
    if (dn.empty() && !is_root) return session_.fail(kDirectoryOther, "search: an entry without a name");
    if (!is_utf8(dn) || dn.find('\0') != std::string::npos)
      return session_.fail(kDirectoryOther, "search: an entry with an unreadable name: " + printable(dn));
    return {};
  }

  Result<void> count_entry(size_t dn_size) {
    if (++entries_ > request_.limits.max_entries)
      return session_.fail(kDirectorySizeLimit,
                           "search: more than " + std::to_string(request_.limits.max_entries) + " entries");
    return count_bytes(sizeof(LdifRecord) + dn_size);
  }

  Result<void> count_other() {
    if (++others_ <= request_.limits.max_entries) return {};
    return session_.fail(kDirectoryOther, "search: references to other servers without end");
  }

  Result<void> count_bytes(uint64_t bytes) {
    bytes_ += bytes;
    if (bytes_ <= request_.limits.max_bytes) return {};
    return session_.fail(kDirectorySizeLimit,
                         "search: more than " + std::to_string(request_.limits.max_bytes) + " bytes");
  }

  Result<void> add_values(LdifRecord& entry, const RawAttribute& attribute) {
    for (size_t i = 0, count = attribute.count(); i < count; ++i) {
      const std::string_view value = view_of(attribute.values.get()[i]);
      const auto counted = count_bytes(sizeof(LdifAttribute) + attribute.name.name.size() + value.size());
      if (!counted) return counted;
      entry.attributes.push_back({attribute.name.name, std::string(value)});
    }
    return {};
  }

  // The range must hold what its name says, or members would be missing without anybody noticing.
  Result<void> check_range(const RawAttribute& attribute, uint64_t expected) const {
    const AttributeName& name = attribute.name;
    const size_t count = attribute.count();
    const bool fits = name.low == expected && count > 0 && (name.last || name.high - name.low == count - 1);
    if (fits) return {};
    return session_.fail(kDirectoryOther, "search: " + printable(name.name) + ": a range that begins at " +
                                              std::to_string(name.low) + " instead of " +
                                              std::to_string(expected) +
                                              ", or with a wrong number of values");
  }

  Result<void> begin_range(const RawAttribute& attribute, std::vector<OpenRange>& ranges) const {
    if (const auto fits = check_range(attribute, 0); !fits) return fits;
    if (!attribute.name.last) ranges.push_back({attribute.name.name, attribute.name.high + 1});
    return {};
  }

  Result<void> finish_ranges() {
    for (WaitingEntry& one : waiting_) {
      for (OpenRange& range : one.ranges) {
        const auto filled = fill_range(one.entry, range);
        if (!filled) return filled;
      }
      const auto handed = each_(one.entry);
      if (!handed) return handed;
    }
    waiting_.clear();
    return {};
  }

  Result<void> fill_range(LdifRecord& entry, OpenRange& range) {
    for (int count = 0; count < kMostRanges; ++count) {
      const auto last = read_range(entry, range);
      if (!last) return tl::unexpected(last.error());
      if (*last) return {};
    }
    return session_.fail(kDirectoryOther, "search: " + printable(range.attribute) + ": ranges without end");
  }

  // True: the values are complete.
  Result<bool> read_range(LdifRecord& entry, OpenRange& range) {
    const std::string wanted = range.attribute + ";range=" + std::to_string(range.next) + "-*";
    const auto id = send(entry.dn, LDAP_SCOPE_BASE, "(objectClass=*)", {wanted}, nullptr);
    if (!id) return tl::unexpected(id.error());
    const uint64_t before = range.next;
    bool last = false;
    for (;;) {
      const auto message = receive(*id, "search for more values");
      if (!message) return tl::unexpected(message.error());
      const int type = ldap_msgtype(message->get());
      if (type == LDAP_RES_SEARCH_RESULT) {
        const auto outcome = session_.parse_outcome(message->get(), "search for more values");
        if (!outcome) return tl::unexpected(outcome.error());
        if (outcome->code != LDAP_SUCCESS) return session_.refused(*outcome, "search for more values");
        if (!last && range.next == before)
          return session_.fail(kDirectoryOther,
                               "search: " + printable(wanted) + ": the values end before the last");
        return last;
      }
      Result<void> taken;
      if (type != LDAP_RES_SEARCH_ENTRY) {
        taken = count_other();
      } else {
        taken = take_range(message->get(), entry, range, last);
      }
      if (!taken) {
        session_.abandon(*id);
        return tl::unexpected(taken.error());
      }
    }
  }

  tl::unexpected<Error> unexpected_values(const std::string& wanted) const {
    return session_.fail(kDirectoryOther,
                         "search: " + printable(wanted) + ": more values than were asked for");
  }

  Result<void> take_range(LDAPMessage* message, LdifRecord& entry, OpenRange& range, bool& last) {
    EntryWalk walk(session_, message);
    if (const auto dn = walk.read_dn(); !dn) return tl::unexpected(dn.error());
    RawAttribute attribute;
    for (;;) {
      const auto more = walk.next(attribute);
      if (!more) return tl::unexpected(more.error());
      if (!*more) return {};
      // The plain attribute stands beside its range, without values.
      if (attribute.name.name != range.attribute || (!attribute.name.ranged && attribute.count() == 0))
        continue;
      if (last || !attribute.name.ranged) return unexpected_values(range.attribute);
      auto added = check_range(attribute, range.next);
      if (added) added = add_values(entry, attribute);
      if (!added) return added;
      last = attribute.name.last;
      range.next += attribute.count();
    }
  }

  LdapConnection::Session& session_;
  const SearchRequest& request_;
  const EntrySink& each_;
  Deadline answered_by_;            // the request that was sent last
  steady_clock::time_point heard_;  // when it was sent, or the last of its answers came
  bool paged_ = true;
  uint64_t entries_ = 0;
  uint64_t others_ = 0;
  uint64_t bytes_ = 0;
  LdifRecord entry_;
  std::vector<WaitingEntry> waiting_;
};

bool holds_nul(const SearchRequest& request) {
  const auto has_nul = [](const std::string& text) { return text.find('\0') != std::string::npos; };
  return has_nul(request.base) || has_nul(request.filter) ||
         std::any_of(request.attributes.begin(), request.attributes.end(), has_nul);
}

}  // namespace

AttributeName parse_attribute_name(std::string_view description) {
  constexpr std::string_view kRange = "range=";
  AttributeName result;
  size_t end = std::min(description.find(';'), description.size());
  result.name = ascii_lower(description.substr(0, end));
  result.valid = !result.name.empty();
  while (end < description.size()) {
    const size_t begin = end + 1;
    end = std::min(description.find(';', begin), description.size());
    const std::string_view option = description.substr(begin, end - begin);
    if (!ascii_iequals(option.substr(0, kRange.size()), kRange)) continue;
    const std::string_view range = option.substr(kRange.size());
    const size_t dash = std::min(range.find('-'), range.size());
    const std::string_view high = dash < range.size() ? range.substr(dash + 1) : std::string_view();
    result.last = high == "*";
    result.valid = result.valid && !result.ranged && parse_number(range.substr(0, dash), result.low) &&
                   (result.last || (parse_number(high, result.high) && result.high >= result.low &&
                                    result.high < UINT64_MAX));
    result.ranged = true;
  }
  return result;
}

Result<void> LdapConnection::search(const SearchRequest& request, const EntrySink& each) {
  if (auto ready = session_->ready(); !ready) return ready;
  // The client library would take the text before it for the whole, which is another question.
  if (holds_nul(request)) return session_->fail(kDirectoryOther, "search: a NUL in the request");
  return Search(*session_, request, each).run();
}

Result<RootDse> LdapConnection::read_root_dse() {
  SearchRequest request;
  request.scope = SearchScope::kBase;
  request.attributes = {"namingContexts", "defaultNamingContext", "supportedControl"};
  RootDse result;
  const auto found = search(request, [&](LdifRecord& entry) -> Result<void> {
    for (LdifAttribute& one : entry.attributes) {
      if (one.name == "namingcontexts") result.naming_contexts.push_back(std::move(one.value));
      if (one.name == "defaultnamingcontext") result.default_naming_context = std::move(one.value);
      if (one.name == "supportedcontrol" && one.value == LDAP_CONTROL_PAGEDRESULTS)
        result.offers_paging = true;
    }
    return {};
  });
  if (!found) return tl::unexpected(found.error());
  return result;
}

}  // namespace velder
