// Everything that would stop the daemon, or that it would stumble over, found before a start. The settings
// are read by the libraries' own readers, so that this and the start never disagree.
#pragma once

#include <optional>
#include <string>

namespace authctl {

struct CheckOptions {
  std::optional<std::string> workdir;  // else that of the running daemon
  bool ask_servers = true;
  bool json = false;
};

// Prints one line for each finding, "FILE:LINE: error: ..." or "... warning: ...". The exit status: 0 without
// errors, 1 with some, 2 when there is no working directory to check. Run by root, this process becomes the
// daemon's account for good.
int check_config(const CheckOptions& options);

}  // namespace authctl
