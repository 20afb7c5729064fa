// Opening, checking and publishing snapshot files.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>
#include <thread>

#include "libvelder/Fold.h"
#include "libvelder/SnapshotInternal.h"

namespace velder {
namespace {

// How often the lock is tried by who does not wait for it for ever.
constexpr std::chrono::milliseconds kLockPause{200};

constexpr char kMagic[] = "SQLite format 3";  // with its NUL the first 16 bytes

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

tl::unexpected<Error> failed(const std::string& what, int code) {
  return tl::make_unexpected(
      Error{kDirectoryOther, what + ": " + std::error_code(code, std::generic_category()).message()});
}

tl::unexpected<Error> refused(const std::string& path, const char* reason) {
  return tl::make_unexpected(Error{kDirectoryOther, path + ": " + reason});
}

int64_t nanoseconds(const timespec& time) {
  return static_cast<int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

// The first thing that is wrong with the bytes, or null.
const char* find_fault(const unsigned char* bytes, size_t size, bool verified) {
  if (memcmp(bytes, kMagic, sizeof kMagic) != 0) return "not a SQLite file";
  if (read_big_endian(bytes + kApplicationIdOffset) != kApplicationId) return "not a directory snapshot";
  if (size != read_big_endian(bytes + kPageCountOffset) * kPageSize) return "cut short or grown";
  if (verified) return nullptr;
  if (read_big_endian(bytes + kChecksumOffset) != snapshot_checksum(bytes, size)) return "damaged";
  return nullptr;
}

Result<SnapshotMeta> read_meta(const SnapshotFile& file) {
  Database database;
  if (auto opened = database.open_mapped(file); !opened) return tl::make_unexpected(opened.error());
  Statement statement;
  if (!statement.prepare(database, "SELECT format, folding, finished FROM meta") ||
      statement.step() != Statement::Step::kRow) {
    return tl::make_unexpected(database.error("no meta row"));
  }
  if (statement.number(0) != kSnapshotFormat || statement.number(1) != kFoldVersion ||
      statement.number(2) != 1) {
    return tl::make_unexpected(Error{kDirectoryOther, "of another version or not finished"});
  }
  Statement rest;
  if (!rest.prepare(database,
                    "SELECT source, origin, built_at, users, groups, memberships, skipped_users, nt_hashes,"
                    " main_domain FROM meta") ||
      rest.step() != Statement::Step::kRow) {
    return tl::make_unexpected(database.error("meta row not readable"));
  }
  SnapshotMeta meta;
  meta.source = rest.text(0);
  meta.origin = rest.text(1);
  meta.built_at = rest.number(2);
  meta.users = rest.number(3);
  meta.groups = rest.number(4);
  meta.memberships = rest.number(5);
  meta.skipped_users = rest.number(6);
  meta.nt_hashes = rest.number(7);
  meta.main_domain = rest.text(8);
  return meta;
}

Result<GroupGraph> read_groups(const SnapshotFile& file) {
  Database database;
  if (auto opened = database.open_mapped(file); !opened) return tl::make_unexpected(opened.error());
  GroupGraph graph;
  Statement entries, nested;
  if (!entries.prepare(database, "SELECT dn, cn, id FROM group_entry ORDER BY id") ||
      !nested.prepare(database, "SELECT member_id, group_id FROM nested_group")) {
    return tl::make_unexpected(database.error("groups"));
  }
  Statement::Step step = entries.step();
  for (; step == Statement::Step::kRow; step = entries.step()) {
    graph.add(entries.text(0), entries.text(1));
    if (entries.number(2) != static_cast<int64_t>(graph.size())) break;  // a gap
  }
  if (step != Statement::Step::kDone) return tl::make_unexpected(database.error("groups"));
  std::vector<GroupGraph::Pair> pairs;
  for (step = nested.step(); step == Statement::Step::kRow; step = nested.step()) {
    pairs.emplace_back(static_cast<uint32_t>(nested.number(0)), static_cast<uint32_t>(nested.number(1)));
  }
  if (step != Statement::Step::kDone || !graph.connect(pairs)) {
    return tl::make_unexpected(database.error("nested groups"));
  }
  return graph;
}

}  // namespace

uint32_t read_big_endian(const unsigned char* bytes) {
  return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
         static_cast<uint32_t>(bytes[2]) << 8 | bytes[3];
}

// Four lanes of xor and multiply, so that the processor keeps four multiplications under way and the whole
// of a large file is checked at the speed of memory. Each step can be undone, so no change of one word is
// ever lost in its lane.
uint32_t snapshot_checksum(const unsigned char* bytes, size_t size) {
  constexpr uint64_t kPrime = 0x9E3779B97F4A7C15;  // odd, its bits well spread
  std::array<uint64_t, 4> lanes = {1, 2, 3, 4};
  std::array<uint64_t, 4> words{};
  static_assert(kPageSize % sizeof words == 0, "a file of whole pages has no rest");
  // The checksum's own bytes lie in this block of the file.
  constexpr size_t kOwnBlock = kChecksumOffset / sizeof words * sizeof words;

  for (size_t at = 0; at + sizeof words <= size; at += sizeof words) {
    memcpy(words.data(), bytes + at, sizeof words);
    if (at == kOwnBlock) {
      memset(reinterpret_cast<unsigned char*>(words.data()) + (kChecksumOffset - kOwnBlock), 0, 4);
    }
    for (size_t lane = 0; lane < lanes.size(); ++lane) {
      lanes[lane] = std::rotl((lanes[lane] ^ words[lane]) * kPrime, 29);
    }
  }
  uint64_t sum = size;
  for (const uint64_t lane : lanes) sum = std::rotl((sum ^ lane) * kPrime, 29);
  sum ^= sum >> 32;
  return static_cast<uint32_t>(sum);
}

std::optional<FileIdentity> identity_of(int fd) {
  struct stat status {};
  if (fstat(fd, &status) != 0) return std::nullopt;
  return FileIdentity{status.st_dev, status.st_ino, status.st_size, nanoseconds(status.st_mtim),
                      nanoseconds(status.st_ctim)};
}

SnapshotFile::SnapshotFile(unsigned char* bytes, size_t size, const FileIdentity& identity)
    : bytes_(bytes), size_(size), identity_(identity) {}

SnapshotFile::~SnapshotFile() {
  munmap(bytes_, size_);
}

Result<std::shared_ptr<const SnapshotFile>> SnapshotFile::open(const std::string& path,
                                                               const std::optional<FileIdentity>& verified) {
  // O_NONBLOCK: what lies there may be a pipe.
  const Descriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (fd.get() < 0) return failed(path, errno);
  struct stat status {};
  if (fstat(fd.get(), &status) != 0) return failed(path, errno);
  if (!S_ISREG(status.st_mode)) return refused(path, "not a regular file");
  const auto size = static_cast<size_t>(status.st_size);
  if (size < kPageSize || size % kPageSize != 0) return refused(path, "cut short or not a snapshot");
  const auto identity = identity_of(fd.get());
  if (!identity) return failed(path, errno);

  void* memory = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd.get(), 0);
  if (memory == MAP_FAILED) return failed(path + ": cannot be mapped", errno);
  std::shared_ptr<SnapshotFile> file(
      new SnapshotFile(static_cast<unsigned char*>(memory), size, *identity));  // private constructor
  if (const char* fault = find_fault(file->bytes_, size, verified == identity)) return refused(path, fault);

  auto meta = read_meta(*file);
  if (!meta) return refused(path, meta.error().text.c_str());
  file->meta_ = std::move(*meta);
  return file;
}

Result<const GroupGraph*> SnapshotFile::groups() const {
  std::call_once(groups_read_, [this] { groups_ = read_groups(*this); });
  if (!groups_) return tl::make_unexpected(groups_.error());
  return &*groups_;
}

Result<SnapshotLock> SnapshotLock::acquire(const std::string& workdir,
                                           std::chrono::steady_clock::time_point until) {
  const std::string path = path_in(workdir, kSnapshotLockName);
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
  if (fd < 0) return failed(path + ": the lock file cannot be opened for writing", errno);
  SnapshotLock lock(fd);
  const bool for_ever = until == std::chrono::steady_clock::time_point::max();
  while (flock(fd, for_ever ? LOCK_EX : LOCK_EX | LOCK_NB) != 0) {
    if (errno != EINTR && errno != EWOULDBLOCK) return failed(path + ": cannot be locked", errno);
    if (for_ever) continue;
    if (std::chrono::steady_clock::now() >= until)
      return tl::unexpected(
          Error{kDirectoryOther, path + ": another process builds a snapshot and does not come to an end"});
    std::this_thread::sleep_for(kLockPause);
  }
  return lock;
}

SnapshotLock::SnapshotLock(SnapshotLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

SnapshotLock::~SnapshotLock() {
  if (fd_ < 0) return;
  // A child forked meanwhile has the lock's descriptor, too; closing ours would not give the lock back.
  flock(fd_, LOCK_UN);
  close(fd_);
}

Result<void> publish_snapshot(const std::string& workdir) {
  const std::string draft = path_in(workdir, kSnapshotDraftName);
  const std::string path = path_in(workdir, kSnapshotName);
  if (rename(draft.c_str(), path.c_str()) != 0) {
    const int code = errno;
    unlink(draft.c_str());
    return failed(path + ": cannot be replaced", code);
  }
  const std::string directory = workdir.empty() ? "/" : workdir;
  const Descriptor fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.get() < 0 || fsync(fd.get()) != 0) return failed(directory + ": cannot be synced", errno);
  return {};
}

}  // namespace velder
