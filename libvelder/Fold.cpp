#include "libvelder/Fold.h"

#include <utf8proc.h>

#include <algorithm>
#include <array>
#include <vector>

namespace velder {
namespace {

constexpr auto kFolding = static_cast<utf8proc_option_t>(
    UTF8PROC_STABLE | UTF8PROC_COMPOSE | UTF8PROC_COMPAT | UTF8PROC_CASEFOLD | UTF8PROC_IGNORE);

// No character becomes more; the longest is one of eighteen.
constexpr size_t kLongestDecomposition = 64;

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

// Shows each character to `visit` until that gives false. True when all of the text is UTF-8 and was shown.
template <class Visit>
bool for_each_character(std::string_view text, Visit visit) {
  const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
  auto left = static_cast<utf8proc_ssize_t>(text.size());
  while (left > 0) {
    utf8proc_int32_t character = 0;
    const utf8proc_ssize_t length = utf8proc_iterate(bytes, left, &character);
    if (length <= 0 || !visit(character)) return false;
    bytes += length;
    left -= length;
  }
  return true;
}

using Characters = std::vector<utf8proc_int32_t>;

// False for a text that is not UTF-8.
bool decompose(std::string_view text, Characters& characters) {
  characters.reserve(text.size() + 1);
  return for_each_character(text, [&](utf8proc_int32_t character) {
    std::array<utf8proc_int32_t, kLongestDecomposition> parts;
    int boundary = 0;
    const utf8proc_ssize_t count =
        utf8proc_decompose_char(character, parts.data(), parts.size(), kFolding, &boundary);
    if (count < 0 || count > static_cast<utf8proc_ssize_t>(parts.size())) return false;
    characters.insert(characters.end(), parts.begin(), parts.begin() + count);
    return true;
  });
}

int mark_class(utf8proc_int32_t character) {
  return utf8proc_get_property(character)->combining_class;
}

// Puts each run of combining marks in the order of their classes. The library would do so, but in a time that
// grows with the square of the run: a name of nothing but marks would hold up a thread for hours.
void order_marks(Characters& characters) {
  const auto is_mark = [](utf8proc_int32_t character) { return mark_class(character) != 0; };
  auto begin = std::find_if(characters.begin(), characters.end(), is_mark);
  while (begin != characters.end()) {
    const auto end = std::find_if_not(begin, characters.end(), is_mark);
    std::stable_sort(begin, end, [](utf8proc_int32_t left, utf8proc_int32_t right) {
      return mark_class(left) < mark_class(right);
    });
    begin = std::find_if(end, characters.end(), is_mark);
  }
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
  return is_ascii(text) || for_each_character(text, [](utf8proc_int32_t /*any*/) { return true; });
}

std::string fold_text(std::string_view text) {
  if (is_ascii(text)) return ascii_lower(text);
  Characters folded;
  if (!decompose(text, folded)) return ascii_lower(text);
  order_marks(folded);
  const auto count = static_cast<utf8proc_ssize_t>(folded.size());
  folded.push_back(0);  // room for the end that the library writes behind the bytes
  const utf8proc_ssize_t length = utf8proc_reencode(folded.data(), count, kFolding);
  if (length < 0) return ascii_lower(text);
  return std::string(reinterpret_cast<const char*>(folded.data()), static_cast<size_t>(length));
}

}  // namespace velder
