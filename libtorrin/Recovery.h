// Brings the folder of the cache into a state in which the store can be opened: decides after a restart of
// the machine or for a damaged file what the bindings start from. Runs in the parent, before any fork, and
// not while another daemon lives on the folder.
#pragma once

#include <string>
#include <tl/expected.hpp>
#include <vector>

#include "daemonbase/UniqueFd.h"

namespace torrin {

// Names within the cache's folder; all of them are described in docs/ip-user-cache.md.
constexpr char kLiveFile[] = "bindings.mdb";
constexpr char kCompactFile[] = "bindings.compact.mdb";
constexpr char kLeaderFile[] = "leader.lock";
constexpr char kCopyLockFile[] = "copy.lock";

class Recovery {
 public:
  // `folder` is an absolute path; `boot_id_file` tells one start of the machine from another.
  Recovery(std::string folder, bool durable, const std::string& boot_id_file);

  // Makes the folder below `workdir`, with `names` one below the other, and takes it for this process for as
  // long as the object lives. The error is a whole sentence, as everywhere here.
  tl::expected<void, std::string> take_folder(const std::string& workdir,
                                              const std::vector<std::string>& names);

  // Leaves a live file that can be opened, or none.
  tl::expected<void, std::string> prepare();

  // For a live file that could not be opened all the same: puts it aside and starts from the compact copy.
  tl::expected<void, std::string> replace_damaged(const std::string& reason);

  // After a successful opening: what prepare() must know next time.
  tl::expected<void, std::string> finish();

 private:
  struct State {
    std::string boot_id;
    bool durable = false;
  };

  std::string path(const char* name) const { return folder_ + "/" + name; }
  State read_state() const;
  bool live_file_survives(const State& before) const;
  tl::expected<void, std::string> start_from_compact_copy(const char* why);

  const std::string folder_;
  const bool durable_;
  const std::string boot_id_;
  bool shared_ = false;  // workers of a daemon that died still have the store open
  UniqueFd owner_;
};

}  // namespace torrin
