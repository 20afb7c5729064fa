#include "Fuzz.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

#include "brellog/VrLog.h"

namespace fuzz {
namespace {

std::map<std::string, Body, std::less<>>& targets() {
  static std::map<std::string, Body, std::less<>> all;
  return all;
}

}  // namespace

Registration::Registration(const char* name, Body body) {
  targets().emplace(name, body);
}

Body find_target(std::string_view name) {
  const auto found = targets().find(name);
  return found == targets().end() ? nullptr : found->second;
}

void require(bool holds, const char* what) {
  if (holds) return;
  fprintf(stderr, "does not hold: %s\n", what);
  abort();
}

const std::string& scratch_folder() {
  static const std::string* const folder = [] {  // not destroyed: needed to the very end
    const char* parent = getenv("TMPDIR");
    if (parent == nullptr) parent = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    auto* path = new std::string(std::string(parent) + "/authd-fuzz-XXXXXX");
    require(mkdtemp(path->data()) != nullptr, "a scratch folder can be made");
    atexit([] { std::filesystem::remove_all(scratch_folder()); });
    return path;
  }();
  return *folder;
}

std::string write_scratch(const std::string& name, std::string_view content) {
  std::string path = scratch_folder() + "/" + name;
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
  return path;
}

void log_into_nothing(bool verbose) {
  static const bool configured = [] {
    // Standard output is the log's console; libFuzzer and the replay report on standard error.
    require(freopen("/dev/null", "w", stdout) != nullptr, "/dev/null can be opened");
    VrLog::setConfig(nullptr, nullptr);
    return true;
  }();
  static_cast<void>(configured);
  VrLog::setLogVerbose(verbose ? "more" : "no");
}

uint8_t Input::byte() {
  return static_cast<uint8_t>(number(1));
}

uint32_t Input::number(size_t bytes) {
  uint32_t value = 0;
  int shift = 0;
  for (const char one : take(bytes)) {
    value |= uint32_t{static_cast<uint8_t>(one)} << shift;
    shift += 8;
  }
  return value;
}

std::string_view Input::take(size_t count) {
  const std::string_view taken = rest_.substr(0, count);
  rest_.remove_prefix(taken.size());
  return taken;
}

std::string patched(std::string file, Input& input) {
  const uint8_t cut = input.byte();
  while (!input.empty()) {
    const size_t place = input.number() % file.size();
    const std::string_view bytes = input.take(input.byte() % 16 + 1);
    std::copy_n(bytes.begin(), std::min(bytes.size(), file.size() - place),
                file.begin() + static_cast<std::ptrdiff_t>(place));
  }
  if (cut >= 128) file.resize(file.size() * (cut - 128U) / 96);  // shorter or longer
  return file;
}

}  // namespace fuzz
