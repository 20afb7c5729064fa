#include "tools/command_line.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

namespace command_line {
namespace {

constexpr int kUsage = 2;

// The first word that nobody asked for. Where something is missing too, this is mostly the reason.
std::string first_unknown(const CLI::App& app) {
  const std::vector<std::string> unknown = app.remaining(true);
  return unknown.empty() ? std::string() : unknown.front();
}

// The arguments come back in the messages; what would drive the terminal does not.
std::string without_controls(std::string_view text) {
  std::string kept;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool second_half = kept.ends_with('\xc2') && byte >= 0x80 && byte < 0xa0;  // in UTF-8 they have two
    if (second_half) {
      kept.pop_back();
    } else if (byte >= ' ' && byte != 0x7f) {
      kept += c;
    }
  }
  return kept;
}

std::string words_of(const CLI::App& app, const CLI::ParseError& error) {
  const bool incomplete = dynamic_cast<const CLI::RequiredError*>(&error) != nullptr;
  const std::string unknown = incomplete ? first_unknown(app) : std::string();
  if (unknown.starts_with('-')) return "there is no option '" + unknown + "'";
  const bool takes_commands = !app.get_subcommands({}).empty();
  if (!unknown.empty() && takes_commands && app.get_subcommands().empty()) {
    return "there is no command '" + unknown + "'";
  }
  return error.what();
}

}  // namespace

void fill_standard_descriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    // The lowest free number is given out, which is this one. Each is opened for what it is not used for.
    if (fcntl(fd, F_GETFD) == -1) (void)!open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

int finish(const CLI::App& app, const CLI::ParseError& error, int unwritable) {
  if (error.get_exit_code() == 0) {
    app.exit(error);
    return was_printed(app) ? 0 : unwritable;
  }
  std::string name = app.get_name();
  std::cerr << name << ": " << without_controls(words_of(app, error));
  for (const CLI::App* command : app.get_subcommands()) name += " " + command->get_name();
  std::cerr << "; '" << name << " --help' tells more\n";
  return kUsage;
}

bool was_printed(const CLI::App& app) {
  // What was flushed in between left its mark in the stream.
  if (std::cout.flush() && std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return true;
  std::cerr << app.get_name() << ": cannot write to standard output\n";
  return false;
}

}  // namespace command_line
