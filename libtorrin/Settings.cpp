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

std::vector<std::string> known_keys() {
  std::vector<std::string> names;
  for (const auto& known : kKeys) names.emplace_back(known.key);
  return names;
}

std::string hint(const std::string& meant) {
  return meant.empty() ? "" : "; did you mean " + meant + "?";
}

SettingsProblem unknown_key(int line, const std::string& key) {
  return {false, line,
          "the key " + printable(key) + " is unknown and ignored" + hint(nearest_name(key, known_keys()))};
}

void read_key(int line, const std::string& key, const std::string& value, SettingsReport& report) {
  const auto known = std::find_if(std::begin(kKeys), std::end(kKeys),
                                  [&key](const auto& candidate) { return key == candidate.key; });
  if (known == std::end(kKeys)) {
    report.problems.push_back(unknown_key(line, key));
    return;
  }
  if (known->read == read_server) {
    report.problems.push_back({false, line, "Server is not used with Backend=local"});
  }
  if (const Expected expected = known->read(trim(value), report.settings)) {
    report.problems.push_back({true, line,
                               std::string("section ") + kSettingsSection + ", key " + key + ": \"" + value +
                                   "\" found, expected " + *expected});
  }
}

void read_sections(const ConfigFile& file, SettingsReport& report) {
  for (const auto& [section, keys] : file.GetRawData()) {
    if (section != kSettingsSection) {
      report.problems.push_back({false, file.line_of(section, ""),
                                 "the section " + printable(section) + " is unknown and ignored" +
                                     hint(nearest_name(section, {kSettingsSection}))});
      continue;
    }
    for (const auto& [key, value] : keys) read_key(file.line_of(section, key), key, value, report);
  }
}

void examine_file(SettingsReport& report) {
  struct stat status {};
  if (stat(report.file.c_str(), &status) != 0) {
    report.missing = errno == ENOENT;
    if (!report.missing) report.problems.push_back({true, 0, std::strerror(errno)});
    return;
  }
  // Looked at first: opening a pipe would wait for a writer.
  if (!S_ISREG(status.st_mode)) {
    report.problems.push_back({true, 0, "it is not a regular file, expected an ini file"});
    return;
  }
  const ConfigFile file(report.file);
  if (!file.ok()) {
    report.problems.push_back({true, 0, "cannot be read, expected a readable ini file"});
    return;
  }
  for (const ConfigFile::Remark& wrong : file.syntax_errors()) {
    report.problems.push_back(
        {true, wrong.line, wrong.text + ", expected a [section], then key=value lines"});
  }
  read_sections(file, report);
  for (const ConfigFile::Remark& again : file.repeated_keys()) {
    report.problems.push_back({false, again.line, printable(again.text)});
  }
}

}  // namespace

SettingsReport examine_settings(const std::string& workdir) {
  SettingsReport report;
  report.file = workdir + "/" + kSettingsFile;
  examine_file(report);
  return report;
}

tl::expected<Settings, std::string> read_settings(const std::string& workdir) {
  SettingsReport report = examine_settings(workdir);
  for (const SettingsProblem& problem : report.problems) {
    const bool names_a_key = problem.text.starts_with("section ") || problem.line == 0;
    if (problem.fatal) {
      return tl::unexpected(std::string(kSettingsFile) + ": " +
                            (names_a_key ? "" : "line " + std::to_string(problem.line) + ": ") +
                            problem.text);
    }
    VRLOG(kLogInfo, "IP-user cache: %s: %s", kSettingsFile, problem.text.c_str());
  }
  return std::move(report.settings);
}

}  // namespace torrin
