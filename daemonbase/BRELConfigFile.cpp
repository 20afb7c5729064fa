#include "daemonbase/BRELConfigFile.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "brellog/VrLog.h"
#include "daemonbase/BRELSync.h"

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr mode_t kDumpedFileMode = 0640;  // settings are nobody else's business

struct CloseFile {
  void operator()(FILE* file) const { fclose(file); }
};
using FilePtr = std::unique_ptr<FILE, CloseFile>;

// Null on failure, after which the descriptor is closed. It may be a failed open's.
FilePtr to_stream(int descriptor, const char* mode) {
  FilePtr file(descriptor < 0 ? nullptr : fdopen(descriptor, mode));
  if (file == nullptr && descriptor >= 0) close(descriptor);
  return file;
}

// For reading. A pipe under the name of a settings file is an empty file, not a wait for its writer.
FilePtr open_text(const char* path) {
  return to_stream(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK), "r");
}

const char* or_empty(const char* text) {
  return text == nullptr ? "" : text;
}

// The run of characters that may stand in a name.
std::string_view take_name(const char* text) {
  const char* end = text;
  while (is_valid_letter(*end)) ++end;
  return {text, static_cast<size_t>(end - text)};
}

// The lines of one file, of any length. A NUL ends the text of its line, as it would for any reader of C
// strings; what follows up to the line end is ignored.
class LineReader {
 public:
  explicit LineReader(FILE* file) : file_(file) {}
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;
  ~LineReader() { free(line_); }

  // The next line without its line end, valid until the next call; null at the end or on an error.
  char* next() {
    if (getline(&line_, &capacity_, file_) < 0) return nullptr;
    size_t length = strlen(line_);
    if (length > 0 && line_[length - 1] == '\n') line_[--length] = '\0';
    if (length > 0 && line_[length - 1] == '\r') line_[--length] = '\0';
    return line_;
  }

 private:
  FILE* file_;
  char* line_ = nullptr;
  size_t capacity_ = 0;
};

// A 32-bit strtoul in base 10 whose overflow is 0, whatever the width of long.
uint32_t to_number(std::string_view text) {
  const size_t start = text.find_first_not_of(" \t\n\v\f\r");
  if (start == std::string_view::npos) return 0;
  text.remove_prefix(start);
  const bool negative = text.front() == '-';
  if (negative || text.front() == '+') text.remove_prefix(1);
  uint32_t number = 0;  // stays 0 when there are no digits or too many
  std::from_chars(text.data(), text.data() + text.size(), number);
  return negative ? 0U - number : number;
}

}  // namespace

const char* skip_space(const char* text) {
  while (*text == ' ' || *text == '\t') ++text;
  return text;
}

bool is_valid_letter(char c) {
  switch (c) {
    case '\n':
    case '\r':
    case ']':
    case '=':
    case ' ':
    case '\t':
    case '\0': return false;
    default: return true;
  }
}

// Holds all state. Public operations take the mutex for their whole duration; the private ones expect it.
class ConfigFileImpl {
 public:
  bool ok() const {
    BRELLock guard(mutex_);
    return ok_;
  }

  int read_config(const char* path) {
    BRELLock guard(mutex_);
    return read(path);
  }

  int refresh() {
    BRELLock guard(mutex_);
    return read(std::string(file_name_).c_str());
  }

  const char* getparam(const char* section, const char* key) const {
    BRELLock guard(mutex_);
    const std::string* const value = find(section, key);
    return value == nullptr ? nullptr : value->c_str();
  }

  uint32_t getdigitparam(const char* section, const char* key) const {
    BRELLock guard(mutex_);
    const std::string* const value = find(section, key);
    return value == nullptr ? 0 : to_number(*value);
  }

  void setparam(const char* section, const char* key, const char* value) {
    BRELLock guard(mutex_);
    settings_[section][key] = value;
  }

  void unsetparam(const char* section, const char* key) {
    BRELLock guard(mutex_);
    // Makes a missing section on purpose: it is dumped as a header without keys.
    settings_[section].erase(key);
  }

  std::string Serialize() const {
    BRELLock guard(mutex_);
    std::string text;
    for (const auto& [name, keys] : settings_) append_keys(keys, &text);
    return text;
  }

  std::string SerializeSection(const char* section) const {
    BRELLock guard(mutex_);
    std::string text;
    const auto found = settings_.find(std::string_view(section));
    if (found != settings_.end()) append_keys(found->second, &text);
    return text;
  }

  int dump() const {
    BRELLock guard(mutex_);
    return write(file_name_.c_str());
  }

  int dump(const char* path) const {
    BRELLock guard(mutex_);
    return write(path);
  }

  int dump_to_FILE(FILE* stream) const {
    BRELLock guard(mutex_);
    return write_to(stream);
  }

  bool check_config_file_changed(bool reload) {
    BRELLock guard(mutex_);
    struct stat now = {};
    if (file_name_.empty() || stat(file_name_.c_str(), &now) != 0) return false;
    if (now.st_size == status_.st_size && now.st_mtime == status_.st_mtime) return false;
    if (reload) read(std::string(file_name_).c_str());
    return true;
  }

  time_t GetFileMTime() const {
    BRELLock guard(mutex_);
    return status_.st_mtime;
  }

  std::string GetFilename() const {
    BRELLock guard(mutex_);
    return file_name_;
  }

  ConfigFile::SectionMap GetRawData() const {
    BRELLock guard(mutex_);
    return settings_;
  }

  std::string first_syntax_error() const {
    BRELLock guard(mutex_);
    if (syntax_errors_.empty()) return {};
    return "line " + std::to_string(syntax_errors_.front().line) + ": " + syntax_errors_.front().text;
  }

  std::vector<ConfigFile::Remark> syntax_errors() const {
    BRELLock guard(mutex_);
    return syntax_errors_;
  }

  std::vector<ConfigFile::Remark> repeated_keys() const {
    BRELLock guard(mutex_);
    return repeated_keys_;
  }

  int line_of(std::string_view section, std::string_view key) const {
    BRELLock guard(mutex_);
    const auto found = lines_.find(std::pair(std::string(section), std::string(key)));
    return found == lines_.end() ? 0 : found->second;
  }

 private:
  int read(const char* path) REQUIRES(mutex_);
  void parse_line(const char* line, int number, std::string* section) REQUIRES(mutex_);
  void parse_section(const char* text, int number, std::string* section) REQUIRES(mutex_);
  void remember_error(int number, const char* what) REQUIRES(mutex_) {
    syntax_errors_.push_back({number, what});
  }
  void remember_line(const std::string& section, std::string_view key, int number) REQUIRES(mutex_);
  const std::string* find(const char* section, const char* key) const REQUIRES(mutex_);
  int write(const char* path) const REQUIRES(mutex_);
  int write_to(FILE* stream) const REQUIRES(mutex_);

  static void append_keys(const ConfigFile::KeyMap& keys, std::string* text) {
    for (const auto& [key, value] : keys) text->append(key).append("=").append(value).append("\n");
  }

  ConfigFile::SectionMap settings_ GUARDED_BY(mutex_);
  mutable BRELMutex mutex_{false};
  std::string file_name_ GUARDED_BY(mutex_);    // of the last successful read
  struct stat status_ GUARDED_BY(mutex_) = {};  // of that file, taken right after the read
  bool ok_ GUARDED_BY(mutex_) = false;
  std::vector<ConfigFile::Remark> syntax_errors_ GUARDED_BY(mutex_);
  std::vector<ConfigFile::Remark> repeated_keys_ GUARDED_BY(mutex_);
  // (section, key) -> line; with the empty key the line of the section
  std::map<std::pair<std::string, std::string>, int> lines_ GUARDED_BY(mutex_);
};

int ConfigFileImpl::read(const char* path) {
  settings_.clear();
  syntax_errors_.clear();
  repeated_keys_.clear();
  lines_.clear();
  ok_ = false;
  status_ = {};
  VRLOG(kLogDebug, "Read .ini file %s\n", path);
  FilePtr file = open_text(path);
  if (file == nullptr) {
    VRLOG(kLogDebug, "Failed to open %s\n", path);
    return -1;
  }

  LineReader lines(file.get());
  std::string section;  // the current one; none yet while empty
  for (int number = 1; const char* line = lines.next(); ++number) {
    if (number == 1 && std::string_view(line).starts_with(kByteOrderMark)) line += kByteOrderMark.size();
    parse_line(line, number, &section);
  }
  // A line too long for the memory ends the loop without an error of the stream, but not at its end.
  if (ferror(file.get()) != 0 || feof(file.get()) == 0) {
    file.reset();
    VRLOG(kLogInfo, "ERROR: Failed to read %s\n", path);
    return -1;
  }
  file.reset();
  file_name_ = path;
  ok_ = true;
  if (stat(path, &status_) != 0) status_ = {};
  return 0;
}

void ConfigFileImpl::parse_line(const char* line, int number, std::string* section) {
  const char* const text = skip_space(line);
  if (*text == '\0' || *text == '#') return;
  if (*text == '[') return parse_section(text + 1, number, section);

  const std::string_view key = take_name(text);
  const char* const rest = skip_space(text + key.size());
  if (*rest != '=') {
    VRLOG(kLogInfo, "ERROR: Syntax error at line %d : '=' missing\n", number);
    remember_error(number, "'=' missing");
    return;
  }
  if (section->empty()) {
    VRLOG(kLogInfo, "ERROR: Section not defined at line %d\n", number);
    remember_error(number, "no section before it");
    return;
  }
  settings_[*section][std::string(key)] = skip_space(rest + 1);
  remember_line(*section, key, number);
}

void ConfigFileImpl::remember_line(const std::string& section, std::string_view key, int number) {
  const auto [at, first] = lines_.try_emplace(std::pair(section, std::string(key)), number);
  if (first || key.empty()) return;
  repeated_keys_.push_back({number, "[" + section + "] " + std::string(key) + " is given again, line " +
                                        std::to_string(at->second) + " does not count"});
  at->second = number;
}

// `text` begins after the opening bracket. What follows the name, also after the bracket, is ignored. A
// section comes into being with its first key.
void ConfigFileImpl::parse_section(const char* text, int number, std::string* section) {
  const std::string_view name = take_name(text);
  if (name.empty() || strchr(text + name.size(), ']') == nullptr) {
    VRLOG(kLogInfo, "ERROR: Syntax error at line %d : closing ']' missing\n", number);
    remember_error(number, "closing ']' missing");
    return;
  }
  section->assign(name);
  remember_line(*section, "", number);
}

const std::string* ConfigFileImpl::find(const char* section, const char* key) const {
  const auto keys = settings_.find(std::string_view(section));
  if (keys == settings_.end()) {
    VRLOG(kLogDebug, "NOT FOUND SECTION: %s, [%s], %s ", file_name_.c_str(), section, key);
    return nullptr;
  }
  const auto value = keys->second.find(std::string_view(key));
  if (value == keys->second.end()) {
    VRLOG(kLogDebug, "NOT FOUND KEY: %s, [%s], %s ", file_name_.c_str(), section, key);
    return nullptr;
  }
  return &value->second;
}

int ConfigFileImpl::write(const char* path) const {
  const FilePtr file = to_stream(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kDumpedFileMode), "w");
  if (file == nullptr) {
    VRLOG(kLogDebug, "Failed to open %s\n", path);
    return -1;
  }
  return write_to(file.get());
}

int ConfigFileImpl::write_to(FILE* stream) const {
  for (const auto& [name, keys] : settings_) {
    fprintf(stream, "[%s]\n", name.c_str());
    for (const auto& [key, value] : keys) fprintf(stream, "%s=%s\n", key.c_str(), value.c_str());
  }
  return 0;
}

ConfigFile::ConfigFile() : impl_(std::make_unique<ConfigFileImpl>()) {}
ConfigFile::ConfigFile(const char* path) : ConfigFile() {
  read_config(path);
}
ConfigFile::ConfigFile(const std::string& path) : ConfigFile(path.c_str()) {}
ConfigFile::~ConfigFile() = default;

bool ConfigFile::ok() const {
  return impl_->ok();
}
int ConfigFile::read_config(const char* path) {
  return impl_->read_config(or_empty(path));
}
int ConfigFile::refresh() {
  return impl_->refresh();
}

const char* ConfigFile::getparam(const char* section, const char* key) const {
  return impl_->getparam(or_empty(section), or_empty(key));
}

uint32_t ConfigFile::getdigitparam(const char* section, const char* key) const {
  return impl_->getdigitparam(or_empty(section), or_empty(key));
}

void ConfigFile::setparam(const char* section, const char* key, const char* value) {
  impl_->setparam(or_empty(section), or_empty(key), or_empty(value));
}

void ConfigFile::unsetparam(const char* section, const char* key) {
  impl_->unsetparam(or_empty(section), or_empty(key));
}

std::string ConfigFile::Serialize() const {
  return impl_->Serialize();
}
std::string ConfigFile::SerializeSection(const char* section) const {
  return impl_->SerializeSection(or_empty(section));
}

int ConfigFile::dump() const {
  return impl_->dump();
}
int ConfigFile::dump(const char* path) const {
  return impl_->dump(or_empty(path));
}
int ConfigFile::dump_to_FILE(FILE* stream) const {
  return impl_->dump_to_FILE(stream);
}

bool ConfigFile::check_config_file_changed(bool reload) {
  return impl_->check_config_file_changed(reload);
}
time_t ConfigFile::GetFileMTime() const {
  return impl_->GetFileMTime();
}
std::string ConfigFile::GetFilename() const {
  return impl_->GetFilename();
}
ConfigFile::SectionMap ConfigFile::GetRawData() const {
  return impl_->GetRawData();
}
std::string ConfigFile::first_syntax_error() const {
  return impl_->first_syntax_error();
}
std::vector<ConfigFile::Remark> ConfigFile::syntax_errors() const {
  return impl_->syntax_errors();
}
std::vector<ConfigFile::Remark> ConfigFile::repeated_keys() const {
  return impl_->repeated_keys();
}
int ConfigFile::line_of(std::string_view section, std::string_view key) const {
  return impl_->line_of(section, key);
}

char* ConfigFile::ReadWarnMsg(const char* path) const {
  path = or_empty(path);
  VRLOG(kLogDebug, "ReadWarnMsg: load warning message file %s.", path);
  const FilePtr file = open_text(path);
  if (file == nullptr) {
    VRLOG(kLogDebug, "ReadWarnMsg: could not open file.");
    return nullptr;
  }
  struct stat status = {};
  if (fstat(fileno(file.get()), &status) != 0) {
    VRLOG(kLogDebug, "ReadWarnMsg: bad file handle.");
    return nullptr;
  }
  const auto size = static_cast<size_t>(status.st_size);
  std::unique_ptr<char[]> text(new (std::nothrow) char[size + 1]);
  if (text == nullptr || fread(text.get(), 1, size, file.get()) != size) {
    VRLOG(kLogDebug, "ReadWarnMsg: could not read data.");
    return nullptr;
  }
  const bool marked = std::string_view(text.get(), size).starts_with(kByteOrderMark);
  const size_t skipped = marked ? kByteOrderMark.size() : 0;
  memmove(text.get(), text.get() + skipped, size - skipped);
  text[size - skipped] = '\0';
  return text.release();
}

int ConfigFile::strcmpnull(const char* left, const char* right) {
  if (left == nullptr || right == nullptr) return left == right ? 0 : 1;
  return strcasecmp(left, right);
}
