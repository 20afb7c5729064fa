// A sample of the agent that the daemon asks who is logged on at an address: answers from a plain file and
// misbehaves on request. For trials and tests; it knows nothing about real logons.
#include <poll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iostream>
#include <optional>
#include <vector>

#include "client/Address.h"
#include "daemonbase/UniqueFd.h"
#include "tools/authctl_format.h"
#include "tools/command_line.h"
#include "tools/wmi_agent_answer.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr const char* kNotice = "a sample for trials and tests, not for production";
// Room for a thousand waiting connections and what the process holds besides.
constexpr rlim_t kDescriptors = 4096;
// A listener that cannot be served for want of descriptors stays readable; no reason to spin.
constexpr int kAcceptPauseMs = 100;
// The daemon's question is at most 511 bytes and comes in one piece.
constexpr size_t kQuestionBytes = 512;

struct Settings {
  std::string file;
  std::string listen_host = "127.0.0.1";
  uint16_t port = 5544;
  long delay_ms = 0;
  long pause_ms = 300;
  size_t refuse_after = 0;  // 0: never
  bool silent = false;
  bool close_at_once = false;
  bool split = false;
  wmi_agent::Shape shape;
};

// One connection: first without an answer, then with what is still to be sent at `due`.
struct Peer {
  UniqueFd fd;
  std::string answer;
  size_t sent = 0;
  std::optional<Clock::time_point> due;  // unset: nothing is to be sent (yet)
  bool done = false;
};

void log_line(const std::string& text) {
  std::cerr << "wmi_agent_sample: " << text << std::endl;
}

bool would_block(int error_number) {
  return error_number == EAGAIN || error_number == EWOULDBLOCK;
}

class Agent {
 public:
  Agent(Settings settings, wmi_agent::People people, UniqueFd listener, UniqueFd signals)
      : settings_(std::move(settings)),
        people_(std::move(people)),
        listener_(std::move(listener)),
        signals_(std::move(signals)) {}

  // Until a signal ends it.
  void run() {
    for (;;) {
      std::vector<pollfd> items = {{signals_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
      for (const Peer& peer : peers_) items.push_back({peer.fd.get(), peer_events(peer), 0});
      if (poll(items.data(), items.size(), milliseconds_to_next()) < 0 && errno != EINTR) return;
      if (items[0].revents != 0) return;
      // In the order of `items`; accept only adds behind them.
      for (size_t i = 0; i < peers_.size(); ++i) serve(peers_[i], items[i + 2].revents);
      if (items[1].revents != 0) accept_all();
      std::erase_if(peers_, [](const Peer& peer) { return peer.done; });
    }
  }

 private:
  static short peer_events(const Peer& peer) {
    // Waiting for its time: only the peer's own end is of interest.
    if (peer.due && Clock::now() >= *peer.due) return POLLOUT;
    return peer.due ? POLLRDHUP : POLLIN;
  }

  int milliseconds_to_next() const {
    long wait = -1;
    for (const Peer& peer : peers_) {
      if (!peer.due) continue;
      const long left = std::chrono::ceil<milliseconds>(*peer.due - Clock::now()).count();
      if (left > 0) wait = wait < 0 ? left : std::min(wait, left);
    }
    return static_cast<int>(wait);
  }

  void accept_all() {
    for (;;) {
      UniqueFd fd(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
      if (!fd.valid()) {
        if (would_block(errno)) return;
        log_line(std::string("accept: ") + std::strerror(errno));
        poll(nullptr, 0, kAcceptPauseMs);
        return;
      }
      ++accepted_;
      if (!settings_.close_at_once) peers_.push_back({std::move(fd), {}, 0, {}, false});
      if (accepted_ == settings_.refuse_after) {
        log_line("no further connections after " + std::to_string(accepted_));
        listener_.reset();
        return;
      }
    }
  }

  void serve(Peer& peer, short events) {
    if ((events & (POLLERR | POLLHUP | POLLRDHUP | POLLNVAL)) != 0 && peer.due) {
      peer.done = true;
    } else if (peer.due && Clock::now() >= *peer.due) {
      send_more(peer);
    } else if (events != 0 && !peer.due) {
      read_question(peer);
    }
  }

  void read_question(Peer& peer) {
    char buffer[kQuestionBytes];
    const ssize_t got = recv(peer.fd.get(), buffer, sizeof(buffer), 0);
    if (got < 0 && would_block(errno)) return;
    if (got <= 0) {
      peer.done = true;
      return;
    }
    const std::string_view question(buffer, static_cast<size_t>(got));
    const std::string asked = "asked '" + authctl::printable(question) + "'";
    if (settings_.silent) return log_line(asked + ", silent");
    peer.answer = wmi_agent::make_answer(people_, question, settings_.shape);
    log_line(asked + ", answer '" + authctl::printable(peer.answer.substr(0, kQuestionBytes)) + "'");
    peer.due = Clock::now() + milliseconds(settings_.delay_ms);
    if (settings_.delay_ms == 0) send_more(peer);
  }

  void send_more(Peer& peer) {
    const size_t half = settings_.split ? peer.answer.size() / 2 : peer.answer.size();
    const size_t end = peer.sent < half ? half : peer.answer.size();
    const ssize_t count = send(peer.fd.get(), peer.answer.data() + peer.sent, end - peer.sent, MSG_NOSIGNAL);
    if (count < 0 && would_block(errno)) return;
    peer.sent += count < 0 ? 0 : static_cast<size_t>(count);
    if (count < 0 || peer.sent == peer.answer.size()) {
      peer.done = true;
    } else if (peer.sent == half) {
      peer.due = Clock::now() + milliseconds(settings_.pause_ms);
    }
  }

  const Settings settings_;
  const wmi_agent::People people_;
  UniqueFd listener_;
  UniqueFd signals_;
  std::vector<Peer> peers_;
  size_t accepted_ = 0;
};

tl::expected<wmi_agent::People, std::string> read_people(const std::string& file) {
  std::ifstream in(file);
  std::string text;
  char buffer[4096];
  while (in.read(buffer, sizeof(buffer)) || in.gcount() > 0) {
    text.append(buffer, static_cast<size_t>(in.gcount()));
  }
  // A directory opens but cannot be read, which leaves the stream bad rather than at its end.
  if (!in.eof() || in.bad()) return tl::make_unexpected("cannot read " + file);
  auto people = wmi_agent::parse_people(text);
  if (!people) return tl::make_unexpected(file + ", " + people.error());
  return people;
}

tl::expected<UniqueFd, std::string> open_listener(const Settings& settings) {
  const auto addresses = velder_client::resolve({settings.listen_host, settings.port});
  if (!addresses) return tl::make_unexpected(addresses.error().text);
  const velder_client::SocketAddress& address = addresses->front();
  const auto* raw = reinterpret_cast<const sockaddr*>(&address.storage);
  UniqueFd fd(socket(raw->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const int on = 1;
  if (!fd.valid() || setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
      bind(fd.get(), raw, address.length) != 0 || listen(fd.get(), SOMAXCONN) != 0) {
    return tl::make_unexpected("cannot listen on " + address.text() + ": " + std::strerror(errno));
  }
  return fd;
}

std::string bound_address(int fd) {
  velder_client::SocketAddress address;
  address.length = sizeof(address.storage);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address.storage), &address.length);
  return address.text();
}

UniqueFd block_ending_signals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  return UniqueFd(signalfd(-1, &set, SFD_CLOEXEC));
}

void raise_descriptor_limit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= kDescriptors) return;
  limit.rlim_cur = std::min(limit.rlim_max, kDescriptors);
  (void)setrlimit(RLIMIT_NOFILE, &limit);
}

void add_options(CLI::App& app, Settings& settings) {
  app.add_option("FILE", settings.file, "Lines 'address,name,domain'; '#' begins a comment")->required();
  app.add_option("--listen", settings.listen_host, "Address to listen on")->capture_default_str();
  app.add_option("--port", settings.port, "Port; 0: any free one, named at start")->capture_default_str();
  const auto milliseconds_range = CLI::Range(0L, 86400000L);
  app.add_option("--delay", settings.delay_ms, "Wait so many milliseconds before the answer")
      ->check(milliseconds_range);
  app.add_flag("--silent", settings.silent, "Accept and read, never answer");
  app.add_flag("--close-at-once", settings.close_at_once, "Accept and close without a word");
  app.add_flag("--split", settings.split, "Send the answer in two segments");
  app.add_option("--pause", settings.pause_ms, "Milliseconds between the two segments")
      ->check(milliseconds_range)
      ->capture_default_str();
  app.add_option("--long", settings.shape.length, "Pad or cut the answer to so many bytes")
      ->check(CLI::Range(size_t{1}, size_t{1} << 24));
  app.add_flag("--no-colon", settings.shape.no_colon, "Leave the second colon and the domain out");
  app.add_flag("--backslash", settings.shape.backslash, "Give the name as DOMAIN\\name");
  app.add_flag("--newline", settings.shape.newline, "Put a line end behind the answer");
  app.add_flag("--prefix-upper", settings.shape.upper_prefix, "Write the prefix of a success in capitals");
  app.add_option("--refuse-after", settings.refuse_after, "Stop listening after so many connections");
  app.set_version_flag("--version", "wmi_agent_sample " AUTHCTL_VERSION);
  app.footer("Example:\n  wmi_agent_sample --port 5544 people.csv\nEnds on SIGTERM or SIGINT.");
}

int fail_with(const std::string& text, int exit_code) {
  log_line(text);
  return exit_code;
}

}  // namespace

int main(int argc, char** argv) {
  command_line::fill_standard_descriptors();
  Settings settings;
  CLI::App app(std::string("A WMI agent that answers from a file: ") + kNotice + ".", "wmi_agent_sample");
  add_options(app, settings);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return command_line::finish(app, error, 1);
  }
  auto people = read_people(settings.file);
  if (!people) return fail_with(people.error(), 2);
  raise_descriptor_limit();
  UniqueFd signals = block_ending_signals();
  auto listener = open_listener(settings);
  if (!listener) return fail_with(listener.error(), 1);
  log_line(std::string(kNotice) + "; " + std::to_string(people->size()) + " addresses, listening on " +
           bound_address(listener->get()));
  Agent agent(std::move(settings), std::move(*people), std::move(*listener), std::move(signals));
  agent.run();
  return 0;
}
