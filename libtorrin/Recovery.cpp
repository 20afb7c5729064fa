// Who may do what to the folder's files is told by two record locks, which die with the process that took
// them and are not inherited by a fork:
// - owner.lock is held by the process that initialised the cache, for its whole life. A second daemon is
//   turned away; after the death of the parent alone a new one may start at once.
// - The lock file of the store itself is held, shared, by every process that has the store open. While a
//   worker of a dead parent still does, the live file is its and ours: the machine cannot have been
//   restarted since, nothing is thrown away, and both share the file as all processes do.
#include "libtorrin/Recovery.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "brellog/VrLog.h"
#include "libtorrin/StoreFile.h"

namespace torrin {
namespace {

constexpr char kOwnerFile[] = "owner.lock";
constexpr char kStateFile[] = "state";
constexpr char kStoreLockFile[] = "bindings.mdb-lock";
constexpr char kAside[] = "bindings.mdb.damaged";
constexpr char kAsideLock[] = "bindings.mdb.damaged-lock";
constexpr mode_t kFolderMode = 0700;
constexpr mode_t kFileMode = 0600;

using Result = tl::expected<void, std::string>;

tl::unexpected<std::string> system_error(const std::string& what, int error = errno) {
  return tl::unexpected(what + ": " + std::strerror(error));
}

struct flock whole_file(short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

std::string read_line(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

std::string read_all(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

Result sync_folder(const std::string& folder) {
  const UniqueFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd.valid() || fsync(fd.get()) != 0) return system_error(folder);
  return {};
}

// Copies `from` to the new file `to` and has it on the disk before it gets that name.
Result copy_file(const std::string& from, const std::string& to, const std::string& folder) {
  const std::string unfinished = to + ".new";
  const UniqueFd source(open(from.c_str(), O_RDONLY | O_CLOEXEC));
  if (!source.valid()) return system_error(from);
  const UniqueFd target(
      open(unfinished.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, kFileMode));
  if (!target.valid()) return system_error(unfinished);
  ssize_t sent = 0;
  do {
    sent = sendfile(target.get(), source.get(), nullptr, size_t{1} << 30);
  } while (sent > 0 || (sent < 0 && errno == EINTR));
  if (sent < 0 || fsync(target.get()) != 0 || rename(unfinished.c_str(), to.c_str()) != 0) {
    const int error = errno;
    unlink(unfinished.c_str());
    return system_error(to, error);
  }
  return sync_folder(folder);
}

tl::expected<FileHeader, std::string> check_file(const std::string& path) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0) return tl::unexpected<std::string>(std::strerror(errno));
  if (!S_ISREG(status.st_mode)) return tl::unexpected<std::string>("it is not a regular file");
  return check_store_file(fd.get());
}

bool exists(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

// A file that was created but never written is as good as none.
bool is_empty_file(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size == 0;
}

}  // namespace

Recovery::Recovery(std::string folder, bool durable, const std::string& boot_id_file)
    : folder_(std::move(folder)), durable_(durable), boot_id_(read_line(boot_id_file)) {}

Result Recovery::take_folder(const std::string& workdir, const std::vector<std::string>& names) {
  std::string made = workdir;
  for (const std::string& name : names) {
    made += "/" + name;
    if (mkdir(made.c_str(), kFolderMode) != 0 && errno != EEXIST) return system_error(made);
  }
  const std::string lock_path = path(kOwnerFile);
  owner_.reset(open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kFileMode));
  if (!owner_.valid()) return system_error(lock_path);
  struct flock lock = whole_file(F_WRLCK);
  if (fcntl(owner_.get(), F_SETLK, &lock) == 0) return {};
  if (errno != EACCES && errno != EAGAIN) return system_error(lock_path);
  lock = whole_file(F_WRLCK);
  fcntl(owner_.get(), F_GETLK, &lock);
  return tl::unexpected("the folder " + folder_ + " is used by another daemon (process " +
                        std::to_string(lock.l_pid) + ")");
}

Recovery::State Recovery::read_state() const {
  std::ifstream file(path(kStateFile));
  State state;
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("boot_id=")) state.boot_id = line.substr(std::strlen("boot_id="));
    if (line == "durable=yes") state.durable = true;
  }
  return state;
}

// What was not flushed may be missing after a restart of the machine, in any order: a file that was not
// written durably from its first bind on is then worth nothing, however sound it looks.
bool Recovery::live_file_survives(const State& before) const {
  if (!boot_id_.empty() && before.boot_id == boot_id_) return true;
  return before.durable;
}

Result Recovery::prepare() {
  // Opened and closed before the store opens the file itself: closing drops all locks of the process.
  if (const UniqueFd fd(open(path(kStoreLockFile).c_str(), O_RDWR | O_CLOEXEC)); fd.valid()) {
    struct flock lock = whole_file(F_WRLCK);
    shared_ = fcntl(fd.get(), F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
  }
  const std::string live = path(kLiveFile);
  if (shared_) {
    const UniqueFd fd(open(live.c_str(), O_RDONLY | O_CLOEXEC));
    const auto header = read_file_header(fd.get());
    if (header) {
      VRLOG(kLogInfo, "IP-user cache: workers of an earlier daemon still use %s, it is shared with them",
            live.c_str());
      return {};
    }
    return tl::unexpected(live + " is damaged (" + header.error() +
                          ") and workers of an earlier daemon still use it: end them first");
  }
  if (!exists(live) || is_empty_file(live)) return start_from_compact_copy("there is no live file");
  if (!live_file_survives(read_state())) {
    if (unlink(live.c_str()) != 0) return system_error(live);
    return start_from_compact_copy("the machine was restarted");
  }
  if (const auto header = check_file(live); !header) return replace_damaged(header.error());
  return {};
}

Result Recovery::replace_damaged(const std::string& reason) {
  const std::string live = path(kLiveFile);
  VRLOG(kLogError, "IP-user cache: %s is damaged (%s), it is put aside as %s", live.c_str(), reason.c_str(),
        kAside);
  if (rename(live.c_str(), path(kAside).c_str()) != 0) return system_error(live);
  // The lock file counts the transactions of the data file: they stay together.
  rename(path(kStoreLockFile).c_str(), path(kAsideLock).c_str());
  return start_from_compact_copy("the live file is damaged");
}

Result Recovery::start_from_compact_copy(const char* why) {
  const std::string compact = path(kCompactFile);
  if (!exists(compact)) {
    if (!exists(path(kStateFile))) return {};  // the very first start
    VRLOG(kLogInfo, "IP-user cache: %s and there is no compact copy: starting without bindings", why);
    return {};
  }
  const auto header = check_file(compact);
  if (!header) {
    VRLOG(kLogError, "IP-user cache: %s and %s is damaged (%s): starting without bindings", why,
          compact.c_str(), header.error().c_str());
    return {};
  }
  VRLOG(kLogInfo, "IP-user cache: %s: starting from the compact copy, %llu bindings", why,
        static_cast<unsigned long long>(header->bindings.entries));
  return copy_file(compact, path(kLiveFile), folder_);
}

Result Recovery::finish() {
  // Workers of an earlier daemon may write without flushing.
  const bool durable = durable_ && !shared_;
  const std::string text = "boot_id=" + boot_id_ + "\ndurable=" + (durable ? "yes" : "no") + "\n";
  const std::string target = path(kStateFile);
  // Most starts change nothing; those need no space on the disk. The folder is flushed all the same: the
  // process that gave the file its name may not have come that far.
  if (read_all(target) == text) return sync_folder(folder_);
  const std::string unfinished = target + ".new";
  const UniqueFd fd(
      open(unfinished.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, kFileMode));
  if (!fd.valid()) return system_error(unfinished);
  const ssize_t written = write(fd.get(), text.data(), text.size());
  if (written >= 0 && static_cast<size_t>(written) != text.size()) return system_error(unfinished, ENOSPC);
  if (written < 0 || fsync(fd.get()) != 0 || rename(unfinished.c_str(), target.c_str()) != 0) {
    return system_error(unfinished);
  }
  return sync_folder(folder_);
}

}  // namespace torrin
