// Puts finished log lines on disk: one open, append and close of the day's file per line, so that neither
// the change of the day nor somebody's removal of the file leaves a stale descriptor behind. A file kept open
// and compared with its path before each line would hold a removed file's disk space and its file system's
// mount until the next line, and a line would cost hardly less.
//
// Lines that come before a file is configured (dangling records) are kept and written once it is.
//
// Any thread may write; lines of different threads and processes never interleave. Nothing is reported: a
// line that cannot be written is lost. Two locks of the whole process stand behind all objects, so one
// object per process is meant. Order: neither is held while the other is taken.
#pragma once

#include <atomic>
#include <cstdarg>
#include <deque>
#include <string>
#include <string_view>

#include "daemonbase/BRELSync.h"
#include "daemonbase/ThreadSafety.h"

class CSimpleDebugLog {
 public:
  enum DebugLevel : int {
    kNoisy = 0,
    kDebug = 1,
    kInfo = 2,
    kError = 3,
    kVerbatim = 4,  // text that is written as it is, without time stamp or header
  };

  static constexpr const char* kLockFile = "/var/brel/runtime/simplelog.lock";

  CSimpleDebugLog();
  CSimpleDebugLog(const CSimpleDebugLog&) = delete;
  CSimpleDebugLog& operator=(const CSimpleDebugLog&) = delete;

  // Lines go to the prefix followed by the day suffix; kept records are written first. Closes what was
  // open. False when the prefix is empty.
  bool OpenDevice(const char* path_prefix) EXCLUDES(records_lock_, file_lock_);
  void CloseDevice() EXCLUDES(file_lock_);
  bool IsDeviceOpened() const;

  // Text and line are cut at 4095 characters. A line gets a time stamp; unless `raw` also the level, the
  // tag (printed unsigned), the process and the thread id. errno may change.
  void WriteLog(DebugLevel level, int tag, bool raw, const char* format, ...)
      __attribute__((format(printf, 5, 6)));
  void WriteLogV(DebugLevel level, int tag, bool raw, const char* format, va_list arguments)
      __attribute__((format(printf, 5, 0)));

  // Keeps the newest 4096 lines.
  void SaveDanglingRecords(std::string_view line) EXCLUDES(records_lock_);
  // Writes the kept lines to the file, or to standard output while no file is open.
  void FlushDanglingRecords() EXCLUDES(records_lock_, file_lock_);

  void SetConsoleEcho(bool on) { console_echo_.store(on, std::memory_order_relaxed); }
  void SetFileOutput(bool on) { file_output_.store(on, std::memory_order_relaxed); }
  void SetKeepDanglingRecords(bool on) { keep_dangling_.store(on, std::memory_order_relaxed); }
  void SetMinimumLevel(DebugLevel level) { minimum_level_.store(level, std::memory_order_relaxed); }

  static const char* GetDebugLevelDisplayName(DebugLevel level);

  // Waits for an exclusive lock on the file, which is made when missing. The descriptor that holds it, to
  // be given to UnlockFile(), or -1.
  static int LockAndWaitOnFile(const char* path);
  static void UnlockFile(int descriptor);

 private:
  // Takes all kept lines. Those that find the file closed again on their way to it are kept once more.
  void write_records(bool to_file) EXCLUDES(records_lock_, file_lock_);
  // False when the file was closed in the meantime; a failed write is a success here.
  bool append_to_file(const char* day_suffix, std::string_view line) EXCLUDES(file_lock_);

  std::atomic<bool> console_echo_{false};
  std::atomic<bool> file_output_{true};
  std::atomic<bool> keep_dangling_{true};
  std::atomic<int> minimum_level_{kNoisy};
  std::atomic<bool> opened_{false};  // whether path_prefix_ is non-empty, without the lock

  BRELMutex& records_lock_;
  BRELMutex& file_lock_;
  std::deque<std::string> dangling_ GUARDED_BY(records_lock_);  // oldest first
  std::string path_prefix_ GUARDED_BY(file_lock_);
};
