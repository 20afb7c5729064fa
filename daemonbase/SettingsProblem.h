// What is wrong with a settings file: found by the reader that the start uses, told by whoever checks a file
// before a start. A reader gathers all problems instead of stopping at the first.
#pragma once

#include <algorithm>
#include <cctype>
#include <string>
#include <string_view>
#include <vector>

struct SettingsProblem {
  bool fatal = false;  // the daemon does not start with it; else a remark
  int line = 0;        // 0: of the whole file, or of something that is missing
  std::string text;    // what is wrong and what was expected, without file and line
};

// Steps from one name to the other (a character put in, left out or replaced), letter case aside.
inline size_t name_distance(std::string_view one, std::string_view other) {
  const auto lower = [](char c) { return std::tolower(static_cast<unsigned char>(c)); };
  std::vector<size_t> row(other.size() + 1);
  for (size_t j = 0; j < row.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= one.size(); ++i) {
    size_t corner = row[0];
    row[0] = i;
    for (size_t j = 1; j <= other.size(); ++j) {
      const size_t replaced = corner + (lower(one[i - 1]) == lower(other[j - 1]) ? 0 : 1);
      corner = row[j];
      row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
    }
  }
  return row.back();
}

// The name of `known` that was probably meant, or the empty text. A third of the name may be mistyped.
inline std::string nearest_name(std::string_view given, const std::vector<std::string>& known) {
  constexpr size_t kLongestName = 64;  // nobody mistypes one of ours into more
  if (given.size() > kLongestName) return {};
  std::string nearest;
  size_t least = given.size() / 3 + 1;  // one more than may be wrong
  for (const std::string& name : known) {
    const size_t distance = name_distance(given, name);
    if (distance >= least) continue;
    least = distance;
    nearest = name;
  }
  return nearest;
}
