#include "libtorrin/BindingExport.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <optional>
#include <vector>

#include "daemonbase/UniqueFd.h"
#include "libtorrin/PathText.h"
#include "libtorrin/Printable.h"
#include "libtorrin/Store.h"

namespace torrin {
namespace {

constexpr mode_t kExportMode = 0640;
constexpr int kDraftAttempts = 1000;
constexpr int kRenameAttempts = 10;  // each fails only when a file appears between two calls
// Records of one read transaction: short enough to pin next to nothing while the disk is slow.
constexpr size_t kChunk = 2000;
// A chunk of the longest quoted users is still only 4 MB.
static_assert(kChunk * (2 * kMaxUserBytes + 80) < size_t{5} << 20);

using Result = tl::expected<void, std::string>;

tl::unexpected<std::string> system_error(const std::string& what, int error = errno) {
  return tl::unexpected(what + ": " + std::strerror(error));
}

struct Target {
  std::vector<std::string> folders;
  std::string name;
};

tl::expected<Target, std::string> read_target(const std::string& path, const std::string& export_directory) {
  // Nobody could open it by that name. A request of clients may be much longer: millions of names.
  if (path.size() >= PATH_MAX) return tl::unexpected<std::string>(std::strerror(ENAMETOOLONG));
  auto names = split_absolute_path(path);
  if (!names || names->empty() || path.back() == '/') {
    return tl::unexpected<std::string>("not an absolute path of a file without \"..\"");
  }
  Target target;
  target.name = std::move(names->back());
  names->pop_back();
  target.folders = std::move(*names);
  if (export_directory.empty()) return target;
  const auto allowed = split_absolute_path(export_directory);
  // Names are enough to compare, since no link on the way is followed.
  if (!allowed || target.folders.size() < allowed->size() ||
      !std::equal(allowed->begin(), allowed->end(), target.folders.begin())) {
    return tl::unexpected<std::string>("not below ExportDirectory " + export_directory);
  }
  return target;
}

// Opens the folder name by name from the root, so that a link put in the way at any moment is found.
tl::expected<UniqueFd, std::string> open_folder(const std::vector<std::string>& names) {
  UniqueFd folder(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
  std::string so_far;
  for (const std::string& name : names) {
    so_far += "/" + name;
    UniqueFd next(openat(folder.get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!next.valid()) {
      if (errno == ENOTDIR || errno == ELOOP)
        return tl::unexpected(shortened(so_far) + " is a link or no folder");
      return system_error(shortened(so_far));
    }
    folder = std::move(next);
  }
  UniqueFd readable(openat(folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!readable.valid()) return system_error(shortened(so_far));
  return readable;
}

bool is_earlier_export(int fd) {
  std::string line(kExportHeader.size(), '\0');
  return pread(fd, line.data(), line.size(), 0) == static_cast<ssize_t>(line.size()) && line == kExportHeader;
}

bool is_same_folder(int folder, const std::string& other) {
  struct stat one {};
  struct stat two {};
  return fstat(folder, &one) == 0 && stat(other.c_str(), &two) == 0 && one.st_dev == two.st_dev &&
         one.st_ino == two.st_ino;
}

// The daemon does without most of its files; what a client puts in their place would count, or stop the next
// start.
bool is_name_of_settings(std::string_view name) {
  return name.ends_with(".ini") || name.ends_with(".ldif") || name.ends_with(".sh") ||
         name.starts_with("directory.db");
}

Result check_place(int folder, const std::string& name, const ExportRules& rules) {
  // The store's files decide about all bindings. Even to look at its lock file would be too much: closing it
  // drops the locks of this process.
  if (is_same_folder(folder, rules.own_folder)) return tl::unexpected<std::string>("the cache's own folder");
  if (is_name_of_settings(name) && is_same_folder(folder, rules.workdir)) {
    return tl::unexpected<std::string>("the daemon would take it for its own file");
  }
  return {};
}

// Whether something stands under the name; an error when that must stay.
tl::expected<bool, std::string> check_existing(int folder, const std::string& name) {
  struct stat status {};
  if (fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return false;
    return system_error(shortened(name));
  }
  if (S_ISLNK(status.st_mode)) return tl::unexpected<std::string>("the file is a link");
  if (!S_ISREG(status.st_mode))
    return tl::unexpected<std::string>("something other than a file has this name");
  // It may be another one by now, hence without waiting and looked at again.
  const UniqueFd fd(openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd.valid()) return system_error("the existing file");
  if (fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode) || !is_earlier_export(fd.get())) {
    return tl::unexpected<std::string>("an existing file is not an earlier export");
  }
  return true;
}

// The file beside the target; removed unless it was renamed.
class Draft {
 public:
  explicit Draft(int folder) : folder_(folder) {
    static std::atomic<unsigned> counter{0};
    // A process of this number that was killed may have left its drafts. They stay: behind the boundary of a
    // container another process of this number may be writing them.
    for (int attempt = 0; attempt < kDraftAttempts && !exists_; ++attempt) {
      name_ = ".ip-user-export." + std::to_string(getpid()) + "." + std::to_string(counter++);
      fd_.reset(
          openat(folder_, name_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kExportMode));
      exists_ = fd_.valid();
      if (!exists_ && errno != EEXIST) return;
    }
  }
  Draft(const Draft&) = delete;
  Draft& operator=(const Draft&) = delete;
  ~Draft() {
    if (exists_) unlinkat(folder_, name_.c_str(), 0);
  }

  bool exists() const { return exists_; }
  int fd() const { return fd_.get(); }

  // Without `replace` nothing may stand under the name.
  bool rename_to(const std::string& name, bool replace) {
    int result = renameat2(folder_, name_.c_str(), folder_, name.c_str(), replace ? 0 : RENAME_NOREPLACE);
    if (result != 0 && errno == EINVAL) result = renameat(folder_, name_.c_str(), folder_, name.c_str());
    if (result == 0) exists_ = false;
    return result == 0;
  }

 private:
  const int folder_;
  std::string name_;
  UniqueFd fd_;
  bool exists_ = false;
};

// Looked at again: to write all bindings takes a while, in which another export may have made the file, or
// somebody have put another one there.
Result put_in_place(Draft& draft, int folder, const std::string& name) {
  for (int attempt = 0; attempt < kRenameAttempts; ++attempt) {
    const auto replace = check_existing(folder, name);
    if (!replace) return tl::unexpected(replace.error());
    if (draft.rename_to(name, *replace)) return {};
    if (errno != EEXIST) break;
  }
  return system_error("renaming into place");
}

Result write_fully(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return system_error("writing");
    text.remove_prefix(static_cast<size_t>(written));
  }
  return {};
}

// Chunk by chunk: no transaction is open while the disk is written to.
Result write_bindings(Store& store, int fd, int64_t now) {
  std::string text(kExportHeader);
  std::optional<AddressKey> from = AddressKey{};
  while (from) {
    const auto append = [&](const AddressKey& key, std::string_view record) {
      const auto binding = decode_record(record);
      if (binding && is_live(binding->expiry, now)) append_csv_line(key, *binding, text);
    };
    const auto next = store.scan(*from, kChunk, append);
    if (!next) return tl::unexpected(next.error());
    from = *next;
    if (Result written = write_fully(fd, text); !written) return written;
    text.clear();
  }
  return {};
}

}  // namespace

void append_csv_line(const AddressKey& key, const BindingView& binding, std::string& out) {
  out += format_address(key);
  out += ',';
  if (binding.user.find_first_of("\",\r\n") == std::string_view::npos) {
    out += binding.user;
  } else {
    out += '"';
    for (const char c : binding.user) {
      if (c == '"') out += '"';
      out += c;
    }
    out += '"';
  }
  out += ',';
  out += std::to_string(binding.expiry);
  out += "\r\n";
}

Result export_bindings(Store& store, const std::string& path, const ExportRules& rules, int64_t now) {
  const auto target = read_target(path, rules.only_below);
  if (!target) return tl::unexpected(target.error());
  const auto folder = open_folder(target->folders);
  if (!folder) return tl::unexpected(folder.error());
  if (Result place = check_place(folder->get(), target->name, rules); !place) return place;
  const auto may_write = check_existing(folder->get(), target->name);
  if (!may_write) return tl::unexpected(may_write.error());
  Draft draft(folder->get());
  if (!draft.exists()) return system_error("a new file in the folder");
  // The mode counts, not what the process takes away from new files.
  if (fchmod(draft.fd(), kExportMode) != 0) return system_error("mode");
  if (Result written = write_bindings(store, draft.fd(), now); !written) return written;
  if (fsync(draft.fd()) != 0) return system_error("writing");
  if (Result put = put_in_place(draft, folder->get(), target->name); !put) return put;
  if (fsync(folder->get()) != 0) return system_error("the folder");
  return {};
}

}  // namespace torrin
