#include "tools/authctl_input.h"

#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "client/RawFrames.h"

namespace authctl {
namespace {

constexpr std::array kEndingSignals = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

// What the signal handler needs; set before the handler is installed.
termios g_saved_terminal;

extern "C" void restore_terminal_and_die(int signal_number) {
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &g_saved_terminal);
  (void)!write(STDERR_FILENO, "\n", 1);  // the shell goes on in a line of its own
  // The handler was reset when it was entered: the signal does its usual work once it is unblocked.
  raise(signal_number);
}

// No echo for its lifetime. Suspending is off meanwhile: the shell would inherit a terminal without echo.
class SilentTerminal {
 public:
  SilentTerminal() {
    if (tcgetattr(STDIN_FILENO, &g_saved_terminal) != 0) return;
    struct sigaction action {};
    action.sa_handler = restore_terminal_and_die;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (size_t i = 0; i < kEndingSignals.size(); ++i) {
      sigaction(kEndingSignals[i], &action, &before_[i]);
      // One that the caller had ignored, as nohup does, stays ignored.
      if (before_[i].sa_handler == SIG_IGN) sigaction(kEndingSignals[i], &before_[i], nullptr);
    }
    termios silent = g_saved_terminal;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
    silent.c_cc[VSUSP] = _POSIX_VDISABLE;
    active_ = tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent) == 0;
    if (!active_) restore_signals();
  }
  ~SilentTerminal() {
    if (!active_) return;
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &g_saved_terminal);
    restore_signals();
  }
  SilentTerminal(const SilentTerminal&) = delete;
  SilentTerminal& operator=(const SilentTerminal&) = delete;

  bool active() const { return active_; }

 private:
  void restore_signals() {
    for (size_t i = 0; i < kEndingSignals.size(); ++i) sigaction(kEndingSignals[i], &before_[i], nullptr);
  }

  bool active_ = false;
  std::array<struct sigaction, kEndingSignals.size()> before_{};
};

void write_to_user(std::string_view text) {
  (void)!write(STDERR_FILENO, text.data(), text.size());
}

}  // namespace

tl::expected<std::string, std::string> read_line(int fd, size_t longest) {
  std::string line;
  line.reserve(longest + 1);  // never moves, so no copy of a password is left in freed memory
  for (;;) {
    char byte = 0;
    const ssize_t got = read(fd, &byte, 1);
    if (got == 1 && byte == '\n') {
      if (line.ends_with('\r')) line.pop_back();
      return line;
    }
    if (got == 1 && line.size() < longest) {
      line.push_back(byte);
      continue;
    }
    if (got < 0 && errno == EINTR) continue;
    if (got == 0 && !line.empty()) return line;
    const int error_number = errno;
    velder_client::wipe(line);
    if (got > 0) return tl::make_unexpected("the line is longer than " + std::to_string(longest) + " bytes");
    if (got == 0) return tl::make_unexpected(std::string("nothing on standard input"));
    return tl::make_unexpected(std::string("cannot read standard input: ") + std::strerror(error_number));
  }
}

tl::expected<std::string, std::string> read_password(std::string_view prompt) {
  if (isatty(STDIN_FILENO) == 0) return read_line(STDIN_FILENO);
  const SilentTerminal silence;
  if (!silence.active()) return tl::make_unexpected(std::string("cannot switch the terminal's echo off"));
  write_to_user(prompt);
  auto line = read_line(STDIN_FILENO);
  write_to_user("\n");
  return line;
}

}  // namespace authctl
