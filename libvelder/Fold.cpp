#include "libvelder/Fold.h"

#include <utf8proc.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <new>

namespace velder {
namespace {

constexpr auto kFolding = static_cast<utf8proc_option_t>(
    UTF8PROC_STABLE | UTF8PROC_COMPOSE | UTF8PROC_COMPAT | UTF8PROC_CASEFOLD | UTF8PROC_IGNORE);

struct Free {
  void operator()(utf8proc_uint8_t* bytes) const { std::free(bytes); }
};

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}
char upper(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - ('a' - 'A')) : c;
}

bool is_ascii(std::string_view text) {
  // Without an early end the compiler makes this a loop over whole vectors; texts are short.
  unsigned int all = 0;
  for (const char c : text) all |= static_cast<unsigned char>(c);
  return all < 0x80;
}

}  // namespace

std::string ascii_lower(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), lower);
  return result;
}

std::string ascii_upper(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), upper);
  return result;
}

bool ascii_iequals(std::string_view left, std::string_view right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                    [](char a, char b) { return lower(a) == lower(b); });
}

bool is_utf8(std::string_view text) {
  if (is_ascii(text)) return true;
  const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
  auto left = static_cast<utf8proc_ssize_t>(text.size());
  while (left > 0) {
    utf8proc_int32_t character = 0;
    const utf8proc_ssize_t length = utf8proc_iterate(bytes, left, &character);
    if (length <= 0) return false;
    bytes += length;
    left -= length;
  }
  return true;
}

std::string fold_text(std::string_view text) {
  if (is_ascii(text)) return ascii_lower(text);
  utf8proc_uint8_t* raw = nullptr;
  const utf8proc_ssize_t length = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                                               static_cast<utf8proc_ssize_t>(text.size()), &raw, kFolding);
  const std::unique_ptr<utf8proc_uint8_t, Free> folded(raw);
  if (length == UTF8PROC_ERROR_NOMEM) throw std::bad_alloc();
  if (length < 0) return ascii_lower(text);
  return std::string(reinterpret_cast<const char*>(folded.get()), static_cast<size_t>(length));
}

}  // namespace velder
