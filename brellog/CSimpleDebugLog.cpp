#include "brellog/CSimpleDebugLog.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <utility>

#include "daemonbase/Immortal.h"

namespace {

constexpr size_t kLineBytes = 4096;  // of one line, its NUL included
constexpr size_t kMaxDanglingRecords = 4096;
constexpr mode_t kLogFileMode = 0660;   // the umask is 0: the mode is what the file gets
constexpr mode_t kLockFileMode = 0666;  // programs of other accounts lock it too

BRELMutex& records_lock() {
  static const Immortal<BRELMutex> lock(false);
  return lock.get();
}

BRELMutex& file_lock() {
  static const Immortal<BRELMutex> lock(false);
  return lock.get();
}

// What a line says of the time, and in which day's file it goes. Each thread keeps its own for a second:
// looking at the zone, whose file may be replaced while we run, would be a quarter of a line's cost.
struct TimeStamp {
  time_t second = -1;
  char clock[16] = "";       // hours:minutes:seconds
  char day_suffix[32] = "";  // what the day adds to the file name
  int milliseconds = 0;
};

const TimeStamp& take_time_stamp() {
  constinit thread_local TimeStamp stamp;
  timeval now = {};
  gettimeofday(&now, nullptr);
  stamp.milliseconds = static_cast<int>(now.tv_usec / 1000);
  if (now.tv_sec == stamp.second) return stamp;

  tzset();
  tm local = {};
  localtime_r(&now.tv_sec, &local);
  strftime(stamp.clock, sizeof stamp.clock, "%T", &local);
  strftime(stamp.day_suffix, sizeof stamp.day_suffix, ".%Y%m%d.0001", &local);
  stamp.second = now.tv_sec;
  return stamp;
}

// Builds the line, its line feed included, and returns its length.
size_t build_line(char (&line)[kLineBytes], CSimpleDebugLog::DebugLevel level, int tag, bool raw,
                  const TimeStamp& stamp, const char* format, va_list arguments) {
  int header = 0;
  if (level != CSimpleDebugLog::kVerbatim) {
    header = snprintf(line, sizeof line, "%s.%03d ", stamp.clock, stamp.milliseconds);
  }
  if (level != CSimpleDebugLog::kVerbatim && !raw) {
    header += snprintf(line + header, sizeof line - static_cast<size_t>(header), "<%s><%u:%d:%d> ",
                       CSimpleDebugLog::GetDebugLevelDisplayName(level), static_cast<unsigned>(tag), getpid(),
                       gettid());
  }
  char* const text = line + header;
  if (vsnprintf(text, sizeof line - static_cast<size_t>(header), format, arguments) < 0) *text = '\0';

  size_t length = strlen(line);
  if (length > 0 && line[length - 1] == '\n') return length;
  if (length == sizeof line - 1) --length;
  line[length++] = '\n';
  line[length] = '\0';
  return length;
}

// Flushed at once: a worker ends without flushing, and a fork would print what is still buffered twice.
void print(std::string_view line) {
  fwrite(line.data(), 1, line.size(), stdout);
  fflush(stdout);
}

}  // namespace

CSimpleDebugLog::CSimpleDebugLog() : records_lock_(records_lock()), file_lock_(file_lock()) {}

bool CSimpleDebugLog::OpenDevice(const char* path_prefix) {
  if (IsDeviceOpened()) CloseDevice();
  {
    BRELLock guard(file_lock_);
    path_prefix_ = path_prefix == nullptr ? "" : path_prefix;
    opened_ = !path_prefix_.empty();
  }
  FlushDanglingRecords();
  return IsDeviceOpened();
}

void CSimpleDebugLog::CloseDevice() {
  BRELLock guard(file_lock_);
  opened_ = false;
  path_prefix_.clear();
}

bool CSimpleDebugLog::IsDeviceOpened() const {
  return opened_;
}

void CSimpleDebugLog::WriteLog(DebugLevel level, int tag, bool raw, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  WriteLogV(level, tag, raw, format, arguments);
  va_end(arguments);
}

void CSimpleDebugLog::WriteLogV(DebugLevel level, int tag, bool raw, const char* format, va_list arguments) {
  const bool keep = keep_dangling_.load(std::memory_order_relaxed);
  const bool dangling = !IsDeviceOpened();
  if (dangling && !keep) return;
  if (level < minimum_level_.load(std::memory_order_relaxed)) return;

  const TimeStamp& stamp = take_time_stamp();
  char buffer[kLineBytes];
  const std::string_view line(buffer, build_line(buffer, level, tag, raw, stamp, format, arguments));

  if (dangling) {
    SaveDanglingRecords(line);
    // Another thread may have opened the file, and written the kept records, since the look above.
    if (IsDeviceOpened()) write_records(true);
    return;
  }
  if (console_echo_.load(std::memory_order_relaxed)) print(line);
  if (!file_output_.load(std::memory_order_relaxed)) return;
  if (!append_to_file(stamp.day_suffix, line) && keep) SaveDanglingRecords(line);
}

bool CSimpleDebugLog::append_to_file(const char* day_suffix, std::string_view line) {
  BRELLock guard(file_lock_);
  if (path_prefix_.empty()) return false;
  char path[kLineBytes + sizeof(TimeStamp::day_suffix)];
  const int length = snprintf(path, sizeof path, "%s%s", path_prefix_.c_str(), day_suffix);
  if (length < 0 || static_cast<size_t>(length) >= sizeof path) return true;

  const int file = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, kLogFileMode);
  if (file < 0) return true;
  // One write per line is what keeps the lines of several processes apart.
  [[maybe_unused]] const ssize_t written = write(file, line.data(), line.size());
  close(file);
  return true;
}

void CSimpleDebugLog::SaveDanglingRecords(std::string_view line) {
  BRELLock guard(records_lock_);
  try {
    dangling_.emplace_back(line);
  } catch (const std::bad_alloc&) {
    return;  // logging never fails its caller; this line is lost
  }
  while (dangling_.size() > kMaxDanglingRecords) dangling_.pop_front();
}

void CSimpleDebugLog::FlushDanglingRecords() {
  write_records(IsDeviceOpened());
}

void CSimpleDebugLog::write_records(bool to_file) {
  std::deque<std::string> records;
  {
    BRELLock guard(records_lock_);
    records.swap(dangling_);
  }
  for (const std::string& record : records) {
    if (to_file) {
      WriteLog(kVerbatim, 0, true, "%s", record.c_str());
    } else {
      print(record);
    }
  }
}

const char* CSimpleDebugLog::GetDebugLevelDisplayName(DebugLevel level) {
  switch (level) {
    case kNoisy: return "NOISY";
    case kDebug: return "DBG";
    case kInfo: return "INF";
    case kError: return "ERR";
    case kVerbatim: break;
  }
  return "<n/a>";
}

int CSimpleDebugLog::LockAndWaitOnFile(const char* path) {
  const int descriptor = open(path, O_RDONLY | O_CREAT | O_CLOEXEC, kLockFileMode);
  if (descriptor < 0) return -1;
  while (flock(descriptor, LOCK_EX) != 0) {
    if (errno == EINTR) continue;
    close(descriptor);
    return -1;
  }
  return descriptor;
}

void CSimpleDebugLog::UnlockFile(int descriptor) {
  if (descriptor >= 0) close(descriptor);
}
