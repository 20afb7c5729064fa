// authctl status on a terminal and elsewhere, once and again and again.
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <sstream>
#include <thread>

#include "tools/authctl_commands.h"
#include "tools/authctl_format.h"
#include "tools/status_report.h"

namespace authctl {
namespace {

void print_report(std::ostream& out, const StatusReport& report, bool json) {
  if (json) {
    out << status_json(report) << '\n';
  } else {
    print_status(out, report);
  }
}

std::string clipped(std::string_view line, size_t columns) {
  std::string text(line);
  while (display_width(text) > columns) {
    do {
      const bool continues = (static_cast<unsigned char>(text.back()) & 0xC0) == 0x80;
      text.pop_back();
      if (!continues) break;
    } while (!text.empty());
  }
  return text;
}

// The second screen of the terminal, without a cursor and without echo, for as long as it is entered.
class Screen {
 public:
  void enter() {
    keys_ = tcgetattr(STDIN_FILENO, &before_) == 0;
    if (keys_) {
      termios raw = before_;
      raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);  // Ctrl-C stays a signal
      tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    }
    put("\033[?1049h\033[?25l");
  }
  void leave() {
    put("\033[?25h\033[?1049l");
    if (keys_) tcsetattr(STDIN_FILENO, TCSADRAIN, &before_);
  }
  void draw(const std::string& text) {
    winsize size{};
    const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0;
    const size_t rows = known ? size.ws_row : 24, columns = known ? size.ws_col : 80;
    std::string drawn = "\033[H";
    std::istringstream lines(text);
    std::string line;
    for (size_t row = 0; row < rows && std::getline(lines, line); ++row) {
      drawn += (row == 0 ? "" : "\r\n") + clipped(line, columns) + "\033[K";
    }
    put(drawn + "\033[J");
  }
  bool keys() const { return keys_; }

 private:
  static void put(std::string_view text) {
    while (!text.empty()) {
      const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
      if (written < 0 && errno == EINTR) continue;
      if (written < 0) return;
      text.remove_prefix(static_cast<size_t>(written));
    }
  }

  termios before_{};
  bool keys_ = false;
};

// What the looking thread hands to the drawing one. Lives until the program ends: looking may take seconds,
// for which nobody who has pressed a key waits.
struct Board {
  std::mutex mutex;
  std::string text;
  int exit_code = kExitSuccess;
  int news = -1;  // eventfd
};

void keep_looking(const StatusOptions& options, std::chrono::milliseconds interval, Board& board) {
  StatusGatherer gatherer(options);
  for (;;) {
    const StatusReport report = gatherer.look();
    std::ostringstream text;
    char clock[16] = "";
    std::tm local{};
    if (localtime_r(&report.taken_at, &local) != nullptr) std::strftime(clock, sizeof clock, "%T", &local);
    text << clock << ", every " << static_cast<double>(interval.count()) / 1000 << " s, q ends\n\n";
    print_report(text, report, options.json);
    {
      const std::lock_guard lock(board.mutex);
      board.text = text.str();
      board.exit_code = report.exit_code();
    }
    eventfd_write(board.news, 1);
    std::this_thread::sleep_for(interval);
  }
}

int watched_signals(sigset_t& signals) {
  sigemptyset(&signals);
  for (const int one : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGWINCH}) sigaddset(&signals, one);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signalfd(-1, &signals, SFD_CLOEXEC);
}

// Ctrl-Z: the terminal is the shell's meanwhile.
void suspend(Screen& screen) {
  screen.leave();
  raise(SIGSTOP);
  screen.enter();
}

// Until somebody ends it.
void draw_news(Screen& screen, Board& board, int signals) {
  std::string text = "looking...\n";
  screen.draw(text);
  pollfd waits[] = {
      {board.news, POLLIN, 0}, {signals, POLLIN, 0}, {screen.keys() ? STDIN_FILENO : -1, POLLIN, 0}};
  for (;;) {
    if (poll(waits, std::size(waits), -1) < 0 && errno != EINTR) return;
    if (waits[0].revents != 0) {
      eventfd_t count = 0;
      eventfd_read(board.news, &count);
      const std::lock_guard lock(board.mutex);
      text = board.text;
    }
    if (waits[1].revents != 0) {
      signalfd_siginfo info{};
      if (read(signals, &info, sizeof info) != sizeof info) return;
      if (info.ssi_signo == SIGTSTP) {
        suspend(screen);
      } else if (info.ssi_signo != SIGWINCH) {
        return;
      }
    }
    if (waits[2].revents != 0) {
      char key = 0;
      if (read(STDIN_FILENO, &key, 1) <= 0 || key == 'q' || key == 'Q') return;
    }
    screen.draw(text);
  }
}

int watch_terminal(const StatusOptions& options, std::chrono::milliseconds interval) {
  static Board board;
  sigset_t set;
  const int signals = watched_signals(set);
  board.news = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (signals < 0 || board.news < 0) return kExitNoAnswer;
  Screen screen;
  screen.enter();
  std::thread([options, interval] { keep_looking(options, interval, board); }).detach();
  draw_news(screen, board, signals);
  screen.leave();
  int code = 0;
  {
    const std::lock_guard lock(board.mutex);
    code = board.exit_code;
  }
  _exit(code);  // the other thread is still at work
}

}  // namespace

int show_status(const StatusOptions& options) {
  StatusGatherer gatherer(options);
  const StatusReport report = gatherer.look();
  print_report(std::cout, report, options.json);
  if (std::cout.flush()) return report.exit_code();
  std::cerr << "authctl: cannot write to standard output\n";
  return kExitNoAnswer;
}

int watch_status(const StatusOptions& options, std::chrono::milliseconds interval) {
  if (!options.json && isatty(STDOUT_FILENO) != 0) return watch_terminal(options, interval);
  // Into a file or a pipe: one block after the other, until whoever reads has enough.
  StatusGatherer gatherer(options);
  for (bool first = true;; first = false) {
    const StatusReport report = gatherer.look();
    if (!first && !options.json) std::cout << '\n';
    print_report(std::cout, report, options.json);
    if (!std::cout.flush()) return kExitNoAnswer;
    std::this_thread::sleep_for(interval);
  }
}

}  // namespace authctl
