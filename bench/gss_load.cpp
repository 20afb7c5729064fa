// Exchanges per second of whoever proves users: the daemon, or a helper program that speaks the proxy's
// lines.
//
//   gss_load ntlm COUNT THREADS USERS_FILE TARGET...
//   gss_load negotiate COUNT THREADS HTTP@HOST TARGET...
//
// TARGET is HOST:PORT of the daemon, or the command of a helper, of which each thread starts one. The
// messages come from the machine's GSSAPI in both cases. Negotiate tokens are made before the clock runs; an
// NTLM client has to answer each challenge, so its work is in the figure. Prints the exchanges per second; an
// exchange that is refused ends the program.
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "client/Connection.h"
#include "handler/Velder.pb.h"
#include "libvelder/Base64.h"
#include "tests/unit/libvelder/GssPeer.h"

namespace {

constexpr char kUser[] = "CORP\\alice";

[[noreturn]] void fail(const std::string& why) {
  fprintf(stderr, "gss_load: %s\n", why.c_str());
  exit(1);
}

// One connection or one helper. Base64 in and out.
class Target {
 public:
  virtual ~Target() = default;
  virtual std::string challenge(const std::string& type1) = 0;
  virtual bool proves(const std::string& type3) = 0;
  virtual bool proves_ticket(const std::string& token) = 0;
};

class Daemon : public Target {
 public:
  explicit Daemon(const std::string& server) : connection_(open(server)) {}
  std::string challenge(const std::string& type1) override { return ntlm(1, type1).responsecontent(); }
  bool proves(const std::string& type3) override { return ntlm(2, type3).result() == 0; }
  bool proves_ticket(const std::string& token) override {
    Velder::NEGOAuthRequest request;
    Velder::NEGOAuthResponse answer;
    request.set_requestcontent(token);
    if (!connection_.call(Velder::NEGO_AUTH_REQUEST, request, answer)) fail("the daemon does not answer");
    return answer.result() == 0;
  }

 private:
  static velder_client::Connection open(const std::string& server) {
    auto connection = velder_client::Connection::open(server);
    if (!connection) fail(connection.error().text);
    return std::move(*connection);
  }
  Velder::NTLMAuthResponse ntlm(int leg, const std::string& token) {
    Velder::NTLMAuthRequest request;
    Velder::NTLMAuthResponse answer;
    request.set_messagetype(leg);
    request.set_clientip("192.0.2.1");
    request.set_requestcontent(token);
    if (!connection_.call(Velder::NTLM_AUTH_REQUEST, request, answer)) fail("the daemon does not answer");
    return answer;
  }
  velder_client::Connection connection_;
};

class Helper : public Target {
 public:
  explicit Helper(const std::vector<std::string>& command) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) fail("no socket pair");
    pid_ = fork();
    if (pid_ == 0) {
      dup2(ends[1], STDIN_FILENO);
      dup2(ends[1], STDOUT_FILENO);
      std::vector<char*> arguments;
      for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
      arguments.push_back(nullptr);
      execvp(arguments[0], arguments.data());
      _exit(127);
    }
    close(ends[1]);
    fd_ = ends[0];
  }
  ~Helper() override {
    close(fd_);
    waitpid(pid_, nullptr, 0);
  }
  std::string challenge(const std::string& type1) override {
    const std::string line = say("YR " + type1);
    return line.starts_with("TT ") ? line.substr(3) : "";
  }
  bool proves(const std::string& type3) override { return say("KK " + type3).starts_with("AF "); }
  bool proves_ticket(const std::string& token) override {
    const std::string line = say("YR " + token);
    return line.starts_with("AF ") || line.starts_with("OK ");
  }

 private:
  std::string say(const std::string& text) {
    const std::string line = text + "\n";
    if (write(fd_, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
      fail("the helper does not read");
    while (true) {
      if (const size_t end = read_.find('\n'); end != std::string::npos) {
        const std::string answer = read_.substr(0, end);
        read_.erase(0, end + 1);
        return answer;
      }
      char buffer[4096];
      const ssize_t got = read(fd_, buffer, sizeof buffer);
      if (got <= 0) fail("the helper has ended");
      read_.append(buffer, static_cast<size_t>(got));
    }
  }
  pid_t pid_ = -1;
  int fd_ = -1;
  std::string read_;
};

std::unique_ptr<Target> make_target(const std::vector<std::string>& words) {
  if (words.size() == 1 && words[0].find('/') == std::string::npos) return std::make_unique<Daemon>(words[0]);
  return std::make_unique<Helper>(words);
}

void log_on(Target& target, const NtlmUser& user) {
  GssPeer peer(user);
  const std::string type1 = velder::encode_base64(peer.next().value_or(""));
  std::string challenge;
  if (!velder::decode_base64(target.challenge(type1), challenge)) fail("what came is no challenge");
  const auto type3 = peer.next(challenge);
  if (!type3 || !target.proves(velder::encode_base64(*type3))) fail("an exchange was refused");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 6) fail("ntlm|negotiate COUNT THREADS USERS_FILE|HTTP@HOST TARGET...");
  const bool ntlm = std::string(argv[1]) == "ntlm";
  const size_t count = strtoull(argv[2], nullptr, 10), threads = strtoull(argv[3], nullptr, 10);
  const std::vector<std::string> words(argv + 5, argv + argc);
  const size_t each = count / threads;

  std::vector<std::unique_ptr<Target>> targets;
  for (size_t i = 0; i < threads; ++i) targets.push_back(make_target(words));
  std::vector<std::vector<std::string>> tokens(threads);
  for (size_t i = 0; !ntlm && i < threads * (each + 1); ++i) {
    tokens[i % threads].push_back(velder::encode_base64(GssPeer(argv[4]).next().value_or("")));
  }
  std::unique_ptr<NtlmUser> user;
  if (ntlm) user = std::make_unique<NtlmUser>(kUser, argv[4]);
  const auto exchange = [&](size_t thread, size_t number) {
    if (ntlm) return log_on(*targets[thread], *user);
    if (!targets[thread]->proves_ticket(tokens[thread][number])) fail("a ticket was refused");
  };
  // The first of each starts what is started at need.
  for (size_t thread = 0; thread < threads; ++thread) exchange(thread, each);
  const auto begin = std::chrono::steady_clock::now();
  std::vector<std::thread> runners;
  for (size_t thread = 0; thread < threads; ++thread) {
    runners.emplace_back([&, thread] {
      for (size_t number = 0; number < each; ++number) exchange(thread, number);
    });
  }
  for (std::thread& runner : runners) runner.join();
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
  printf("%.0f\n", static_cast<double>(each * threads) / seconds.count());
}
