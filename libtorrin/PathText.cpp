#include "libtorrin/PathText.h"

namespace torrin {
namespace {

std::optional<std::vector<std::string>> split_names(std::string_view path) {
  if (path.find('\0') != std::string_view::npos) return std::nullopt;
  std::vector<std::string> names;
  while (!path.empty()) {
    const size_t end = std::min(path.find('/'), path.size());
    const std::string_view name = path.substr(0, end);
    if (name == "." || name == "..") return std::nullopt;
    if (!name.empty()) names.emplace_back(name);
    path.remove_prefix(std::min(end + 1, path.size()));
  }
  return names;
}

}  // namespace

std::optional<std::vector<std::string>> split_absolute_path(std::string_view path) {
  if (path.empty() || path.front() != '/') return std::nullopt;
  return split_names(path);
}

std::optional<std::vector<std::string>> split_relative_path(std::string_view path) {
  if (path.empty() || path.front() == '/') return std::nullopt;
  return split_names(path);
}

}  // namespace torrin
