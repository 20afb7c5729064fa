// Paths taken apart into names, as text only: nothing is looked up.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace torrin {

// The names of an absolute path; empty when it is relative or holds "..", "." or a NUL byte. Repeated and
// closing slashes do not count; "/" has no names.
std::optional<std::vector<std::string>> split_absolute_path(std::string_view path);

// The same for a relative path, which must have at least one name.
std::optional<std::vector<std::string>> split_relative_path(std::string_view path);

}  // namespace torrin
