// How the inner parts of the directory library report a failure.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <tl/expected.hpp>

namespace velder {

// `code` is one of the DirectoryResult values, 1 (other) when nothing more exact is known. `text` is one
// line for the log, printable as it stands, that names the file or server and what was expected.
struct Error {
  int code;
  std::string text;
};

template <class T>
using Result = tl::expected<T, Error>;

// `text` for an error line: bytes that are no printable ASCII become \xHH, and what is longer than `limit`
// characters after that ends in "...".
std::string printable(std::string_view text, size_t limit = 64);

}  // namespace velder
