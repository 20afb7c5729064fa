// The commands that look inside the daemon on this machine: status, reload, check-config.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "tools/authctl_commands.h"

namespace authctl {

struct InsideOptions {
  std::string workdir;
  bool no_servers = false;
  double watch_seconds = 2;
};

// Adds the commands to the program; `run` becomes the one that was given.
void add_inside_commands(CLI::App& app, InsideOptions& options, std::function<int(const Settings&)>& run);

}  // namespace authctl
