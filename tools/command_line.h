// What the command lines of all tools have in common.
#pragma once

#include <CLI/CLI.hpp>

namespace command_line {

// A caller may have closed descriptors 0 to 2. The next file or connection would get such a number, and what
// is printed would be written into it. Opens them, so that nothing can be read from or written to them. To be
// called before anything else is opened.
void fill_standard_descriptors();

// Prints what ends the reading of a command line: the help or the version, then the status is 0, or what is
// wrong, in one line behind the program's name, then it is 2. `unwritable` is the status when standard output
// does not take the help.
int finish(const CLI::App& app, const CLI::ParseError& error, int unwritable);

// Whether standard output took all that was printed; complains in the program's name if not.
bool was_printed(const CLI::App& app);

}  // namespace command_line
