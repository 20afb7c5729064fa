// Texts that others chose, made fit for a log line or a terminal.
#pragma once

#include <string>
#include <string_view>

namespace torrin {

// Control bytes as \xNN, so that a text cannot start a line of its own or talk to a terminal. A backslash
// is written as \x5c only where it would read as such an escape.
std::string printable(std::string_view text);

// At most 300 bytes and three dots, so that what stands behind it on the line is not lost.
std::string shortened(std::string text);

}  // namespace torrin
