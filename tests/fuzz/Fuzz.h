// A fuzz target takes hostile bytes and hands them to one part of the product. It fails by crashing, by
// hanging, or by a require() that does not hold. The same targets run under libFuzzer (make fuzz) and over
// the corpus that is checked in (the test fuzz.replay).
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace fuzz {

using Body = void (*)(std::string_view bytes);

// By name; null when there is none.
Body find_target(std::string_view name);

struct Registration {
  Registration(const char* name, Body body);
};

// Ends the process with what should have held.
void require(bool holds, const char* what);

// A folder in memory where there is one, of this process, gone at its end.
const std::string& scratch_folder();
// Puts a file into it; gives its path.
std::string write_scratch(const std::string& name, std::string_view content);

// Nothing of the log is kept or reaches a file; the lines are formatted and thrown away.
void log_into_nothing(bool verbose);

// Cuts the input into what a target needs; an input that is used up gives zeros and empty texts.
class Input {
 public:
  explicit Input(std::string_view bytes) : rest_(bytes) {}

  bool empty() const { return rest_.empty(); }
  uint8_t byte();
  uint32_t number(size_t bytes = 4);  // little-endian
  std::string_view take(size_t count);
  std::string_view piece() { return take(byte()); }  // as long as its first byte says
  std::string_view rest() { return take(rest_.size()); }

 private:
  std::string_view rest_;
};

// Damages a sound file: places and what stands there afterwards, and perhaps a new length.
std::string patched(std::string file, Input& input);

}  // namespace fuzz

#define FUZZ_TARGET(name)                                                  \
  static void fuzz_##name(std::string_view);                               \
  static const fuzz::Registration name##_registration(#name, fuzz_##name); \
  static void fuzz_##name(std::string_view bytes)
