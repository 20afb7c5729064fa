// Tells every worker to read the directory again, and sees what each made of it.
#pragma once

#include <chrono>

namespace authctl {

struct ReloadOptions {
  std::chrono::milliseconds timeout{30000};  // for all workers together
  bool json = false;
};

// Prints one line per worker. The exit status: 0 when all took it; 1 when one did not, or could not use what
// it read; 3 when there is no daemon that could be told.
int reload_workers(const ReloadOptions& options);

}  // namespace authctl
