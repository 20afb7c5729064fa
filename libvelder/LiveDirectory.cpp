#include "libvelder/LiveDirectory.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "brellog/VrLog.h"
#include "daemonbase/Immortal.h"
#include "libvelder/LdifSource.h"
#include "libvelder/Settings.h"

namespace velder {
namespace {

using Clock = std::chrono::steady_clock;

// A snapshot that cannot be opened is tried again after this time, not at every look-up: each try may read
// a whole LDIF file, and logs a line.
constexpr std::chrono::seconds kRetryAfter{30};

struct InForce {
  std::shared_ptr<const SnapshotFile> file;
  uint32_t search_limit = 0;
};

// Of the whole process. Never destroyed: a worker ends while its threads are still at work.
struct State {
  std::mutex mutex;  // guards all below but the two numbers; held while a fork takes place
  std::optional<std::string> workdir;
  Settings settings;
  std::optional<FileIdentity> verified;  // the snapshot file that passed its checksum last
  std::shared_ptr<const InForce> in_force;
  std::optional<Error> broken;  // why opening failed, until `retry_at`
  Clock::time_point retry_at;

  std::atomic<uint64_t> generation{1};  // of what is in force; raised by forks, too
  std::atomic<uint64_t> forks{0};       // how many lie between the first process and this one
};

State& state() {
  static Immortal<State> the_state;
  return the_state.get();
}

// The mutex is free in the child, and what it guards is whole.
void register_fork_handlers() {
  static const int registered = pthread_atfork([] { state().mutex.lock(); }, [] { state().mutex.unlock(); },
                                               [] {
                                                 State& s = state();
                                                 s.in_force.reset();
                                                 s.broken.reset();
                                                 s.forks.fetch_add(1);
                                                 s.generation.fetch_add(1);
                                                 s.mutex.unlock();
                                               });
  static_cast<void>(registered);
}

// One thread's connection.
class Connection {
 public:
  Connection() = default;
  ~Connection() { drop(); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool is_of(uint64_t generation) const { return reader_ != nullptr && generation_ == generation; }

  Result<void> turn_to(std::shared_ptr<const InForce> what, uint64_t generation) {
    drop();
    auto opened = SnapshotReader::open(what->file);
    if (!opened) return tl::make_unexpected(opened.error());
    reader_ = std::move(*opened);
    search_limit_ = what->search_limit;
    generation_ = generation;
    forks_ = state().forks.load();
    return {};
  }

  // The connection is of no use any more.
  void drop() {
    if (reader_ == nullptr) return;
    if (forks_ == state().forks.load()) {
      reader_.reset();
    } else {
      static_cast<void>(reader_.release());  // the parent's; given up
    }
  }

  DirectoryLease lease() { return {reader_.get(), search_limit_}; }
  bool failed() const { return reader_->failure().has_value(); }

 private:
  std::unique_ptr<SnapshotReader> reader_;
  uint32_t search_limit_ = 0;
  uint64_t generation_ = 0;
  uint64_t forks_ = 0;
};

Connection& connection() {
  thread_local Connection the_connection;
  return the_connection;
}

Result<Settings> read_settings(const std::string& workdir) {
  auto settings = load_settings(workdir);
  if (!settings) return settings;
  if (settings->source != Source::kLdif) {
    return tl::make_unexpected(Error{
        kDirectoryOther, path_in(workdir, "LdapSetting.ini") +
                             ": [LDAP_Setting] Source: this build reads LDIF files only, expected ldif"});
  }
  for (const std::string& warning : settings->warnings) VRLOG(kLogInfo, "Directory: %s", warning.c_str());
  return settings;
}

void log_update(const LdifUpdate& update, const Settings& settings) {
  const SnapshotMeta& meta = update.file->meta();
  const std::string ldif = printable(settings.ldif_file, 200);
  if (!update.rebuilt) {
    VRLOG(kLogInfo, "Directory: %s is unchanged, %lld users, %lld groups", ldif.c_str(),
          static_cast<long long>(meta.users), static_cast<long long>(meta.groups));
    return;
  }
  VRLOG(
      kLogInfo,
      "Directory: built from %s in %.1f s: %lld users, %lld groups, %lld memberships, %lld entries without a "
      "usable uid passed over (before: %s)",
      ldif.c_str(), update.seconds, static_cast<long long>(meta.users), static_cast<long long>(meta.groups),
      static_cast<long long>(meta.memberships), static_cast<long long>(meta.skipped_users),
      printable(update.reason, 300).c_str());
}

// With the mutex held. The first look-up of a process, or the first after a failure.
Result<std::shared_ptr<const InForce>> open_snapshot(State& s) {
  if (!s.workdir) return tl::make_unexpected(Error{kDirectoryOther, "the directory is not initialised"});
  // A worker that was forked late takes today's settings; the parent's do when they are broken.
  if (auto settings = load_settings(*s.workdir); settings && settings->source == Source::kLdif) {
    s.settings = std::move(*settings);
  }
  auto file = SnapshotFile::open(path_in(*s.workdir, kSnapshotName), s.verified);
  if (!file) {
    VRLOG(kLogError, "Directory: %s", printable(file.error().text, 1000).c_str());
    auto update = update_from_ldif(*s.workdir, s.settings, s.verified);
    if (!update) return tl::make_unexpected(update.error());
    log_update(*update, s.settings);
    file = update->file;
  }
  s.verified = (*file)->identity();
  return std::make_shared<const InForce>(InForce{*file, s.settings.search_limit});
}

// With the mutex held.
Result<std::shared_ptr<const InForce>> in_force(State& s) {
  if (s.in_force) return s.in_force;
  if (s.broken && Clock::now() < s.retry_at) return tl::make_unexpected(*s.broken);
  auto opened = open_snapshot(s);
  if (!opened) {
    s.broken = opened.error();
    s.retry_at = Clock::now() + kRetryAfter;
    VRLOG(kLogError, "Directory: %s", printable(opened.error().text, 1000).c_str());
    return opened;
  }
  s.broken.reset();
  s.in_force = *opened;
  return opened;
}

}  // namespace

Result<void> initialize_directory(const std::string& workdir) {
  register_fork_handlers();
  auto settings = read_settings(workdir);
  if (!settings) return tl::make_unexpected(settings.error());
  auto update = update_from_ldif(workdir, *settings, std::nullopt);
  if (!update) return tl::make_unexpected(update.error());
  log_update(*update, *settings);

  State& s = state();
  const std::lock_guard lock(s.mutex);
  s.workdir = workdir;
  s.settings = std::move(*settings);
  s.verified = update->file->identity();
  s.in_force.reset();
  s.broken.reset();
  s.generation.fetch_add(1);
  return {};
}

Result<void> reload_directory() {
  State& s = state();
  std::optional<std::string> workdir;
  std::optional<FileIdentity> verified;
  {
    const std::lock_guard lock(s.mutex);
    workdir = s.workdir;
    verified = s.verified;
  }
  if (!workdir) return tl::make_unexpected(Error{kDirectoryOther, "the directory is not initialised"});
  auto settings = read_settings(*workdir);
  if (!settings) return tl::make_unexpected(settings.error());
  auto update = update_from_ldif(*workdir, *settings, verified);
  if (!update) return tl::make_unexpected(update.error());
  log_update(*update, *settings);

  const std::lock_guard lock(s.mutex);
  // Opened once more, now that nobody else can: of two reloads at once the later one may come here first,
  // and the newest file counts.
  auto newest = SnapshotFile::open(path_in(*workdir, kSnapshotName), update->file->identity());
  const auto file = newest ? *newest : update->file;
  s.settings = std::move(*settings);
  s.verified = file->identity();
  s.broken.reset();
  const bool same = s.in_force && s.in_force->file->identity() == file->identity() &&
                    s.in_force->search_limit == s.settings.search_limit;
  if (same) return {};
  s.in_force = std::make_shared<const InForce>(InForce{file, s.settings.search_limit});
  s.generation.fetch_add(1);
  return {};
}

Result<DirectoryLease> lease_directory() {
  State& s = state();
  Connection& mine = connection();
  if (mine.is_of(s.generation.load(std::memory_order_acquire)) && !mine.failed()) return mine.lease();

  mine.drop();
  std::shared_ptr<const InForce> what;
  uint64_t generation = 0;
  {
    const std::lock_guard lock(s.mutex);
    auto found = in_force(s);
    if (!found) return tl::make_unexpected(found.error());
    what = std::move(*found);
    generation = s.generation.load();
  }
  if (auto opened = mine.turn_to(std::move(what), generation); !opened) {
    return tl::make_unexpected(opened.error());
  }
  return mine.lease();
}

}  // namespace velder
