// NT hashes: what proves a user to NTLM, and where those that do not stand in the directory come from.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "libvelder/Error.h"
#include "libvelder/Snapshot.h"

namespace velder {

// Text that is wiped when it goes away. It is never copied.
class Secret {
 public:
  Secret() = default;
  explicit Secret(std::string text) : text_(std::move(text)) {}
  Secret(Secret&& other) noexcept;
  Secret& operator=(Secret&& other) noexcept;
  ~Secret() { wipe(); }

  const std::string& text() const { return text_; }
  bool empty() const { return text_.empty(); }

 private:
  void wipe();
  std::string text_;
};

// The users file: a line for each user, "DOMAIN:user:password" or "user:uid:LM hash:NT hash:flags:..." as
// smbpasswd has it, there also with "DOMAIN\user". Lines that begin with # and empty ones are passed over.
// Users whose flags hold D (disabled), or who have no NT hash, have no line in effect. Only hashes are kept.
class NtlmUsers {
 public:
  // The error names the file and the line, never what stands there. A file that others may read is refused.
  static Result<std::shared_ptr<const NtlmUsers>> load(const std::string& path);

  // 32 hexadecimal digits; empty when nobody of that name has a line for this domain or for every domain.
  // Names in any letter case, the domain by either of its names.
  Secret nt_hash(std::string_view uid, std::string_view netbios, std::string_view dns) const;

  size_t size() const { return count_; }
  const FileIdentity& identity() const { return identity_; }

 private:
  struct Line {
    std::string domain_key;  // empty: every domain
    Secret hash;
  };
  class Parser;

  std::unordered_map<std::string, std::vector<Line>> lines_;  // by the folded user
  size_t count_ = 0;
  FileIdentity identity_;
};

// The users file in its present state, for all threads: read again when it has changed. A changed file that
// is not usable is reported once, and what was read before stays in use.
class NtlmUsersFile {
 public:
  explicit NtlmUsersFile(std::string path) : path_(std::move(path)) {}
  // An error when there is nothing in use.
  Result<std::shared_ptr<const NtlmUsers>> current();

 private:
  const std::string path_;
  std::mutex mutex_;  // guards all below
  std::shared_ptr<const NtlmUsers> users_;
  bool reported_ = false;
  FileIdentity reported_for_;
};

}  // namespace velder
