#include "tools/status_log.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <memory>
#include <system_error>

#include "daemonbase/UniqueFd.h"

namespace authctl {
namespace {

// A day of verbose lines can be gigabytes, which nobody waits for.
constexpr uint64_t kMostOfToday = uint64_t{256} << 20;
constexpr uint64_t kMostOfEarlier = uint64_t{8} << 20;
constexpr size_t kLongestLine = 65536;  // the daemon's own end at 4,095 bytes
constexpr std::string_view kSuffix = ".0001";

template <class Number>
bool take_number(std::string_view& text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return false;
  text.remove_prefix(static_cast<size_t>(end - text.data()));
  return true;
}

bool take(std::string_view& text, std::string_view expected) {
  if (!text.starts_with(expected)) return false;
  text.remove_prefix(expected.size());
  return true;
}

// HH:MM:SS.mmm
bool is_clock(std::string_view text) {
  constexpr std::string_view kPattern = "00:00:00.000";
  if (text.size() != kPattern.size()) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (kPattern[i] == '0' ? !digit : text[i] != kPattern[i]) return false;
  }
  return true;
}

std::string moment_text(const std::string& day, std::string_view clock) {
  return day.substr(0, 4) + "-" + day.substr(4, 2) + "-" + day.substr(6, 2) + " " +
         std::string(clock.substr(0, 8));
}

}  // namespace

std::optional<LogLine> parse_log_line(std::string_view line) {
  constexpr size_t kClock = 12;
  LogLine parsed;
  parsed.clock = line.substr(0, kClock);
  if (!is_clock(parsed.clock)) return std::nullopt;
  line.remove_prefix(kClock);
  if (!take(line, " <")) return std::nullopt;
  const size_t level = line.find('>');
  if (level > 5) return std::nullopt;  // or there is none
  parsed.level = line.substr(0, level);
  line.remove_prefix(level + 1);
  uint64_t tag = 0;
  const auto take_field = [&line](std::string_view before, auto& number) {
    return take(line, before) && take_number(line, number);
  };
  const bool complete = take_field("<", tag) && take_field(":", parsed.pid) &&
                        take_field(":", parsed.thread) && take(line, "> ");
  if (!complete) return std::nullopt;
  // A line that was cut has no place behind its text, and a quoted text may look like one: the last counts.
  const size_t place = line.rfind(" @@<");
  const size_t function = place == std::string_view::npos ? place : line.rfind(" @<", place);
  parsed.text = line.substr(0, function);
  return parsed;
}

std::optional<CacheFigures> parse_cache_figures(std::string_view text) {
  CacheFigures figures;
  const bool complete = take(text, "reply cache statistic info: size(") && take_number(text, figures.size) &&
                        take(text, "), count(") && take_number(text, figures.count) &&
                        take(text, "), query(") && take_number(text, figures.queries) &&
                        take(text, "), hit(") && take_number(text, figures.hits) && text == ")";
  if (!complete) return std::nullopt;
  return figures;
}

std::optional<int> parse_script_run(std::string_view text) {
  constexpr std::string_view kReturn = ", return ";
  if (!take(text, "Info: execute command: ")) return std::nullopt;
  const size_t at = text.rfind(kReturn);
  int status = 0;
  if (at == std::string_view::npos) return std::nullopt;
  text.remove_prefix(at + kReturn.size());
  if (!take_number(text, status) || !text.empty()) return std::nullopt;
  return status;
}

ReloadWord parse_reload(const LogLine& line) {
  if (line.thread != line.pid) return ReloadWord::kNothing;
  std::string_view text = line.text;
  if (take(text, "Handle single ")) {  // sic
    return text.ends_with(", reload data...") ? ReloadWord::kTaken : ReloadWord::kNothing;
  }
  if (text == "child_worker_start() load cache") return ReloadWord::kDone;
  if (!take(text, "Directory: ")) return ReloadWord::kNothing;
  if (line.level == "ERR") return ReloadWord::kFailed;
  const bool done = text.starts_with("built from ") || text.starts_with("snapshot of the servers of ") ||
                    text.starts_with("no snapshot of the servers yet") ||
                    text.find(" is unchanged, ") != std::string_view::npos;
  return done ? ReloadWord::kDone : ReloadWord::kNothing;
}

LogFollower::LogFollower(std::string path, uint64_t offset, uint64_t most)
    : path_(std::move(path)), offset_(offset), most_(most) {}

bool LogFollower::read(const std::function<void(std::string_view)>& visit) {
  const UniqueFd fd(open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0) return false;
  if (!S_ISREG(status.st_mode)) {
    errno = EINVAL;
    return false;
  }
  const auto size = static_cast<uint64_t>(status.st_size);
  if (size < offset_) {  // another file of that name
    offset_ = 0;
    pending_.clear();
  }
  bool skip_line = false;  // the first one is not whole
  if (size - offset_ > most_) {
    offset_ = size - most_;
    passed_over_ = skip_line = true;
    pending_.clear();
  }
  std::array<char, 65536> buffer;
  // What is written meanwhile is for the next call: a busy log would keep us here.
  while (offset_ < size) {
    const ssize_t got = pread(fd.get(), buffer.data(), buffer.size(), static_cast<off_t>(offset_));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) break;
    offset_ += static_cast<uint64_t>(got);
    pending_.append(buffer.data(), static_cast<size_t>(got));
    size_t at = 0;
    for (size_t end = pending_.find('\n'); end != std::string::npos; end = pending_.find('\n', at)) {
      if (!skip_line) visit(std::string_view(pending_).substr(at, end - at));
      skip_line = false;
      at = end + 1;
    }
    pending_.erase(0, at);
    if (pending_.size() > kLongestLine) pending_.clear();
  }
  return true;
}

const LogSummary& LogWatcher::look() {
  const std::string day = day_text(std::time(nullptr));
  if (day != day_) begin_day(day);
  summary_.problem.clear();
  summary_.denied = false;
  const bool read = today_->read([&](std::string_view line) { take(line, day, true); });
  if (!read) {
    summary_.denied = errno == EACCES;
    summary_.problem = summary_.file + ": " + std::generic_category().message(errno);
  }
  summary_.passed_over = today_->passed_over();
  return summary_;
}

void LogWatcher::begin_day(const std::string& day) {
  day_ = day;
  summary_ = {};
  summary_.file = log_path(day);
  today_.emplace(summary_.file, 0, kMostOfToday);
  const std::string before = newest_day(kLogFolder, kLogName, day);
  if (before.empty()) return;
  LogFollower earlier(log_path(before), 0, kMostOfEarlier);
  earlier.read([&](std::string_view line) { take(line, before, false); });
}

void LogWatcher::take(std::string_view line, const std::string& day, bool today) {
  const auto parsed = parse_log_line(line);
  if (!parsed) return;
  if (parsed->level == "ERR" && today) {
    ++summary_.errors;
    summary_.last_error_clock = parsed->clock;
    summary_.last_error = parsed->text;
  }
  if (parsed->level != "INF") return;
  if (auto figures = parse_cache_figures(parsed->text); figures && parsed->thread == parsed->pid) {
    figures->when = moment_text(day, parsed->clock);
    summary_.cache[parsed->pid] = std::move(*figures);
  } else if (const auto status = parse_script_run(parsed->text)) {
    summary_.script = ScriptRun{moment_text(day, parsed->clock), *status};
  }
}

std::string newest_day(const std::string& folder, std::string_view name, std::string_view before) {
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(folder.c_str()), closedir);
  std::string newest;
  while (const dirent* entry = entries ? readdir(entries.get()) : nullptr) {
    std::string_view day = entry->d_name;
    if (!take(day, name) || !take(day, ".") || !day.ends_with(kSuffix)) continue;
    day.remove_suffix(kSuffix.size());
    const bool digits = day.size() == 8 && day.find_first_not_of("0123456789") == std::string_view::npos;
    if (digits && day < before && day > newest) newest = day;
  }
  return newest;
}

std::string day_text(std::time_t moment) {
  std::tm local{};
  char text[16] = "";
  if (localtime_r(&moment, &local) != nullptr) std::strftime(text, sizeof text, "%Y%m%d", &local);
  return text;
}

std::string log_path(const std::string& day) {
  return std::string(kLogFolder) + "/" + kLogName + "." + day + std::string(kSuffix);
}

}  // namespace authctl
