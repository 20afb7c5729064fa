// Text as it is compared: without regard to letter case, in all scripts.
#pragma once

#include <string>
#include <string_view>

namespace velder {

// Changes whenever fold_text gives another result for any text, so that stored keys can be told to be old.
constexpr int kFoldVersion = 1;

// The key of `text` for caseless comparing: two texts that differ only in letter case, in composed or
// decomposed accents, in compatibility forms (ligatures, full-width letters) or in invisible characters have
// the same key. Accents and the Turkish dotless i stay distinct. Text that is not valid UTF-8 has only its
// ASCII letters folded. NUL is a character like any other. Safe from every thread.
std::string fold_text(std::string_view text);

// Only the ASCII letters, for names of attributes, schemes and domains.
std::string ascii_lower(std::string_view text);
std::string ascii_upper(std::string_view text);
bool ascii_iequals(std::string_view left, std::string_view right);

// Whether `text` is well-formed UTF-8 (no surrogates, no over-long forms).
bool is_utf8(std::string_view text);

}  // namespace velder
