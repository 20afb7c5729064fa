// Ini-style settings files: sections of key=value lines.
//
// Values are raw text (no quotes, no escapes). Section and key names are case-sensitive. "#" starts a
// comment only at the start of a line. A line that cannot be understood is logged and skipped.
//
// One object may be shared by threads: every operation locks it for its whole duration. Nothing throws,
// except the constructors when no lock can be had (the error number, an int). Null texts count as empty.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

class ConfigFileImpl;

class ConfigFile {
 public:
  // Section name -> key -> value, both in byte order.
  using KeyMap = std::map<std::string, std::string, std::less<>>;
  using SectionMap = std::map<std::string, KeyMap, std::less<>>;

  ConfigFile();                           // empty, ok() false
  explicit ConfigFile(const char* path);  // reads the file at once; ok() tells how that went
  explicit ConfigFile(const std::string& path);
  ConfigFile(const ConfigFile&) = delete;
  ConfigFile& operator=(const ConfigFile&) = delete;
  virtual ~ConfigFile();

  // True only after a read that opened the file and reached its end.
  bool ok() const;

  // Replaces all settings by the file's. 0, or -1 when it cannot be opened (no settings are left) or read
  // to its end (the settings up to there are left).
  int read_config(const char* path);
  // Reads the file of the last successful read again.
  int refresh();

  // The value's text, or null. Stays valid until that value changes or a file is read: a caller that
  // shares the object with writers must see to that itself.
  const char* getparam(const char* section, const char* key) const;
  // The value as a 32-bit decimal number; 0 when it is missing, has no digits in front or is too large.
  // A sign is taken modulo 2^32: "-1" gives 4294967295.
  uint32_t getdigitparam(const char* section, const char* key) const;

  // Memory only; nothing is written.
  void setparam(const char* section, const char* key, const char* value);
  // Leaves the section behind when it is empty, and makes it when it was missing.
  void unsetparam(const char* section, const char* key);

  // "key=value\n" for every key, in order, without section headers.
  std::string Serialize() const;
  std::string SerializeSection(const char* section) const;

  // Writes all sections in order; comments and line order of the file read are lost. -1 when the file
  // cannot be opened, else 0: a full disk is not noticed. A new file gets the mode 0640.
  int dump() const;
  int dump(const char* path) const;
  int dump_to_FILE(FILE* stream) const;  // always 0

  // True when the size or the modification time differs from those of the last read. With `reload` the
  // file is then read again; without, the answer stays true until somebody reads it.
  bool check_config_file_changed(bool reload);

  time_t GetFileMTime() const;      // seconds, as of the last read; 0 before
  std::string GetFilename() const;  // of the last successful read; empty before
  SectionMap GetRawData() const;
  // The first line of the last read that was passed over as no ini syntax, such as "line 3: '=' missing";
  // empty when there was none. For readers that are stricter than this class.
  std::string first_syntax_error() const;

  // Something about a line of the file, for whoever tells an administrator.
  struct Remark {
    int line;
    std::string text;
  };
  // All lines of the last read that were passed over, and those that replaced an earlier value.
  std::vector<Remark> syntax_errors() const;
  std::vector<Remark> repeated_keys() const;
  // The line of the last read in which the value in force stands; for the empty key that in which the section
  // begins. 0 when there is none.
  int line_of(std::string_view section, std::string_view key) const;

  // A whole file as NUL-terminated text without byte-order mark, or null. The caller frees it (delete[]).
  char* ReadWarnMsg(const char* path) const;

  // 0 when both are null, 1 when one is, else strcasecmp.
  static int strcmpnull(const char* left, const char* right);

 private:
  std::unique_ptr<ConfigFileImpl> impl_;
};

// The first character that is neither blank nor tab.
const char* skip_space(const char* text);
// True for every character that may stand in a section name or key.
bool is_valid_letter(char c);
