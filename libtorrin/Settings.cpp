#include "libtorrin/Settings.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>
#include <string_view>

#include "brellog/VrLog.h"
#include "daemonbase/BRELConfigFile.h"
#include "libtorrin/PathText.h"
#include "libtorrin/Printable.h"

namespace torrin {
namespace {

// Ten years: a longer wish is "for ever", and the sum with the clock still fits the 32 bits that clients get.
constexpr int64_t kMaxLifetimeMinutes = 5256000;

// Each reads one value into the settings and gives what was expected when the value is wrong.
using Expected = std::optional<std::string>;
using ValueReader = Expected (*)(std::string_view value, Settings& settings);

Expected read_lifetime(std::string_view value, Settings& settings) {
  int64_t minutes = -1;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), minutes);
  if (error != std::errc() || end != value.data() + value.size() || minutes < 0 ||
      minutes > kMaxLifetimeMinutes) {
    return "minutes from 0 (for ever) to " + std::to_string(kMaxLifetimeMinutes);
  }
  settings.lifetime_minutes = minutes;
  return std::nullopt;
}

Expected read_durable(std::string_view value, Settings& settings) {
  const std::string text(value);
  if (strcasecmp(text.c_str(), "yes") != 0 && strcasecmp(text.c_str(), "no") != 0) return "yes or no";
  settings.durable = strcasecmp(text.c_str(), "yes") == 0;
  return std::nullopt;
}

Expected read_export_directory(std::string_view value, Settings& settings) {
  if (!value.empty() && !split_absolute_path(value)) {
    return "an absolute path without \"..\", or nothing";
  }
  settings.export_directory = value;
  return std::nullopt;
}

Expected read_directory(std::string_view value, Settings& settings) {
  if (!split_relative_path(value)) return "a path below the working directory without \"..\"";
  settings.directory = value;
  return std::nullopt;
}

Expected read_backend(std::string_view value, Settings&) {
  if (value == "redis") return "local: this version cannot keep bindings on a server";
  if (value != "local") return "local";
  return std::nullopt;
}

Expected read_server(std::string_view, Settings&) {
  VRLOG(kLogInfo, "IP-user cache: %s: Server is not used with Backend=local", kSettingsFile);
  return std::nullopt;
}

constexpr struct {
  const char* key;
  ValueReader read;
} kKeys[] = {
    {"Lifetime", read_lifetime},   {"Durable", read_durable}, {"ExportDirectory", read_export_directory},
    {"Directory", read_directory}, {"Backend", read_backend}, {"Server", read_server},
};

std::string_view trim(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

Expected read_key(const std::string& key, const std::string& value, Settings& settings) {
  const auto known = std::find_if(std::begin(kKeys), std::end(kKeys),
                                  [&key](const auto& candidate) { return key == candidate.key; });
  if (known == std::end(kKeys)) {
    VRLOG(kLogInfo, "IP-user cache: %s: the key %s is unknown and ignored", kSettingsFile,
          printable(key).c_str());
    return std::nullopt;
  }
  const Expected expected = known->read(trim(value), settings);
  if (!expected) return std::nullopt;
  return std::string(kSettingsFile) + ": section " + kSettingsSection + ", key " + key + ": \"" + value +
         "\" found, expected " + *expected;
}

}  // namespace

tl::expected<Settings, std::string> read_settings(const std::string& workdir) {
  const std::string path = workdir + "/" + kSettingsFile;
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    if (errno == ENOENT) return Settings{};
    return tl::unexpected(std::string(kSettingsFile) + ": " + std::strerror(errno));
  }
  // Looked at first: opening a pipe would wait for a writer.
  if (!S_ISREG(status.st_mode)) {
    return tl::unexpected(std::string(kSettingsFile) + ": it is not a regular file, expected an ini file");
  }
  const ConfigFile file(path);
  if (!file.ok()) {
    return tl::unexpected(std::string(kSettingsFile) + ": cannot be read, expected a readable ini file");
  }
  if (const std::string wrong = file.first_syntax_error(); !wrong.empty()) {
    return tl::unexpected(std::string(kSettingsFile) + ": " + wrong +
                          ", expected a [section], then key=value lines");
  }
  Settings settings;
  for (const auto& [section, keys] : file.GetRawData()) {
    if (section != kSettingsSection) {
      VRLOG(kLogInfo, "IP-user cache: %s: the section %s is unknown and ignored", kSettingsFile,
            printable(section).c_str());
      continue;
    }
    for (const auto& [key, value] : keys) {
      if (Expected error = read_key(key, value, settings)) return tl::unexpected(std::move(*error));
    }
  }
  return settings;
}

}  // namespace torrin
