#include "libvelder/NtHash.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/provider.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <system_error>

#include "brellog/VrLog.h"
#include "libvelder/Fold.h"
#include "libvelder/LdapModule.h"

namespace velder {
namespace {

constexpr off_t kLargestFile = 64 << 20;  // some 500,000 users; it is held in memory while it is read
constexpr size_t kHashDigits = 32;
constexpr std::string_view kHexDigits = "0123456789ABCDEFabcdef";

tl::unexpected<Error> failed(const std::string& path, const std::string& why) {
  return tl::make_unexpected(Error{kDirectoryOther, "UserFile " + printable(path, 200) + ": " + why});
}

std::string reason_of(int code) {
  return std::system_category().message(code);
}

struct Descriptor {
  explicit Descriptor(const std::string& path)
      : fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)), error(fd < 0 ? errno : 0) {}
  ~Descriptor() {
    if (fd >= 0) close(fd);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  const int fd;
  const int error;
};

Result<Secret> read_file(const std::string& path, const Descriptor& file) {
  struct stat status {};
  if (file.fd < 0) return failed(path, reason_of(file.error));
  if (fstat(file.fd, &status) != 0) return failed(path, reason_of(errno));
  if (!S_ISREG(status.st_mode)) return failed(path, "not a plain file");
  if ((status.st_mode & 07) != 0) return failed(path, "everybody has rights to it; chmod 640 it, or 600");
  if (status.st_size > kLargestFile) return failed(path, "larger than 64 MB");
  std::string text(static_cast<size_t>(status.st_size), '\0');
  size_t used = 0;
  while (used < text.size()) {
    const ssize_t got = read(file.fd, text.data() + used, text.size() - used);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return failed(path, reason_of(errno));
    if (got == 0) break;
    used += static_cast<size_t>(got);
  }
  text.resize(used);
  return Secret(std::move(text));
}

// MD4, which only the legacy algorithms of the library still have. They are kept out of the default set.
class Md4 {
 public:
  Md4() : library_(OSSL_LIB_CTX_new()) {
    if (library_ == nullptr) return;
    provider_ = OSSL_PROVIDER_load(library_, "legacy");
    md4_ = EVP_MD_fetch(library_, "MD4", nullptr);
  }
  ~Md4() {
    EVP_MD_free(md4_);
    if (provider_ != nullptr) OSSL_PROVIDER_unload(provider_);
    OSSL_LIB_CTX_free(library_);
  }
  Md4(const Md4&) = delete;
  Md4& operator=(const Md4&) = delete;

  std::optional<Secret> hex_digest(std::string_view bytes) const {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned size = 0;
    if (md4_ == nullptr || EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, md4_, nullptr) != 1) {
      return std::nullopt;
    }
    std::string text;
    text.reserve(size_t{2} * size);
    for (unsigned i = 0; i < size; ++i) {
      text += kHexDigits[digest[i] >> 4];
      text += kHexDigits[digest[i] & 15];
    }
    OPENSSL_cleanse(digest.data(), digest.size());
    return Secret(std::move(text));
  }

 private:
  OSSL_LIB_CTX* library_;
  OSSL_PROVIDER* provider_ = nullptr;
  EVP_MD* md4_ = nullptr;
};

// The password as NTLM hashes it. `text` is well-formed UTF-8.
Secret utf16le_from_utf8(std::string_view text) {
  std::string bytes;
  bytes.reserve(2 * text.size());
  const auto put = [&](uint32_t unit) {
    bytes += static_cast<char>(unit & 0xff);
    bytes += static_cast<char>(unit >> 8 & 0xff);
  };
  for (size_t at = 0; at < text.size();) {
    const auto first = static_cast<unsigned char>(text[at++]);
    const int more = first < 0x80 ? 0 : first < 0xe0 ? 1 : first < 0xf0 ? 2 : 3;
    uint32_t point = more == 0 ? first : first & (0x3fU >> more);
    for (int i = 0; i < more; ++i) point = point << 6 | (static_cast<unsigned char>(text[at++]) & 0x3fU);
    if (point < 0x10000) {
      put(point);
    } else {
      put(0xd7c0 + (point >> 10));
      put(0xdc00 | (point & 0x3ff));
    }
  }
  return Secret(std::move(bytes));
}

std::vector<std::string_view> split(std::string_view line) {
  std::vector<std::string_view> fields;
  for (;;) {
    const size_t colon = line.find(':');
    fields.push_back(line.substr(0, colon));
    if (colon == std::string_view::npos) return fields;
    line.remove_prefix(colon + 1);
  }
}

}  // namespace

void Secret::wipe() {
  OPENSSL_cleanse(text_.data(), text_.size());
  text_.clear();
}

// A short text lies inside the string object: moving it leaves a copy behind.
Secret::Secret(Secret&& other) noexcept
    : text_(other.text_.size() < 32 ? other.text_ : std::move(other.text_)) {
  other.wipe();
}

Secret& Secret::operator=(Secret&& other) noexcept {
  if (this == &other) return *this;
  text_.swap(other.text_);
  other.wipe();
  return *this;
}

// Takes one line after the other.
class NtlmUsers::Parser {
 public:
  explicit Parser(NtlmUsers& users) : users_(users) {}

  // Null, or what was expected.
  const char* take(std::string_view line) {
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (line.empty() || line.starts_with('#')) return nullptr;
    const std::vector<std::string_view> fields = split(line);
    if (fields.size() == 3) return take_plain(fields[0], fields[1], fields[2]);
    if (fields.size() >= 5) return take_hash(fields[0], fields[3], fields[4]);
    return "expected DOMAIN:user:password or user:uid:LM hash:NT hash:flags:time:";
  }

 private:
  const char* take_plain(std::string_view domain, std::string_view user, std::string_view password) {
    if (user.empty()) return "the user is empty";
    if (password.empty()) return "the password is empty";
    if (!is_utf8(password)) return "the password is not UTF-8";
    if (!md4_) md4_.emplace();
    const Secret bytes = utf16le_from_utf8(password);
    auto hash = md4_->hex_digest(bytes.text());
    if (!hash) {
      return "passwords cannot be hashed: the legacy algorithms of the TLS library are missing; use NT "
             "hashes";
    }
    add(domain, user, std::move(*hash));
    return nullptr;
  }

  const char* take_hash(std::string_view name, std::string_view hash, std::string_view flags) {
    const size_t slash = name.find('\\');
    const std::string_view domain = slash == std::string_view::npos ? "" : name.substr(0, slash);
    const std::string_view user = slash == std::string_view::npos ? name : name.substr(slash + 1);
    if (user.empty()) return "the user is empty";
    if (hash.size() != kHashDigits) return "expected 32 hexadecimal digits as the NT hash";
    const bool disabled = flags.starts_with('[') && flags.find('D') != std::string_view::npos;
    // Accounts without a password have other text there.
    if (disabled || hash.find_first_not_of(kHexDigits) != std::string_view::npos) return nullptr;
    add(domain, user, Secret(std::string(hash)));
    return nullptr;
  }

  void add(std::string_view domain, std::string_view user, Secret hash) {
    users_.lines_[fold_text(user)].push_back(Line{fold_text(domain), std::move(hash)});
    ++users_.count_;
  }

  NtlmUsers& users_;
  std::optional<Md4> md4_;
};

Result<std::shared_ptr<const NtlmUsers>> NtlmUsers::load(const std::string& path) {
  const Descriptor file(path);
  const auto identity = file.fd < 0 ? std::nullopt : identity_of(file.fd);
  const auto text = read_file(path, file);
  if (!text) return tl::make_unexpected(text.error());
  auto users = std::make_shared<NtlmUsers>();
  if (identity) users->identity_ = *identity;
  Parser parser(*users);
  std::string_view rest = text->text();
  for (size_t number = 1; !rest.empty(); ++number) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    if (const char* wrong = parser.take(line)) {
      return failed(path, "line " + std::to_string(number) + ": " + wrong);
    }
  }
  return users;
}

Secret NtlmUsers::nt_hash(std::string_view uid, std::string_view netbios, std::string_view dns) const {
  const auto found = lines_.find(fold_text(uid));
  if (found == lines_.end()) return Secret();
  const std::string netbios_key = fold_text(netbios), dns_key = fold_text(dns);
  const Line* best = nullptr;
  for (const Line& line : found->second) {
    const bool own =
        !line.domain_key.empty() && (line.domain_key == netbios_key || line.domain_key == dns_key);
    if (own) return Secret(line.hash.text());
    if (line.domain_key.empty() && best == nullptr) best = &line;
  }
  return best == nullptr ? Secret() : Secret(best->hash.text());
}

Result<std::shared_ptr<const NtlmUsers>> NtlmUsersFile::current() {
  const std::lock_guard lock(mutex_);
  const Descriptor file(path_);
  const auto identity = file.fd < 0 ? std::nullopt : identity_of(file.fd);
  if (users_ && identity == users_->identity()) return users_;
  const FileIdentity now = identity.value_or(FileIdentity());
  // What was found unusable before is not read, nor reported, for every client anew.
  if (users_ && reported_ && reported_for_ == now) return users_;
  auto loaded = NtlmUsers::load(path_);
  if (loaded) {
    users_ = std::move(*loaded);
    reported_ = false;
    return users_;
  }
  if (!reported_ || !(reported_for_ == now)) {
    VRLOG(kLogError, "Directory: NTLM: %s%s", loaded.error().text.c_str(),
          users_ ? "; its users as they were before stay in use" : "");
  }
  reported_ = true;
  reported_for_ = now;
  if (!users_) return tl::make_unexpected(loaded.error());
  return users_;
}

}  // namespace velder
