#include "libvelder/LdapSource.h"

#include <chrono>
#include <list>
#include <utility>
#include <vector>

#include "libvelder/LdapConnection.h"
#include "libvelder/ServerPool.h"

namespace velder {
namespace {

using Time = std::chrono::steady_clock::time_point;

constexpr uint64_t kProgressEvery = 500;  // entries

// Of entries that come twice from one domain, beside those that another domain has as well. Beyond that the
// server goes round in circles.
constexpr size_t kMostRepeats = 1000;

constexpr std::string_view kNoUsers =
    "the servers gave no users at all (are BaseDN and Schema right, may the reading account see them?); "
    "nothing "
    "was published (--force publishes all the same)";

// What makes an entry a user or a group, as far as a server need send it. Object classes that a server does
// not know match nothing there.
constexpr std::string_view kAdFilter = "(|(&(objectClass=user)(!(objectClass=computer)))(objectClass=group))";
constexpr std::string_view kPosixFilter =
    "(|(objectClass=inetOrgPerson)(objectClass=person)(objectClass=posixAccount)(objectClass=user)"
    "(objectClass=groupOfNames)(objectClass=groupOfUniqueNames)(objectClass=posixGroup)(objectClass=group))";

tl::unexpected<Error> failed(int code, const std::string& text) {
  return tl::make_unexpected(Error{code, text});
}

// One reading of all domains into one builder. An entry may come twice: the trees of two domains may overlap,
// and one that is renamed meanwhile can be on two pages. Entries cannot be taken back, so a server that fails
// half-way through spoils the attempt: the next one begins with the server that took its place.
class Attempt {
 public:
  Attempt(const Settings& settings, const SyncOptions& options, Time until)
      : options_(options),
        until_(until),
        builder_(settings, BuildOptions{.keep_passwords = false, .pass_repeats = true}) {}

  Result<void> read(ServerPool& servers) {
    bool begun = false;
    const auto work = [&](LdapConnection& connection) -> Result<void> {
      if (std::exchange(begun, true)) {
        spoilt_ = true;
        return failed(kDirectoryOther, "the server changed while it was read");
      }
      return read_domain(servers.domain(), connection);
    };
    const size_t before = builder_.user_count() + builder_.repeat_count();
    auto done = servers.read(work);
    if (builder_.user_count() + builder_.repeat_count() == before) empty_ = servers.domain().dns_name;
    return done;
  }

  bool spoilt() const { return spoilt_; }
  uint64_t entries() const { return entries_; }
  // A domain that gave no users; "" when every one did.
  const std::string& empty_domain() const { return empty_; }
  SnapshotBuilder& builder() { return builder_; }

 private:
  Result<void> read_domain(const Domain& domain, LdapConnection& connection) {
    SearchRequest request;
    request.base = domain.base_dn;
    request.filter = domain.schema == Schema::kAd ? kAdFilter : kPosixFilter;
    request.attributes = directory_attributes();
    request.limits.by_entry = true;
    request.limits.until = until_;
    const size_t most_repeats = builder_.repeat_count() + entries_ + kMostRepeats;
    return connection.search(request, [&](LdifRecord& entry) -> Result<void> {
      report(domain.dns_name);
      if (builder_.repeat_count() > most_repeats)
        return failed(kDirectoryOther, connection.url() + ": the same entries come again and again");
      if (auto added = builder_.add(entry); !added) {
        return failed(added.error().code, connection.url() + ": " + added.error().text);
      }
      return {};
    });
  }

  void report(std::string_view domain) {
    if (entries_++ % kProgressEvery == 0 && options_.progress) options_.progress({domain, entries_});
  }

  const SyncOptions& options_;
  const Time until_;
  SnapshotBuilder builder_;
  uint64_t entries_ = 0;
  bool spoilt_ = false;
  std::string empty_;
};

std::string describe_origin(const Settings& settings) {
  std::string text = "domains:";
  for (const Domain& domain : settings.domains) text += " " + domain.dns_name + "=" + domain.base_dn;
  return text;
}

size_t server_count(const Settings& settings) {
  size_t count = 0;
  for (const Domain& domain : settings.domains) count += domain.servers.size();
  return count;
}

tl::unexpected<Error> out_of_time(const Error& error, const Attempt& attempt) {
  return failed(error.code, error.text + "; given up after " + std::to_string(attempt.entries()) +
                                " entries, because SyncTimeLimit is over; the present snapshot stays");
}

Result<SyncReport> publish(const std::string& workdir, const Settings& settings, const SyncOptions& options,
                           Attempt& attempt) {
  SyncReport report;
  report.before = present_ldap_snapshot(workdir);
  report.entries = attempt.entries();
  SnapshotBuilder& builder = attempt.builder();
  auto objection =
      guard_objection(settings.shrink_guard, report.before, builder.user_count(), builder.group_count());
  if (!objection && !attempt.empty_domain().empty())
    objection = "domain " + attempt.empty_domain() + ": " + std::string(kNoUsers);
  if (objection && !options.force) return failed(kDirectoryOther, *objection);

  if (options.progress) options.progress({"", attempt.entries()});
  report.meta.source = kLdapSourceName;
  report.meta.origin = describe_origin(settings);
  if (auto written = builder.write(path_in(workdir, kSnapshotDraftName), report.meta); !written) {
    return tl::make_unexpected(written.error());
  }
  if (auto published = publish_snapshot(workdir); !published) return tl::make_unexpected(published.error());
  return report;
}

// True when more than `percent` of `before` are gone.
bool shrank(int64_t before, size_t now, uint32_t percent) {
  const int64_t lost = before - static_cast<int64_t>(now);
  return percent < 100 && lost * 100 > before * static_cast<int64_t>(percent);
}

std::string shrink_text(const char* what, int64_t before, size_t now, uint32_t percent) {
  return "the servers gave " + std::to_string(now) + " " + what + " where there were " +
         std::to_string(before) + ", a loss of more than ShrinkGuard = " + std::to_string(percent) +
         " percent; the present snapshot stays (--force publishes the new one)";
}

}  // namespace

std::vector<std::string> directory_attributes() {
  return {"objectClass",
          "cn",
          "uid",
          "sAMAccountName",
          "userPrincipalName",
          "userAccountControl",
          "memberOf",
          "primaryGroupID",
          "objectSid",
          "member",
          "uniqueMember",
          "memberUid"};
}

std::optional<SnapshotMeta> present_ldap_snapshot(const std::string& workdir) {
  const auto file = SnapshotFile::open(path_in(workdir, kSnapshotName));
  if (!file || (*file)->meta().source != kLdapSourceName) return std::nullopt;
  return (*file)->meta();
}

std::optional<std::string> guard_objection(uint32_t shrink_guard, const std::optional<SnapshotMeta>& before,
                                           size_t users, size_t groups) {
  if (users == 0) {
    return std::string(kNoUsers);
  }
  if (!before) return std::nullopt;
  if (shrank(before->users, users, shrink_guard))
    return shrink_text("users", before->users, users, shrink_guard);
  if (shrank(before->groups, groups, shrink_guard)) {
    return shrink_text("groups", before->groups, groups, shrink_guard);
  }
  return std::nullopt;
}

Result<SyncReport> sync_from_servers(const std::string& workdir, const Settings& settings,
                                     const SyncOptions& options) {
  const Time begin = std::chrono::steady_clock::now();
  const auto end_of_wait = [&] {
    const bool limited = options.time_limit.count() != 0;
    return limited ? std::chrono::steady_clock::now() + options.time_limit : Time::max();
  };
  const auto lock = SnapshotLock::acquire(workdir, end_of_wait());
  if (!lock) return tl::make_unexpected(lock.error());
  const Time until = end_of_wait();

  std::list<ServerPool> pools;  // kept over the attempts: they remember who failed
  for (const Domain& domain : settings.domains) pools.emplace_back(domain, ServerPool::Probes::kNone);
  for (size_t attempts_left = server_count(settings) + 1;; --attempts_left) {
    Attempt attempt(settings, options, until);
    Result<void> read;
    for (ServerPool& servers : pools) {
      if (read = attempt.read(servers); !read) break;
    }
    if (!read && std::chrono::steady_clock::now() >= until) return out_of_time(read.error(), attempt);
    if (!read && attempt.spoilt() && attempts_left > 1) continue;
    if (!read) return tl::make_unexpected(read.error());
    auto report = publish(workdir, settings, options, attempt);
    if (report)
      report->seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    return report;
  }
}

}  // namespace velder
