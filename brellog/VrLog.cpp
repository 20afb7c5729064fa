#include "brellog/VrLog.h"

#include <netdb.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

#include "brellog/BrellogInternal.h"
#include "brellog/CSimpleDebugLog.h"
#include "daemonbase/BRELConfigFile.h"
#include "daemonbase/BRELIPList.h"
#include "daemonbase/Immortal.h"

using brellog::base_name;
using brellog::is_empty;
using brellog::kTextBytes;

namespace {

// Everything is on until the first configuration, so that early messages are not lost. No other setting
// gives this value: it tells the first setConfig() from later ones.
constexpr uint32_t kMaskBeforeConfig = 0x7FFFFFFF;

constexpr uint32_t mask_bit(enumLogMsgType level) {
  return 1U << (static_cast<uint32_t>(level) % 32U);
}

constexpr const char* kDefaultPrefix = "http.log";
constexpr const char* kDefaultDirectory = "/var/brel/log";
constexpr size_t kFilterListBytes = 2048;  // of the list's text, its NUL included

std::atomic<uint32_t> g_level_mask{kMaskBeforeConfig};
std::atomic<BRELIPList*> g_filter_list{nullptr};  // the current one of FilterLists, for canLog

// Written by the configuring thread alone, like Parameters.
struct FilterLists {
  std::unique_ptr<BRELIPList> current;
  std::unique_ptr<BRELIPList> previous;  // kept for threads that still look at it
};

// How the last setConfig() named things; all empty when it had no file.
struct Parameters {
  std::string section;
  std::string prefix_key;
  std::string directory_key;
  std::string verbose_key;
  std::string filter_key;
  uint32_t seen_mtime = 0;  // of the ini file, at the last checkLogSetting()

  void clear_names() {
    for (std::string* name : {&section, &prefix_key, &directory_key, &verbose_key, &filter_key})
      name->clear();
  }
};

FilterLists& filter_lists() {
  static const Immortal<FilterLists> lists;
  return lists.get();
}

Parameters& parameters() {
  static const Immortal<Parameters> values;
  return values.get();
}

CSimpleDebugLog& writer() {
  static const Immortal<CSimpleDebugLog> log;
  return log.get();
}

// Makes the writer at program start, also when nothing is logged for long.
[[maybe_unused]] const CSimpleDebugLog& g_writer_at_start = writer();

const char* or_default(const char* text, const char* fallback) {
  return is_empty(text) ? fallback : text;
}

bool one_of(std::string_view word, const std::array<std::string_view, 4>& words) {
  for (const std::string_view candidate : words) {
    if (word == candidate) return true;
  }
  return false;
}

uint32_t mask_of_word(std::string_view word) {
  const auto holds = [word](std::string_view part) { return word.find(part) != std::string_view::npos; };
  uint32_t mask = mask_bit(kLogError) | mask_bit(kLogInfo);
  if (one_of(word, {"true", "1", "yes", "on"})) return mask | mask_bit(kLogTrans) | mask_bit(kLogDebug);
  if (word == "more") return mask | mask_bit(kLogTrans) | mask_bit(kLogDebug) | mask_bit(kLogMore);
  if (one_of(word, {"false", "0", "no", "off"})) return mask;
  if (!holds("inf")) mask &= ~mask_bit(kLogInfo);
  if (holds("trans")) mask |= mask_bit(kLogTrans);
  if (holds("debug") || holds("dbg")) mask |= mask_bit(kLogDebug);
  if (holds("more")) mask |= mask_bit(kLogMore);
  return mask;
}

std::string_view trim(std::string_view text) {
  constexpr std::string_view kSpace = " \t\n\v\f\r";
  const size_t first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

// Copies the line as one line: line ends fall away, tabs become blanks.
void copy_as_one_line(char (&line)[kTextBytes], const char* text) {
  size_t length = 0;
  for (; *text != '\0' && length < sizeof line - 1; ++text) {
    if (*text == '\r' || *text == '\n') continue;
    line[length++] = *text == '\t' ? ' ' : *text;
  }
  line[length] = '\0';
}

// The console's copy of a line while the writer, with no file open, echoes nothing. Flushed at once, as a
// worker ends without flushing.
void print_while_closed(const char* text) {
  if (writer().IsDeviceOpened() || !VrLog::bDupLogToConsole) return;
  printf("%s\n", text);
  fflush(stdout);
}

CSimpleDebugLog::DebugLevel writer_level(enumLogMsgType level) {
  return static_cast<CSimpleDebugLog::DebugLevel>(ConvertVrLogLevelToInternalLevel(level));
}

void begin_configuration() {
  tzset();
  uint32_t before = kMaskBeforeConfig;
  g_level_mask.compare_exchange_strong(before, 0);
}

bool end_configuration() {
  return VrLog::canLog(kLogInfo) &&
         VrLog::writeLog3(kLogInfo, __FILE__, __LINE__, __FUNCTION__, VrLog::LogStr("VrLog inited"));
}

void use_console_only() {
  VrLog::bDupLogToConsole = true;
  parameters().clear_names();
  writer().SetKeepDanglingRecords(false);
  writer().FlushDanglingRecords();
}

}  // namespace

std::atomic<bool> VrLog::bDupLogToConsole{false};

bool VrLog::canLog(enumLogMsgType level) {
  if (brellog::thread_is_silenced()) return false;
  if (level == kLogError) return true;
  if ((g_level_mask.load(std::memory_order_relaxed) & mask_bit(level)) == 0) return false;
  BRELIPList* const list = g_filter_list.load(std::memory_order_acquire);
  if (list == nullptr || list->GetNodeCount() == 0) return true;
  VrLogFilter* const filter = VrLogContext::getCurrentLogContext()->getLogFilter();
  if (filter == nullptr) return true;
  const VrLogDisableHelper silence;
  return filter->canLog(level, list);
}

char* VrLog::LogStr(const char* format, ...) {
  const VrErrnoRestoreHelper keep_errno;
  char(&buffer)[kTextBytes] = brellog::thread_buffers().log_str;
  va_list arguments;
  va_start(arguments, format);
  if (vsnprintf(buffer, sizeof buffer, format, arguments) < 0) buffer[0] = '\0';
  va_end(arguments);
  return buffer;
}

char* VrLog::_FormatLog(enumLogMsgType level, const char* source_file, int source_line, const char* function,
                        const char* text) {
  char(&buffer)[kTextBytes] = brellog::thread_buffers().format_log;
  VrLogContext& context = *VrLogContext::getCurrentLogContext();
  brellog::TextAppender line(buffer, sizeof buffer);
  line.append("<%s>", get_log_level_str(level));
  line.append("<%u:%u:%u> ", brellog::current_tag(context), static_cast<unsigned>(getpid()),
              static_cast<unsigned>(gettid()));

  if (VrLogFilter* const filter = context.getLogFilter(); filter != nullptr) {
    const uint32_t filter_tag = filter->getLogFilerTag();
    const uint32_t session_tag = filter->getSessionTag();
    const uint32_t trans_tag = filter->getTransTag();
    if (session_tag != 0 || trans_tag != 0) {
      line.append("<0x%x:%u:%u> ", filter_tag, session_tag, trans_tag);
    } else if (filter_tag != 0) {
      line.append("<0x%x> ", filter_tag);
    }
    const int client = filter->getClientSock();
    const int server = filter->getServerSock();
    if (client > 0) line.append("<C:%d>", client);
    if (server > 0) line.append("<S:%d>", server);
    if (client > 0 || server > 0) line.append(" ");
  }

  if (!is_empty(source_file)) {
    const std::string_view module = brellog::module_of(source_file);
    if (!module.empty()) line.append("[%.*s] ", static_cast<int>(module.size()), module.data());
  }
  size_t prefix_size = 0;
  if (const char* const prefix = context.GetLogPrefixBuffer(&prefix_size); *prefix != '\0') {
    line.append("%s, ", prefix);
  }
  if (!is_empty(text)) line.append("%s", text);
  if (!is_empty(function)) line.append(" @<%s>", function);
  if (!is_empty(source_file)) line.append(" @@<%s:%d>", base_name(source_file), source_line);
  return buffer;
}

bool VrLog::writeLog3(enumLogMsgType level, const char* source_file, int source_line, const char* function,
                      const char* text) {
  const VrErrnoRestoreHelper keep_errno;
  if (!canLog(level)) return true;
  char line[kTextBytes];
  copy_as_one_line(line, _FormatLog(level, source_file, source_line, function, text));
  writer().SetConsoleEcho(bDupLogToConsole);
  writer().WriteLog(writer_level(level), 0, true, "%s", line);
  print_while_closed(line);
  return true;
}

void VrLog::writeLog2(enumLogMsgType level, const char* format, va_list arguments) {
  const VrErrnoRestoreHelper keep_errno;
  if (!canLog(level)) return;
  const uint32_t tag = brellog::current_tag(*VrLogContext::getCurrentLogContext());
  writer().SetConsoleEcho(bDupLogToConsole);
  va_list again;
  va_copy(again, arguments);
  writer().WriteLogV(writer_level(level), static_cast<int>(tag), false, format, arguments);
  if (bDupLogToConsole && !writer().IsDeviceOpened()) {
    char text[kTextBytes] = "";
    vsnprintf(text, sizeof text, format, again);
    print_while_closed(text);
  }
  va_end(again);
}

char* VrLog::printErrno() {
  const VrErrnoRestoreHelper keep_errno;
  char(&buffer)[kTextBytes] = brellog::thread_buffers().print_errno;
  char message[256];
  snprintf(buffer, sizeof buffer, "ERROR: %d,%s", keep_errno.saved(),
           strerror_r(keep_errno.saved(), message, sizeof message));
  return buffer;
}

bool VrLog::logSysError(const char* source_file, int source_line, const char* function, const char* text) {
  const VrErrnoRestoreHelper keep_errno;
  char(&buffer)[kTextBytes] = brellog::thread_buffers().log_sys_error;
  errno = keep_errno.saved();  // making the buffers may have changed it
  brellog::TextAppender(buffer, sizeof buffer).append("%s, %s", printErrno(), or_default(text, ""));
  return writeLog3(kLogError, source_file, source_line, function, buffer);
}

bool VrLog::logSockError(const char* source_file, int source_line, const char* function, int code,
                         const char* text) {
  const VrErrnoRestoreHelper keep_errno;
  char reason[511];
  snprintf(reason, sizeof reason, "h_errno: %d,%s", code, gai_strerror(code));
  // The text comes first here, unlike in logSysError().
  char(&buffer)[kTextBytes] = brellog::thread_buffers().log_sock_error;
  brellog::TextAppender(buffer, sizeof buffer).append("%s, %s", or_default(text, ""), reason);
  return writeLog3(kLogError, source_file, source_line, function, buffer);
}

bool VrLog::setConfig(const char* prefix, const char* directory) {
  const VrErrnoRestoreHelper keep_errno;
  begin_configuration();
  if (prefix == nullptr && directory == nullptr) {
    use_console_only();
  } else {
    parameters().clear_names();
    InitializeSystemLog(or_default(prefix, kDefaultPrefix), or_default(directory, kDefaultDirectory));
  }
  return end_configuration();
}

bool VrLog::setConfig(ConfigFile* file, const char* section, const char* prefix_key,
                      const char* directory_key, const char* verbose_key, const char* filter_key) {
  const VrErrnoRestoreHelper keep_errno;
  begin_configuration();
  if (file == nullptr || is_empty(section)) {
    use_console_only();
    return end_configuration();
  }
  Parameters& kept = parameters();
  kept.section = section;
  kept.prefix_key = or_default(prefix_key, "logfile_prefix");
  kept.directory_key = or_default(directory_key, "logfile");
  kept.verbose_key = or_default(verbose_key, "verbose");
  kept.filter_key = or_default(filter_key, "verbose_filter");
  InitializeSystemLog(or_default(file->getparam(section, kept.prefix_key.c_str()), kDefaultPrefix),
                      or_default(file->getparam(section, kept.directory_key.c_str()), kDefaultDirectory));
  checkLogSetting(file);
  return end_configuration();
}

void VrLog::checkLogSetting(ConfigFile* file) {
  const VrErrnoRestoreHelper keep_errno;
  Parameters& kept = parameters();
  if (file == nullptr || kept.section.empty()) return;
  const uint32_t mtime = static_cast<uint32_t>(file->GetFileMTime());
  if (mtime == kept.seen_mtime) return;
  kept.seen_mtime = mtime;
  if (const char* word = file->getparam(kept.section.c_str(), kept.verbose_key.c_str()); word != nullptr) {
    setLogVerbose(word);
  }
  if (const char* list = file->getparam(kept.section.c_str(), kept.filter_key.c_str()); list != nullptr) {
    setLogFilterIPList(list);
  }
}

void VrLog::setLogVerbose(bool verbose) {
  setLogVerbose(verbose ? "1" : "0");
}

void VrLog::setLogVerbose(const char* word) {
  const VrErrnoRestoreHelper keep_errno;
  const uint32_t mask = mask_of_word(or_default(word, ""));
  g_level_mask.store(mask, std::memory_order_relaxed);
  VRLOG(kLogInfo, "LOG level: 0x%x", mask);
}

void VrLog::setLogFilterIPList(const char* text) {
  const VrErrnoRestoreHelper keep_errno;
  FilterLists& lists = filter_lists();
  g_filter_list.store(nullptr, std::memory_order_release);
  lists.previous = std::move(lists.current);
  if (is_empty(text)) return;
  VRLOG(kLogDebug, "setLogFilterIPList: %s", text);
  const std::string_view items = trim(text).substr(0, kFilterListBytes - 1);
  if (items.empty()) return;
  lists.current = std::make_unique<BRELIPList>();
  lists.current->AddMultiItems(items);
  g_filter_list.store(lists.current.get(), std::memory_order_release);
}

bool VrLog::isLogInited() {
  return writer().IsDeviceOpened();
}

void VrLog::stopLog() {
  writer().CloseDevice();
}

const char* get_log_level_str(enumLogMsgType level) {
  switch (level) {
    case kLogError: return "ERR";
    case kLogInfo: return "INF";
    case kLogTrans: return "TRANS";
    case kLogDebug: return "DBG";
    case kLogMore: return "MOR";
  }
  return "";
}

int ConvertVrLogLevelToInternalLevel(enumLogMsgType level) {
  switch (level) {
    case kLogError: return CSimpleDebugLog::kError;
    case kLogInfo:
    case kLogTrans: return CSimpleDebugLog::kInfo;
    case kLogDebug: return CSimpleDebugLog::kDebug;
    case kLogMore: break;
  }
  return CSimpleDebugLog::kNoisy;
}

bool InitializeSystemLog(const char* prefix, const char* directory) {
  CSimpleDebugLog& log = writer();
  if (log.IsDeviceOpened()) log.CloseDevice();
  log.SetConsoleEcho(VrLog::bDupLogToConsole);
  log.SetFileOutput(true);
  char path[kTextBytes];
  brellog::TextAppender(path, sizeof path).append("%s/%s", or_default(directory, ""), or_default(prefix, ""));
  return log.OpenDevice(path);
}

void LogPrintf_CB(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  VrLog::writeLog2(kLogInfo, format, arguments);
  va_end(arguments);
}

void DbgPrintf_CB(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  VrLog::writeLog2(kLogDebug, format, arguments);
  va_end(arguments);
}
