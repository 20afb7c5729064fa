// The helper that puts the daemon behind the HTTP proxy: the proxy starts it, writes requests to its standard
// input and reads the replies from its standard output.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <iostream>
#include <map>
#include <thread>

#include "tools/authhelper_modes.h"
#include "tools/command_line.h"

namespace {

using authhelper::HelperLine;
using authhelper::LineFault;
using authhelper::LineReader;
using authhelper::Mode;
using authhelper::Reply;
using authhelper::Topic;
using authhelper::Verdict;
using std::chrono::milliseconds;

constexpr int kExitUnwritable = 1;  // the help
constexpr int kExitUsage = 2;
// The daemon is on the same machine or next to it.
constexpr milliseconds kConnectTimeout{3000};
constexpr size_t kMostConnections = 64;
constexpr size_t kUsualConnections = 4;

const std::map<std::string, Mode> kModes = {{"basic", Mode::kBasic},
                                            {"ntlm", Mode::kNtlm},
                                            {"negotiate", Mode::kNegotiate},
                                            {"ip-user", Mode::kIpUser},
                                            {"group", Mode::kGroup}};

struct Settings {
  std::string mode_name;
  authhelper::ModeSettings mode;
  authhelper::LinkSettings link;
  double timeout_seconds = 30;
  size_t concurrency = 0;  // 0: no channel numbers
  size_t connections = 0;  // 0: not given
};

std::string_view fault_text(LineFault fault) {
  switch (fault) {
    case LineFault::kNone: break;
    case LineFault::kNoChannel: return "no channel number: --concurrency needs concurrency= in the proxy";
    case LineFault::kNul: return "a NUL in the request";
    case LineFault::kMissingField: return "a field is missing";
    case LineFault::kBadEscape: return "a percent sign without two hexadecimal digits";
  }
  return "";
}

// Everything that one run shares between its threads.
class Helper {
 public:
  explicit Helper(const Settings& settings)
      : settings_(settings),
        complaints_("authhelper " + settings.mode_name + ": "),
        shared_{settings.link, complaints_, {}, {}} {}

  int run() {
    if (settings_.connections > 1) {
      run_threads();
    } else {
      const auto responder = new_responder();
      read_all([&](HelperLine line) { return answer(*responder, line); });
    }
    return 0;
  }

 private:
  // The proxy sends no more than its own limit at once; this one bounds what anybody else may pile up.
  size_t most_waiting() const { return std::max(settings_.concurrency, settings_.connections); }

  std::unique_ptr<authhelper::Responder> new_responder() {
    return authhelper::make_responder(settings_.mode, shared_);
  }

  // Until the end of input, or until `take` says that nobody reads the replies any more.
  template <class Take>
  void read_all(Take take) {
    for (;;) {
      const LineReader::What what = reader_.next();
      if (what == LineReader::What::kEnd) return;
      HelperLine line =
          authhelper::parse_helper_line(reader_.line(), settings_.mode.mode, settings_.concurrency > 0);
      bool go_on = false;
      if (what == LineReader::What::kTooLong) {
        go_on = complain(line, "the request is too long");
      } else if (line.fault != LineFault::kNone) {
        go_on = complain(line, fault_text(line.fault));
      } else {
        go_on = take(std::move(line));
      }
      if (!go_on) return;
    }
  }

  bool complain(const HelperLine& line, std::string_view text) {
    complaints_.tell(Topic::kBadLine, std::string("a request that cannot be read: ").append(text));
    return send({Verdict::kBroken, {}, {}, "the request cannot be read"}, line.channel);
  }

  bool answer(authhelper::Responder& responder, const HelperLine& line) {
    return send(responder.respond(line.fields), line.channel);
  }

  bool send(const Reply& reply, const std::string& channel) {
    return writer_.write(authhelper::format_reply(reply, channel));
  }

  void run_threads() {
    std::vector<std::thread> threads;
    for (size_t i = 0; i < settings_.connections; ++i) threads.emplace_back([this] { work(); });
    read_all([this](HelperLine line) { return enqueue(std::move(line)); });
    {
      const std::lock_guard lock(mutex_);
      ended_ = true;
    }
    changed_.notify_all();
    for (std::thread& thread : threads) thread.join();
  }

  bool enqueue(HelperLine line) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return waiting_.size() < most_waiting() || unread_; });
    if (unread_) return false;
    waiting_.push_back(std::move(line));
    lock.unlock();
    changed_.notify_all();
    return true;
  }

  void work() {
    const auto responder = new_responder();
    for (;;) {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return !waiting_.empty() || ended_; });
      if (waiting_.empty()) return;
      const HelperLine line = std::move(waiting_.front());
      waiting_.pop_front();
      lock.unlock();
      changed_.notify_all();
      if (answer(*responder, line)) continue;
      lock.lock();
      unread_ = true;
      waiting_.clear();
      lock.unlock();
      changed_.notify_all();
    }
  }

  const Settings& settings_;
  authhelper::Complaints complaints_;
  authhelper::Shared shared_;
  authhelper::LineWriter writer_{STDOUT_FILENO};
  LineReader reader_{STDIN_FILENO};

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<HelperLine> waiting_;
  bool ended_ = false;   // no more requests will come
  bool unread_ = false;  // nobody reads the replies
};

void add_options(CLI::App& app, Settings& settings) {
  app.set_version_flag("--version", "authhelper " AUTHCTL_VERSION);
  app.set_help_flag("-h,--help", "Print this help");
  app.footer(
      "The proxy starts it; docs/proxy.md has configurations. By hand, a line is a request:\n"
      "  echo 'alice secret' | authhelper --mode basic");
  std::vector<std::string> names;
  for (const auto& [name, mode] : kModes) names.push_back(name);
  app.add_option("--mode", settings.mode_name, "Which of the proxy's questions it answers")
      ->required()
      ->check(CLI::IsMember(names))
      ->type_name("MODE");
  app.add_option("--server", settings.link.server, "Where the daemon listens: HOST, HOST:PORT or [IPV6]:PORT")
      ->default_val("127.0.0.1:1100")
      ->type_name("HOST:PORT");
  app.add_option("--timeout", settings.timeout_seconds, "Longest wait for an answer of the daemon")
      ->default_val(settings.timeout_seconds)
      ->check(CLI::Range(0.1, 3600.0))
      ->type_name("SECONDS");
  app.add_option("--concurrency", settings.concurrency,
                 "The proxy's concurrency= for this helper: requests carry channel numbers")
      ->check(CLI::Range(1, 10000))
      ->type_name("N");
  app.add_option("--connections", settings.connections,
                 "Connections to the daemon, with --concurrency (as many as that, at most 4)")
      ->check(CLI::Range(size_t{1}, kMostConnections))
      ->type_name("N");
  app.add_flag("--strip-realm", settings.mode.strip_realm,
               "negotiate: tell the proxy 'user' and not 'user@REALM'");
}

// What is wrong with the options together; empty when nothing is.
std::string find_contradiction(const Settings& settings) {
  const Mode mode = settings.mode.mode;
  const bool is_exchange = mode == Mode::kNtlm || mode == Mode::kNegotiate;
  if (settings.concurrency > 0 && is_exchange) return "the proxy has no concurrency= for ntlm and negotiate";
  if (settings.concurrency == 0 && settings.connections > 1) return "--connections needs --concurrency";
  if (settings.mode.strip_realm && mode != Mode::kNegotiate) return "--strip-realm is for --mode negotiate";
  if (const auto server = velder_client::parse_server(settings.link.server); !server) {
    return server.error().text;
  }
  return {};
}

}  // namespace

int main(int argc, char** argv) {
  command_line::fill_standard_descriptors();
  CLI::App app{"Answers the HTTP proxy's questions about users by asking the authentication daemon.",
               "authhelper"};
  Settings settings;
  add_options(app, settings);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return command_line::finish(app, error, kExitUnwritable);
  }
  settings.mode.mode = kModes.at(settings.mode_name);
  if (const std::string text = find_contradiction(settings); !text.empty()) {
    std::cerr << "authhelper: " << text << '\n';
    return kExitUsage;
  }
  settings.link.options.call_timeout = milliseconds(static_cast<long>(settings.timeout_seconds * 1000));
  settings.link.options.connect_timeout = std::min(kConnectTimeout, settings.link.options.call_timeout);
  if (settings.connections == 0) {
    settings.connections = std::clamp(settings.concurrency, size_t{1}, kUsualConnections);
  }
  // A proxy that is gone shows as a failed write.
  std::signal(SIGPIPE, SIG_IGN);
  return Helper(settings).run();
}
