// IPUserCache.ini: what an administrator can set about the cache.
#pragma once

#include <cstdint>
#include <string>
#include <tl/expected.hpp>
#include <vector>

#include "daemonbase/SettingsProblem.h"

namespace torrin {

constexpr char kSettingsFile[] = "IPUserCache.ini";
constexpr char kSettingsSection[] = "IPUserCache";

struct Settings {
  int64_t lifetime_minutes = 480;           // 0: a binding never ends
  bool durable = false;                     // every acknowledged bind is on the disk
  std::string export_directory;             // absolute; empty: exports may go anywhere
  std::string directory = "ip_user_cache";  // relative to the working directory
};

// Reads the file in `workdir`; without a file everything has its default. Keys that mean nothing are told
// in one info line each. The error is a whole sentence with file, key and what was expected.
tl::expected<Settings, std::string> read_settings(const std::string& workdir);

struct SettingsReport {
  std::string file;  // complete path
  bool missing = false;
  Settings settings;  // what could be read, defaults for the rest
  std::vector<SettingsProblem> problems;
};

// The same for whoever wants all problems at once; logs nothing. read_settings fails with the first fatal
// one.
SettingsReport examine_settings(const std::string& workdir);

}  // namespace torrin
