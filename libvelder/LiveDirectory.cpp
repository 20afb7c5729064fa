#include "libvelder/LiveDirectory.h"

#include <pthread.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "brellog/VrLog.h"
#include "daemonbase/Immortal.h"
#include "libvelder/LdapSource.h"
#include "libvelder/LdifSource.h"
#include "libvelder/LongWaits.h"
#include "libvelder/LongWork.h"
#include "libvelder/Settings.h"

namespace velder {
namespace {

using Clock = std::chrono::steady_clock;

// A snapshot that cannot be opened is tried again after this time, not at every look-up: each try may read
// a whole LDIF file, and logs a line.
constexpr std::chrono::seconds kRetryAfter{30};

using SharedSnapshot = std::shared_ptr<const SnapshotFile>;

struct InForce {
  SharedSnapshot file;  // null: the ldap source before its first snapshot
  uint32_t search_limit = 0;
  std::shared_ptr<const LdapServers> servers;  // null: the ldif source
  std::shared_ptr<GssAcceptor> acceptor;
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
  // What a parent had in force: its threads may have been anywhere in it, so it is not even taken apart.
  std::vector<std::shared_ptr<const InForce>> inherited;

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
                                                 if (s.in_force) s.inherited.push_back(std::move(s.in_force));
                                                 s.in_force.reset();
                                                 s.broken.reset();
                                                 s.forks.fetch_add(1);
                                                 s.generation.fetch_add(1);
                                                 s.mutex.unlock();
                                               });
  static_cast<void>(registered);
}

// One thread's connection. It is opened and closed with the mutex held: the engine takes locks of its own
// then, and a fork must not find them taken.
class Connection {
 public:
  Connection() = default;
  ~Connection() {
    if (reader_ == nullptr) return;
    const std::lock_guard lock(state().mutex);
    drop();
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool is_of(uint64_t generation) const { return generation_ == generation; }

  // After drop().
  Result<void> turn_to(const InForce& what, uint64_t generation) {
    count_request_thread();
    if (what.file) {
      auto opened = SnapshotReader::open(what.file);
      if (!opened) return tl::make_unexpected(opened.error());
      reader_ = std::move(*opened);
    }
    search_limit_ = what.search_limit;
    servers_ = what.servers;
    has_servers_ = what.servers != nullptr;
    acceptor_ = what.acceptor;
    generation_ = generation;
    forks_ = state().forks.load();
    return {};
  }

  void drop() {
    generation_ = 0;
    servers_.reset();
    acceptor_.reset();
    if (reader_ == nullptr) return;
    if (forks_ == state().forks.load()) {
      reader_.reset();
    } else {
      static_cast<void>(reader_.release());  // the parent's; given up
    }
  }

  // Nothing when it is of no use any more.
  std::optional<DirectoryLease> lease() {
    if (reader_ != nullptr && reader_->failure()) return std::nullopt;
    DirectoryLease lease{reader_.get(), search_limit_, servers_.lock(), acceptor_};
    if (has_servers_ && !lease.servers) return std::nullopt;  // replaced just now
    return lease;
  }

 private:
  std::unique_ptr<SnapshotReader> reader_;
  uint32_t search_limit_ = 0;
  // Not held between look-ups: an idle thread would keep connections to servers open that nobody uses.
  std::weak_ptr<const LdapServers> servers_;
  bool has_servers_ = false;
  std::shared_ptr<GssAcceptor> acceptor_;
  uint64_t generation_ = 0;  // 0: of none
  uint64_t forks_ = 0;
};

Connection& connection() {
  thread_local Connection the_connection;
  return the_connection;
}

Result<Settings> read_settings(const std::string& workdir) {
  auto settings = load_settings(workdir);
  if (!settings) return settings;
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

std::string local_time(int64_t seconds) {
  const time_t time = seconds;
  tm parts{};
  char text[32] = "";
  if (localtime_r(&time, &parts) != nullptr) strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
  return text;
}

void log_servers(const SharedSnapshot& file, const Settings& settings) {
  if (!file) {
    VRLOG(kLogInfo, "Directory: no snapshot of the servers yet, look-ups go to the servers of %zu domains",
          settings.domains.size());
    return;
  }
  VRLOG(kLogInfo, "Directory: snapshot of the servers of %s, %lld users, %lld groups",
        local_time(file->meta().built_at).c_str(), static_cast<long long>(file->meta().users),
        static_cast<long long>(file->meta().groups));
}

// The snapshot of the servers; null when there is none yet. One of an LDIF file does not count: whoever
// turned to servers does not want its users any more.
Result<SharedSnapshot> find_ldap_snapshot(const std::string& workdir,
                                          const std::optional<FileIdentity>& verified) {
  const std::string path = path_in(workdir, kSnapshotName);
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0 && errno == ENOENT) return SharedSnapshot();
  auto file = SnapshotFile::open(path, verified);
  if (!file) return tl::make_unexpected(file.error());
  if ((*file)->meta().source != kLdapSourceName) return SharedSnapshot();
  return std::move(*file);
}

// The same where a damaged snapshot must not stop the start: look-ups go to the servers then.
SharedSnapshot usable_ldap_snapshot(const std::string& workdir, const std::optional<FileIdentity>& verified) {
  auto file = find_ldap_snapshot(workdir, verified);
  if (file) return std::move(*file);
  VRLOG(kLogError, "Directory: %s; look-ups go to the servers until the next synchronisation",
        printable(file.error().text, 1000).c_str());
  return nullptr;
}

std::optional<FileIdentity> identity_of(const SharedSnapshot& file) {
  return file ? std::optional(file->identity()) : std::nullopt;
}

// Settings that have not changed keep what was opened for them.
std::shared_ptr<GssAcceptor> acceptor_for(const Settings& settings, const std::string& workdir,
                                          const InForce* before) {
  if (before != nullptr && before->acceptor->settings() == settings) return before->acceptor;
  return std::make_shared<GssAcceptor>(settings, workdir);
}

std::shared_ptr<const InForce> with_servers(SharedSnapshot file, const Settings& settings,
                                            const std::string& workdir, const InForce* before) {
  std::shared_ptr<const LdapServers> servers = before != nullptr ? before->servers : nullptr;
  if (!servers || servers->settings() != settings) {
    servers = std::make_shared<const LdapServers>(settings, servers.get());
  }
  return std::make_shared<const InForce>(InForce{std::move(file), settings.search_limit, std::move(servers),
                                                 acceptor_for(settings, workdir, before)});
}

// With the mutex held. The first look-up of a process, or the first after a failure.
Result<std::shared_ptr<const InForce>> open_snapshot(State& s) {
  if (!s.workdir) return tl::make_unexpected(Error{kDirectoryOther, "the directory is not initialised"});
  // A worker that was forked late takes today's settings; the parent's do when they are broken, or when they
  // name another source, to which only a reload turns.
  if (auto settings = load_settings(*s.workdir); settings && settings->source == s.settings.source) {
    s.settings = std::move(*settings);
  }
  if (s.settings.source == Source::kLdap) {
    SharedSnapshot file = usable_ldap_snapshot(*s.workdir, s.verified);
    s.verified = identity_of(file);
    return with_servers(std::move(file), s.settings, *s.workdir, nullptr);
  }
  auto file = SnapshotFile::open(path_in(*s.workdir, kSnapshotName), s.verified);
  if (!file || (*file)->meta().source == kLdapSourceName) {
    if (!file) VRLOG(kLogError, "Directory: %s", printable(file.error().text, 1000).c_str());
    auto update = update_from_ldif(*s.workdir, s.settings, s.verified);
    if (!update) return tl::make_unexpected(update.error());
    log_update(*update, s.settings);
    file = update->file;
  }
  s.verified = (*file)->identity();
  return std::make_shared<const InForce>(
      InForce{*file, s.settings.search_limit, nullptr, acceptor_for(s.settings, *s.workdir, nullptr)});
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

void put_in_force(State& s, std::shared_ptr<const InForce> what) {
  s.broken.reset();
  s.in_force = std::move(what);
  s.generation.fetch_add(1);
}

// The groups of a snapshot that is about to be put in force: read here, so that the first look-up in it need
// not wait for them. An error comes back there.
void read_ahead(const SnapshotFile& file) {
  static_cast<void>(file.groups());
}

// The newest file counts, but one that was read ahead is not given up for itself.
template <class File>
void take_newest(File& file, const Result<File>& newest) {
  if (newest && *newest && identity_of(*newest) != identity_of(file)) file = *newest;
}

// A thread that nobody needs keeps the snapshot that it was asked about last, maybe for days, but not what
// was remembered of the users.
void forget_users(const std::shared_ptr<const InForce>& before, const SnapshotFile* now) {
  if (before && before->file && before->file.get() != now) before->file->known_users().forget();
}

Result<void> reload_from_servers(State& s, const std::string& workdir, Settings settings,
                                 const std::optional<FileIdentity>& verified) {
  auto file = find_ldap_snapshot(workdir, verified);
  if (!file) return tl::make_unexpected(file.error());
  if (*file) read_ahead(**file);

  std::shared_ptr<const InForce> before;  // outlives the lock: it may be the last to hold old servers
  bool same = false;
  {
    const std::lock_guard lock(s.mutex);
    // Opened once more, now that nobody else can: of two reloads at once the later one may come here first.
    take_newest(*file, find_ldap_snapshot(workdir, identity_of(*file)));
    before = s.in_force;
    const bool had_one = before && before->file && before->servers;
    if (!*file && had_one) {
      return tl::make_unexpected(
          Error{kDirectoryOther, path_in(workdir, kSnapshotName) +
                                     ": no snapshot of the servers any more, the one in use stays in use"});
    }
    same = before && before->servers && before->servers->settings() == settings &&
           identity_of(before->file) == identity_of(*file);
    s.settings = std::move(settings);
    s.verified = identity_of(*file);
    if (!same) put_in_force(s, with_servers(*file, s.settings, workdir, before.get()));
  }
  log_servers(*file, s.settings);
  if (!same) forget_users(before, file->get());
  return {};
}

bool is_missing(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) != 0 && errno == ENOENT;
}

bool holds_entries(const std::string& workdir, const std::optional<FileIdentity>& verified) {
  const auto file = SnapshotFile::open(path_in(workdir, kSnapshotName), verified);
  return file && (*file)->meta().users + (*file)->meta().groups > 0;
}

// A file that is away for a moment must not empty a directory in use; at a start it means an empty one.
Result<void> reload_from_ldif(State& s, const std::string& workdir, Settings settings,
                              const std::optional<FileIdentity>& verified) {
  if (is_missing(settings.ldif_file) && holds_entries(workdir, verified)) {
    return tl::make_unexpected(
        Error{kDirectoryOther, settings.ldif_file + ": missing, the directory in use stays in use"});
  }
  auto update = update_from_ldif(workdir, settings, verified);
  if (!update) return tl::make_unexpected(update.error());
  log_update(*update, settings);
  read_ahead(*update->file);

  std::shared_ptr<const SnapshotFile> file = update->file;
  std::shared_ptr<const InForce> before;
  bool same = false;
  {
    const std::lock_guard lock(s.mutex);
    // As above.
    take_newest(file, SnapshotFile::open(path_in(workdir, kSnapshotName), file->identity()));
    s.settings = std::move(settings);
    s.verified = file->identity();
    s.broken.reset();
    before = s.in_force;
    same = before && !before->servers && before->file->identity() == file->identity() &&
           before->search_limit == s.settings.search_limit && before->acceptor->settings() == s.settings;
    if (!same) {
      put_in_force(s,
                   std::make_shared<const InForce>(InForce{file, s.settings.search_limit, nullptr,
                                                           acceptor_for(s.settings, workdir, before.get())}));
    }
  }
  if (!same) forget_users(before, file.get());
  return {};
}

}  // namespace

Result<void> initialize_directory(const std::string& workdir) {
  register_fork_handlers();
  auto settings = read_settings(workdir);
  if (!settings) return tl::make_unexpected(settings.error());
  if (auto checked = check_acceptor_files(*settings); !checked) return checked;
  std::string main_domain = settings->domains.empty() ? "WORKGROUP" : settings->domains.front().netbios_name;
  bool asks_winbind = settings->ntlm_user_file.empty();
  std::optional<FileIdentity> verified;
  if (settings->source == Source::kLdap) {
    const SharedSnapshot file = usable_ldap_snapshot(workdir, std::nullopt);
    log_servers(file, *settings);
    verified = identity_of(file);
  } else {
    auto update = update_from_ldif(workdir, *settings, std::nullopt);
    if (!update) return tl::make_unexpected(update.error());
    log_update(*update, *settings);
    verified = update->file->identity();
    const SnapshotMeta& meta = update->file->meta();
    if (settings->domains.empty() && !meta.main_domain.empty()) main_domain = meta.main_domain;
    asks_winbind = asks_winbind && meta.nt_hashes == 0;
  }
  prepare_ntlm(asks_winbind ? "" : main_domain);

  State& s = state();
  std::shared_ptr<const InForce> before;
  const std::lock_guard lock(s.mutex);
  s.workdir = workdir;
  s.settings = std::move(*settings);
  s.verified = verified;
  before = s.in_force;
  put_in_force(s, nullptr);
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
  // A keytab or users file that is away must not keep the directory from being refreshed: logons that need it
  // fail, each with its own line.
  if (auto checked = check_acceptor_files(*settings); !checked) {
    VRLOG(kLogError, "Directory: %s", printable(checked.error().text, 1000).c_str());
  }
  const bool from_servers = settings->source == Source::kLdap;
  return from_servers ? reload_from_servers(s, *workdir, std::move(*settings), verified)
                      : reload_from_ldif(s, *workdir, std::move(*settings), verified);
}

Result<DirectoryLease> lease_directory() {
  State& s = state();
  Connection& mine = connection();
  if (mine.is_of(s.generation.load(std::memory_order_acquire))) {
    if (auto lease = mine.lease()) return std::move(*lease);
  }
  before_long_work();
  const std::lock_guard lock(s.mutex);
  mine.drop();
  const auto what = in_force(s);
  if (!what) return tl::make_unexpected(what.error());
  if (auto opened = mine.turn_to(**what, s.generation.load()); !opened) {
    return tl::make_unexpected(opened.error());
  }
  return *mine.lease();  // `what` holds the servers
}

}  // namespace velder
