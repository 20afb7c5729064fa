#include "libvelder/Password.h"

#include <crypt.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <memory>

#include "libvelder/Base64.h"
#include "libvelder/Fold.h"
#include "libvelder/LongWork.h"

namespace velder {
namespace {

// No directory takes longer ones; hashing what a client sends must stay cheap.
constexpr size_t kLongestPassword = 4096;

// Fetched once: the engine would look an algorithm up for each digest, under a lock of the whole process.
const EVP_MD* sha1() {
  static const EVP_MD* const fetched = EVP_MD_fetch(nullptr, "SHA1", nullptr);
  return fetched != nullptr ? fetched : EVP_sha1();
}

const EVP_MD* sha256() {
  static const EVP_MD* const fetched = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  return fetched != nullptr ? fetched : EVP_sha256();
}

const EVP_MD* sha512() {
  static const EVP_MD* const fetched = EVP_MD_fetch(nullptr, "SHA512", nullptr);
  return fetched != nullptr ? fetched : EVP_sha512();
}

struct HashScheme {
  std::string_view name;
  const EVP_MD* (*digest)();
  bool salted;
};

constexpr std::array<HashScheme, 6> kHashSchemes = {{{"SSHA", sha1, true},
                                                     {"SSHA256", sha256, true},
                                                     {"SSHA512", sha512, true},
                                                     {"SHA", sha1, false},
                                                     {"SHA256", sha256, false},
                                                     {"SHA512", sha512, false}}};

// A text that holds a password or hash and is wiped with all its room.
class WipedString {
 public:
  WipedString() = default;
  explicit WipedString(std::string_view text) : text_(text) {}
  WipedString(const WipedString&) = delete;
  WipedString& operator=(const WipedString&) = delete;
  ~WipedString() {
    text_.resize(text_.capacity());
    OPENSSL_cleanse(text_.data(), text_.size());
  }
  std::string& text() { return text_; }

 private:
  std::string text_;
};

// In most methods of crypt the stored value says how much work a check is. More than about a second of it, or
// a lot of memory, would let one entry of a directory keep the threads of a worker busy.
struct WorkFactor {
  std::string_view mark;
  uint32_t most;
};
constexpr std::array<WorkFactor, 8> kWorkFactors = {{{"$5$rounds=", 1'000'000},
                                                     {"$6$rounds=", 1'000'000},
                                                     {"$md5,rounds=", 1'000'000},
                                                     {"$sha1$", 1'000'000},
                                                     {"$2a$", 14},
                                                     {"$2b$", 14},
                                                     {"$2x$", 14},
                                                     {"$2y$", 14}}};

// These write their numbers as characters, the first one being the logarithm of the memory. Of what they can
// say only the system's own forms are taken, up to 128 MB.
struct MemoryFactor {
  std::string_view family;
  std::string_view mark;
  std::array<std::string_view, 3> behind;  // the first character; empty: no more of them
};
constexpr std::array<MemoryFactor, 3> kMemoryFactors = {{{"$y$", "$y$j", {"T$", "5$", "5T$"}},
                                                         {"$gy$", "$gy$j", {"T$", "5$", "5T$"}},
                                                         {"$7$", "$7$", {"U..../....", "", ""}}}};
constexpr char kMostMemory = 'C';  // in the order of these characters: ./0-9A-Za-z

bool is_affordable(std::string_view setting) {
  for (const WorkFactor& factor : kWorkFactors) {
    if (!setting.starts_with(factor.mark)) continue;
    const char* const digits = setting.data() + factor.mark.size();
    uint32_t number = 0;
    return std::from_chars(digits, setting.data() + setting.size(), number).ec == std::errc() &&
           number <= factor.most;
  }
  for (const MemoryFactor& factor : kMemoryFactors) {
    if (!setting.starts_with(factor.family)) continue;
    if (!setting.starts_with(factor.mark) || setting.size() == factor.mark.size()) return false;
    const std::string_view cost = setting.substr(factor.mark.size());
    return cost[0] <= kMostMemory &&
           std::any_of(factor.behind.begin(), factor.behind.end(),
                       [&](auto behind) { return !behind.empty() && cost.substr(1).starts_with(behind); });
  }
  return true;
}

struct Digest {
  std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
  unsigned int size = 0;
  ~Digest() { OPENSSL_cleanse(bytes.data(), bytes.size()); }
};

struct FreeContext {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

// 32 KiB: too much for the stack of a thread.
struct CryptWork {
  crypt_data data{};
  ~CryptWork() { OPENSSL_cleanse(&data, sizeof data); }
};

PasswordVerdict verdict_of(bool equal) {
  return equal ? PasswordVerdict::kMatch : PasswordVerdict::kMismatch;
}

// The digest of both texts, one behind the other.
bool compute_digest(const EVP_MD* algorithm, std::string_view first, std::string_view second,
                    Digest& digest) {
  const std::unique_ptr<EVP_MD_CTX, FreeContext> context(EVP_MD_CTX_new());
  return context && EVP_DigestInit_ex(context.get(), algorithm, nullptr) == 1 &&
         EVP_DigestUpdate(context.get(), first.data(), first.size()) == 1 &&
         EVP_DigestUpdate(context.get(), second.data(), second.size()) == 1 &&
         EVP_DigestFinal_ex(context.get(), digest.bytes.data(), &digest.size) == 1;
}

// `encoded` is base64 of the digest, followed by the salt when there is one.
PasswordVerdict check_hash(const HashScheme& scheme, std::string_view encoded, std::string_view given) {
  WipedString decoded;
  decoded.text().reserve(encoded.size());  // so that no part of it is left behind by growing
  if (!decode_base64(encoded, decoded.text())) return PasswordVerdict::kCannotTell;
  const std::string_view stored = decoded.text();
  const EVP_MD* algorithm = scheme.digest();
  const auto size = static_cast<size_t>(EVP_MD_get_size(algorithm));
  if (scheme.salted ? stored.size() <= size : stored.size() != size) return PasswordVerdict::kCannotTell;
  Digest digest;
  if (!compute_digest(algorithm, given, stored.substr(size), digest) || digest.size != size) {
    return PasswordVerdict::kCannotTell;
  }
  return verdict_of(CRYPTO_memcmp(stored.data(), digest.bytes.data(), size) == 0);
}

PasswordVerdict check_crypt(std::string_view hash, std::string_view given) {
  if (hash.find('\0') != std::string_view::npos || !is_affordable(hash)) return PasswordVerdict::kCannotTell;
  if (given.size() >= CRYPT_MAX_PASSPHRASE_SIZE || given.find('\0') != std::string_view::npos) {
    return PasswordVerdict::kMismatch;
  }
  before_long_work();
  WipedString phrase(given);
  WipedString setting(hash);
  const auto work = std::make_unique<CryptWork>();
  const char* result =
      crypt_rn(phrase.text().c_str(), setting.text().c_str(), &work->data, sizeof work->data);
  // Null for a method that this system does not offer, a locked entry ("!..."), or a damaged setting.
  if (result == nullptr || result[0] == '*') return PasswordVerdict::kCannotTell;
  const size_t length = std::strlen(result);
  return verdict_of(length == hash.size() && CRYPTO_memcmp(result, hash.data(), length) == 0);
}

// By way of digests, so that the time taken tells neither the length nor a common beginning.
PasswordVerdict check_clear(std::string_view stored, std::string_view given) {
  Digest stored_digest;
  Digest given_digest;
  if (!compute_digest(sha256(), stored, {}, stored_digest) ||
      !compute_digest(sha256(), given, {}, given_digest)) {
    return PasswordVerdict::kCannotTell;
  }
  return verdict_of(
      CRYPTO_memcmp(stored_digest.bytes.data(), given_digest.bytes.data(), stored_digest.size) == 0);
}

}  // namespace

PasswordVerdict check_password(std::string_view stored, std::string_view given) {
  if (given.empty() || given.size() > kLongestPassword) return PasswordVerdict::kMismatch;
  const size_t close = stored.starts_with('{') ? stored.find('}') : std::string_view::npos;
  if (close == std::string_view::npos) return check_clear(stored, given);
  const std::string_view name = stored.substr(1, close - 1);
  const std::string_view rest = stored.substr(close + 1);
  for (const HashScheme& scheme : kHashSchemes) {
    if (ascii_iequals(name, scheme.name)) return check_hash(scheme, rest, given);
  }
  if (ascii_iequals(name, "CRYPT")) return check_crypt(rest, given);
  if (ascii_iequals(name, "CLEARTEXT")) return check_clear(rest, given);
  return PasswordVerdict::kCannotTell;
}

PasswordVerdict check_password(std::span<const std::string> stored, std::string_view given) {
  bool matched = false;
  bool told = false;
  for (const std::string& value : stored) {
    const PasswordVerdict verdict = check_password(std::string_view(value), given);
    matched |= verdict == PasswordVerdict::kMatch;
    told |= verdict == PasswordVerdict::kMismatch;
  }
  if (matched) return PasswordVerdict::kMatch;
  return told ? PasswordVerdict::kMismatch : PasswordVerdict::kCannotTell;
}

}  // namespace velder
