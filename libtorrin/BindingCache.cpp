#include "libtorrin/BindingCache.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include "brellog/VrLog.h"
#include "libtorrin/Address.h"
#include "libtorrin/BindingExport.h"
#include "libtorrin/IPUserCacheModule.h"
#include "libtorrin/PathText.h"
#include "libtorrin/Printable.h"

namespace torrin {
namespace {

constexpr int kInitializeFailed = 1;

using Result = tl::expected<void, std::string>;

int to_result(StoreResult result) {
  switch (result) {
    case StoreResult::kDone: return kCacheSuccess;
    case StoreResult::kMissing: return kCacheNotFound;
    case StoreResult::kFailed: return kCacheStoreFailed;
  }
  return kCacheStoreFailed;
}

// The names in the folder stay valid when somebody changes the working directory of the process.
tl::expected<std::string, std::string> absolute_path(const char* workdir) {
  if (workdir == nullptr) return tl::unexpected<std::string>("no working directory");
  if (*workdir == '\0') workdir = "/";
  const std::unique_ptr<char, decltype(&std::free)> resolved(realpath(workdir, nullptr), &std::free);
  if (!resolved) return tl::unexpected(std::string(workdir) + ": " + std::strerror(errno));
  return std::string(resolved.get());
}

}  // namespace

int64_t system_clock_seconds() {
  return std::time(nullptr);
}

BindingCache::BindingCache(Surroundings surroundings) : surroundings_(std::move(surroundings)) {}

BindingCache::~BindingCache() {
  if (owner_ == -1 || is_inherited()) return;
  copy();
  close_flush_descriptor();
  store_.close();
}

bool BindingCache::is_inherited() const {
  return owner_ != -1 && owner_ != getpid();
}

int BindingCache::initialize(const char* workdir) {
  if (owner_ != -1) {
    VRLOG(kLogError, "IP-user cache: initialised twice");
    return kInitializeFailed;
  }
  const Result started = start(workdir);
  if (started) {
    owner_ = getpid();
    return kCacheSuccess;
  }
  VRLOG(kLogError, "IP-user cache: %s", printable(started.error()).c_str());
  close_flush_descriptor();
  store_.close();
  recovery_.reset();
  return kInitializeFailed;
}

Result BindingCache::start(const char* workdir) {
  const auto base = absolute_path(workdir);
  if (!base) return tl::unexpected(base.error());
  auto settings = read_settings(*base);
  if (!settings) return tl::unexpected(settings.error());
  settings_ = std::move(*settings);
  const auto names = split_relative_path(settings_.directory);
  workdir_ = *base;
  folder_ = *base;
  for (const std::string& name : *names) folder_ += "/" + name;
  recovery_ = std::make_unique<Recovery>(folder_, settings_.durable, surroundings_.boot_id_file);
  if (Result taken = recovery_->take_folder(*base, *names); !taken) return taken;
  if (Result prepared = recovery_->prepare(); !prepared) return prepared;
  if (Result opened = open_store(); !opened) return opened;
  if (Result opened = open_flush_descriptor(); !opened) return opened;
  return recovery_->finish();
}

Result BindingCache::open_store() {
  const StoreOptions options{folder_ + "/" + kLiveFile, settings_.durable, surroundings_.map_bytes};
  const auto in_child = [this] { start_maintenance(store_, folder_, surroundings_.clock); };
  auto opened = store_.open(options, in_child);
  if (!opened && opened.error().damaged) {
    if (Result replaced = recovery_->replace_damaged(opened.error().text); !replaced) return replaced;
    opened = store_.open(options, in_child);
  }
  if (!opened) return tl::unexpected(options.path + ": " + opened.error().text);
  return {};
}

// Opened before it is needed and kept in all processes: the handler of an exit signal can only flush.
Result BindingCache::open_flush_descriptor() {
  const std::string path = folder_ + "/" + kLiveFile;
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return tl::unexpected(path + ": " + std::strerror(errno));
  flush_fd_.store(fd);
  // What was bound before Durable was switched on.
  if (settings_.durable && fdatasync(fd) != 0) return tl::unexpected(path + ": " + std::strerror(errno));
  return {};
}

void BindingCache::close_flush_descriptor() {
  const int fd = flush_fd_.exchange(-1);
  if (fd >= 0) close(fd);
}

int64_t BindingCache::expiry_from(int64_t now) const {
  if (settings_.lifetime_minutes == 0) return kNeverExpires;
  // A clock before the epoch must not give an expiry that reads as "never".
  return std::max<int64_t>(now, 0) + settings_.lifetime_minutes * 60;
}

int BindingCache::query(const char* ip, std::string& user, long& expire) {
  const auto key = parse_address(ip);
  if (!key) return kCacheRefused;
  RecordBuffer record;
  const StoreResult found = store_.get(*key, record);
  if (found != StoreResult::kDone) return to_result(found);
  const auto binding = decode_record(record.view());
  if (!binding || !is_live(binding->expiry, surroundings_.clock())) return kCacheNotFound;
  user = binding->user;
  expire = binding->expiry;
  return kCacheSuccess;
}

int BindingCache::update(const char* ip, const std::string& user) {
  IPUserChange one{ip, &user};
  change({&one, 1});
  return one.result;
}

int BindingCache::remove(const char* ip) {
  IPUserChange one{ip, nullptr};
  change({&one, 1});
  return one.result;
}

void BindingCache::change(std::span<IPUserChange> changes) {
  const int64_t now = surroundings_.clock();
  std::vector<StoreChange> prepared;
  prepared.reserve(changes.size());
  for (IPUserChange& change : changes) {
    const auto key = parse_address(change.ip);
    change.result = kCacheRefused;
    if (!key || (change.user != nullptr && !is_valid_user(*change.user))) continue;
    change.result = kCacheSuccess;
    if (change.user != nullptr) {
      prepared.push_back({*key, expiry_from(now), *change.user});
      continue;
    }
    // Most unbinds of nothing end here, without waiting for a writer.
    RecordBuffer record;
    if (prepared.empty()) change.result = to_result(store_.get(*key, record));
    if (change.result == kCacheSuccess) prepared.push_back({*key, 0, {}});
  }
  if (prepared.empty()) return;
  store_.change(prepared, now);
  auto made = prepared.begin();
  for (IPUserChange& change : changes) {
    if (change.result == kCacheSuccess) change.result = to_result((made++)->result);
  }
}

bool BindingCache::export_to(const std::string& path) {
  const ExportRules rules{settings_.export_directory, folder_, workdir_};
  const Result exported = export_bindings(store_, path, rules, surroundings_.clock());
  if (!exported) {
    const auto begin = std::string_view(path).substr(0, PATH_MAX);
    VRLOG(kLogError, "IP-user cache: no export to %s: %s", shortened(printable(begin)).c_str(),
          printable(exported.error()).c_str());
  }
  return exported.has_value();
}

int BindingCache::flush() const {
  const int saved_errno = errno;
  const int fd = flush_fd_.load(std::memory_order_relaxed);
  const bool flushed = fd >= 0 && fdatasync(fd) == 0;
  errno = saved_errno;
  return flushed ? kCacheSuccess : kCacheStoreFailed;
}

}  // namespace torrin
