// What authctl reads from standard input: passwords and tokens, a line each.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <tl/expected.hpp>

namespace authctl {

// Far above any password, and above any token, that the daemon would take.
constexpr size_t kMaxLine = 65536;
constexpr size_t kMaxToken = size_t{2} << 20;

// The next line of the descriptor without its line end. Reads no byte beyond it, so that the next call finds
// the next line, and leaves no copy behind; the caller wipes the result. An error is a text for the user:
// nothing before the end of input, a line beyond `longest`, or a failed read.
tl::expected<std::string, std::string> read_line(int fd, size_t longest = kMaxLine);

// From a terminal: asks on standard error and reads without echo; the terminal is restored also when a
// signal ends the program. Otherwise: the first line of standard input. The caller wipes the result.
tl::expected<std::string, std::string> read_password(std::string_view prompt);

}  // namespace authctl
