// Logging for the whole process.
//
// A caller asks canLog(), builds the text with LogStr() and hands it to writeLog3(); VRLOG does the three.
// Before setConfig() every level is on and lines are kept in memory; the first setConfig() opens the daily
// file, writes them there and leaves only errors on until setLogVerbose().
//
// All functions may be called from any thread, never throw, never report failure and leave errno as it was.
// Configuration belongs to one thread at a time. A thread's first message allocates its context and
// buffers, or takes those of a thread that has ended; later messages allocate nothing.
#pragma once

#include <unistd.h>  // gettid()

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>

class BRELIPList;
class ConfigFile;

enum enumLogMsgType : int {
  kLogError = 0,  // always enabled
  kLogInfo = 1,
  kLogTrans = 2,
  kLogDebug = 3,
  kLogMore = 4,
};

#define VRLOG_PRINTF(format_index, first_argument) \
  __attribute__((format(printf, format_index, first_argument)))

// Writes one line when the level is enabled; the arguments are not evaluated otherwise.
#define VRLOG(level, format, ...)                                         \
  do {                                                                    \
    if (VrLog::canLog(level))                                             \
      VrLog::writeLog3(level, __FILE__, __LINE__, __FUNCTION__,           \
                       VrLog::LogStr(format __VA_OPT__(, ) __VA_ARGS__)); \
  } while (0)

// Writes a failed system call at error level: errno and its message, then the text (already formatted).
#define VRLOG_SYS(text) VrLog::logSysError(__FILE__, __LINE__, __FUNCTION__, text)

// What a caller may install on a thread to tag its lines and to veto them. This base vetoes nothing and
// tags nothing but itself.
class VrLogFilter {
 public:
  virtual bool canLog(enumLogMsgType level, BRELIPList* list);
  virtual int getClientSock();
  virtual int getServerSock();
  virtual uint32_t getSessionTag();
  virtual uint32_t getTransTag();
  virtual uint32_t getLogFilerTag();  // sic. The low 32 bits of the object's address
  virtual uint32_t getGlobalSessionTag();
  virtual ~VrLogFilter();
};

// A thread's tags and prefix. Only its own thread touches it.
class VrLogContext {
 public:
  static constexpr size_t kPrefixBytes = 1024;

  static VrLogContext* getCurrentLogContext();
  // Puts another context (not owned) in place of the thread's own; null brings the own one back.
  static void setCurrentLogContext(VrLogContext* context);
  static void setCurrentLogFilter(VrLogFilter* filter);  // not owned; null for none
  static void setCurrentThreadTag(int tag);

  VrLogFilter* getLogFilter() const { return filter_; }
  int getThreadTag() const { return thread_tag_; }
  char* GetLogPrefixBuffer(size_t* size);

 private:
  VrLogFilter* filter_ = nullptr;
  int32_t thread_tag_ = 0;
  char prefix_[kPrefixBytes] = {};
};

class VrLog {
 public:
  // Also print every line on standard output.
  static std::atomic<bool> bDupLogToConsole;

  static bool canLog(enumLogMsgType level);
  // The text in the thread's buffer, cut at 4095 characters, valid until the thread's next LogStr().
  static char* LogStr(const char* format, ...) VRLOG_PRINTF(1, 2);
  // The three below always return true.
  static bool writeLog3(enumLogMsgType level, const char* source_file, int source_line, const char* function,
                        const char* text);
  static bool logSysError(const char* source_file, int source_line, const char* function, const char* text);
  // `code` is a resolver's (getaddrinfo) error code.
  static bool logSockError(const char* source_file, int source_line, const char* function, int code,
                           const char* text);
  // A line with the writer's own header and without the caller's location.
  static void writeLog2(enumLogMsgType level, const char* format, va_list arguments) VRLOG_PRINTF(2, 0);
  // "ERROR: <errno>,<message>" in the thread's buffer, valid until the thread's next printErrno().
  static char* printErrno();

  // Opens <directory>/<prefix> plus the day suffix. Null or empty prefix: "http.log", null or empty
  // directory: "/var/brel/log"; both null: console only. Returns whether a closing line was written at info.
  static bool setConfig(const char* prefix, const char* directory);
  // The same with the names out of an ini file; null or empty keys take their default names. Without a
  // file or a section: console only.
  static bool setConfig(ConfigFile* file, const char* section, const char* prefix_key,
                        const char* directory_key, const char* verbose_key, const char* filter_key);
  // Applies the verbose and filter settings of the section given to setConfig() when the file's time of
  // last read has changed. The caller refreshes the file first.
  static void checkLogSetting(ConfigFile* file);
  static void setLogVerbose(bool verbose);
  // "true", "1", "yes", "on"; "more"; "false", "0", "no", "off"; or any mix of inf, trans, debug/dbg, more.
  static void setLogVerbose(const char* word);
  // Replaces the list that filters are asked with. The replaced list lives until the next call, for
  // threads that still look at it.
  static void setLogFilterIPList(const char* text);
  static bool isLogInited();
  static void stopLog();

  // The whole line but for the time stamp, in the thread's buffer, valid until the thread's next line.
  static char* _FormatLog(enumLogMsgType level, const char* source_file, int source_line,
                          const char* function, const char* text);
};

// Keeps errno over a scope.
class VrErrnoRestoreHelper {
 public:
  VrErrnoRestoreHelper() : saved_(errno) {}
  VrErrnoRestoreHelper(const VrErrnoRestoreHelper&) = delete;
  VrErrnoRestoreHelper& operator=(const VrErrnoRestoreHelper&) = delete;
  ~VrErrnoRestoreHelper() { errno = saved_; }

  int saved() const { return saved_; }

 private:
  int saved_;
};

// Silences the thread (errors too) over a scope; may be nested.
class VrLogDisableHelper {
 public:
  VrLogDisableHelper();
  VrLogDisableHelper(const VrLogDisableHelper&) = delete;
  VrLogDisableHelper& operator=(const VrLogDisableHelper&) = delete;
  ~VrLogDisableHelper();
};

// Puts "<file>, <function>, <text>" in front of the thread's lines over a scope.
class VrLogPrefixHelper {
 public:
  VrLogPrefixHelper(const char* source_file, const char* function, const char* format, ...)
      VRLOG_PRINTF(4, 5);
  VrLogPrefixHelper(const VrLogPrefixHelper&) = delete;
  VrLogPrefixHelper& operator=(const VrLogPrefixHelper&) = delete;
  ~VrLogPrefixHelper();

  static char* getCurrPrefix();

 private:
  char saved_[4096];
};

// As a static object of a source file: its lines carry the module name in square brackets.
class VrLogModuleInfo {
 public:
  VrLogModuleInfo(const char* module_name, const char* source_file);
};

const char* get_log_level_str(enumLogMsgType level);
// The level that the log writer knows for one of ours.
int ConvertVrLogLevelToInternalLevel(enumLogMsgType level);
// Opens the writer on <directory>/<prefix>; returns whether it is open.
bool InitializeSystemLog(const char* prefix, const char* directory);
void InitModuleInfo();

// For libraries that want a printf-like function: lines at info and at debug.
void LogPrintf_CB(const char* format, ...) VRLOG_PRINTF(1, 2);
void DbgPrintf_CB(const char* format, ...) VRLOG_PRINTF(1, 2);
