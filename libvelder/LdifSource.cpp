#include "libvelder/LdifSource.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <system_error>

#include "libvelder/LdifReader.h"

namespace velder {
namespace {

constexpr char kSourceName[] = "ldif";
constexpr size_t kReadChunk = size_t{1} << 20;

tl::unexpected<Error> failed(const std::string& text) {
  return tl::make_unexpected(Error{kDirectoryOther, text});
}

std::string message_of(int code) {
  return std::error_code(code, std::generic_category()).message();
}

// The LDIF file, read into memory as a whole: a mapped file that somebody cuts meanwhile would end the
// process. It may hold passwords and is wiped.
class LdifText {
 public:
  LdifText() = default;
  ~LdifText() { OPENSSL_cleanse(text_.data(), text_.size()); }
  LdifText(const LdifText&) = delete;
  LdifText& operator=(const LdifText&) = delete;

  // 0 or an errno. `expected` is a first guess of the size.
  int read_all(int fd, size_t expected) {
    text_.resize(expected + 1);  // one more, to meet the end without growing
    size_t used = 0;
    for (;;) {
      if (used == text_.size()) grow();
      const ssize_t got = read(fd, text_.data() + used, text_.size() - used);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) return errno;
      if (got == 0) break;
      used += static_cast<size_t>(got);
    }
    text_.resize(used);
    return 0;
  }
  std::string_view view() const { return text_; }

 private:
  void grow() {
    std::string larger;
    larger.reserve(text_.size() + kReadChunk);
    larger = text_;
    larger.resize(text_.size() + kReadChunk);
    OPENSSL_cleanse(text_.data(), text_.size());
    text_ = std::move(larger);
  }

  std::string text_;
};

class LdifFile {
 public:
  explicit LdifFile(const std::string& path)
      : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)), error_(fd_ < 0 ? errno : 0) {}
  ~LdifFile() {
    if (fd_ >= 0) close(fd_);
  }
  LdifFile(const LdifFile&) = delete;
  LdifFile& operator=(const LdifFile&) = delete;

  bool missing() const { return error_ == ENOENT; }
  int error() const { return error_; }
  int fd() const { return fd_; }

 private:
  int fd_;
  int error_;
};

// Every domain's two names count: they are looked up, and the file keeps them.
std::string describe_settings(const Settings& settings) {
  std::string text;
  for (const Domain& domain : settings.domains) {
    text += ' ' + printable(domain.dns_name, SIZE_MAX) + '=' + printable(domain.netbios_name, SIZE_MAX);
  }
  return text;
}

// What the snapshot was made from, in a form that any change of it changes. Without the file's name: the
// daemon and ldap_sync may spell the working directory differently, and would build in turns.
std::string describe_origin(const Settings& settings, const std::optional<FileIdentity>& ldif) {
  std::string text = "missing";
  if (ldif) {
    text = "size=" + std::to_string(ldif->size) + " mtime=" + std::to_string(ldif->modified_ns) +
           " ctime=" + std::to_string(ldif->changed_ns) + " inode=" + std::to_string(ldif->inode) +
           " device=" + std::to_string(ldif->device);
  }
  return text + " domains:" + describe_settings(settings);
}

void wipe_values(LdifRecord& record) {
  for (LdifAttribute& attribute : record.attributes) {
    if (attribute.name == "userpassword" || attribute.name == "sambantpassword") {
      OPENSSL_cleanse(attribute.value.data(), attribute.value.size());
    }
  }
}

Result<void> add_records(const std::string& path, std::string_view content, SnapshotBuilder& builder) {
  LdifReader reader(path, content);
  LdifRecord record;
  for (;;) {
    auto more = reader.next(record);
    if (!more) {
      wipe_values(record);
      return tl::make_unexpected(more.error());
    }
    if (!*more) return {};
    auto added = builder.add(record);
    wipe_values(record);
    if (!added) return failed(path + ":" + std::to_string(record.line) + ": " + added.error().text);
  }
}

// The state of the LDIF file is taken before it is read: a change while it is read shows at the next update.
Result<std::optional<FileIdentity>> look_at(const LdifFile& ldif, const std::string& path) {
  if (ldif.missing()) return std::optional<FileIdentity>();
  if (ldif.error() != 0) return failed(path + ": cannot be read: " + message_of(ldif.error()));
  struct stat status {};
  if (fstat(ldif.fd(), &status) != 0) return failed(path + ": cannot be read: " + message_of(errno));
  if (!S_ISREG(status.st_mode)) return failed(path + ": expected a regular file");
  return identity_of(ldif.fd());
}

// A missing file, which has no identity, gives nothing.
Result<void> fill(SnapshotBuilder& builder, const Settings& settings, const LdifFile& ldif,
                  const std::optional<FileIdentity>& identity) {
  if (!identity) return {};
  LdifText text;
  if (const int code = text.read_all(ldif.fd(), static_cast<size_t>(identity->size)); code != 0) {
    return failed(settings.ldif_file + ": cannot be read: " + message_of(code));
  }
  return add_records(settings.ldif_file, text.view(), builder);
}

Result<void> build(const std::string& workdir, const Settings& settings, const LdifFile& ldif,
                   const std::optional<FileIdentity>& identity, const std::string& origin) {
  SnapshotBuilder builder(settings, BuildOptions{.keep_passwords = true});
  if (auto filled = fill(builder, settings, ldif, identity); !filled) return filled;
  SnapshotMeta meta;
  meta.source = kSourceName;
  meta.origin = origin;
  if (auto written = builder.write(path_in(workdir, kSnapshotDraftName), meta); !written) return written;
  return publish_snapshot(workdir);
}

}  // namespace

Result<LdifUpdate> update_from_ldif(const std::string& workdir, const Settings& settings,
                                    const std::optional<FileIdentity>& verified) {
  const std::string path = path_in(workdir, kSnapshotName);
  LdifUpdate update;
  const auto is_current = [&](const std::string& origin) {
    auto file = SnapshotFile::open(path, verified);
    if (!file) {
      update.reason = file.error().text;
      return false;
    }
    update.file = *file;
    update.reason = "the LDIF file or the settings have changed";
    return update.file->meta().source == kSourceName && update.file->meta().origin == origin;
  };
  {
    const LdifFile ldif(settings.ldif_file);
    const auto identity = look_at(ldif, settings.ldif_file);
    if (!identity) return tl::make_unexpected(identity.error());
    if (is_current(describe_origin(settings, *identity))) return update;
  }
  const auto lock = SnapshotLock::acquire(workdir);
  if (!lock) return tl::make_unexpected(lock.error());
  // Opened anew: while we waited another one may have taken its place.
  const LdifFile ldif(settings.ldif_file);
  const auto identity = look_at(ldif, settings.ldif_file);
  if (!identity) return tl::make_unexpected(identity.error());
  const std::string origin = describe_origin(settings, *identity);
  if (is_current(origin)) return update;
  // Settings that were cut short say "ldif" without meaning it.
  if (!*identity && update.file && update.file->meta().source != kSourceName) {
    return failed(settings.ldif_file + ": missing, while " + path +
                  " is the snapshot of directory servers; expected the LDIF file, or no snapshot");
  }

  const auto begin = std::chrono::steady_clock::now();
  if (auto built = build(workdir, settings, ldif, *identity, origin); !built) {
    return tl::make_unexpected(built.error());
  }
  auto file = SnapshotFile::open(path);
  if (!file) return tl::make_unexpected(file.error());
  update.file = std::move(*file);
  update.rebuilt = true;
  update.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  return update;
}

Result<LdifCounts> check_ldif(const Settings& settings) {
  const LdifFile ldif(settings.ldif_file);
  const auto identity = look_at(ldif, settings.ldif_file);
  if (!identity) return tl::make_unexpected(identity.error());
  SnapshotBuilder builder(settings, BuildOptions{});
  if (auto filled = fill(builder, settings, ldif, *identity); !filled)
    return tl::make_unexpected(filled.error());
  return LdifCounts{builder.user_count(), builder.group_count()};
}

}  // namespace velder
