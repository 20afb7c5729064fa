// Load over many connections, in a closed loop or at a fixed pace, for the daemon, for the echo server and
// for servers that speak memcached's text protocol, redis' protocol or LDAP. Every answer is compared with
// the right one. Prints one line of JSON; the status is not 0 when an answer was wrong or missing.
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/Crowd.h"
#include "bench/Workload.h"
#include "client/Address.h"

namespace {

using namespace bench;
using std::chrono::duration;
using velder_client::Result;

struct ProtocolEntry {
  Protocol protocol;
  uint16_t port;
};

const std::map<std::string, ProtocolEntry> kProtocols = {{"daemon", {Protocol::kDaemon, 1100}},
                                                         {"echo", {Protocol::kEcho, 1101}},
                                                         {"memcached", {Protocol::kMemcached, 11211}},
                                                         {"redis", {Protocol::kRedis, 6379}},
                                                         {"ldap", {Protocol::kLdap, 389}}};

const std::map<std::string, RequestKind> kRequests = {{"user-info", RequestKind::kUserInfo},
                                                      {"validate", RequestKind::kValidate},
                                                      {"bind", RequestKind::kBind},
                                                      {"ip-query-hit", RequestKind::kIpQueryHit},
                                                      {"ip-query-miss", RequestKind::kIpQueryMiss}};

struct Settings {
  std::string protocol = "daemon";
  uint16_t port = 0;
  std::string requests = "user-info";
  size_t connections = 64;
  size_t idle = 0;
  size_t at_once = 0;
  double pace = 0;
  bool spin = false;
  size_t threads = 1;
  double seconds = 3;
  double warmup = 0.5;
  uint32_t keys = 1000;
  uint32_t step = 1;
  uint32_t users = 2000;
  size_t answer_bytes = 512;
  std::vector<pid_t> server_pids;
  bool hold = false;
};

void add_options(CLI::App& app, Settings& settings) {
  app.add_option("--protocol", settings.protocol, "daemon, echo, memcached, redis or ldap")
      ->check(CLI::IsMember(kProtocols));
  app.add_option("--port", settings.port, "on 127.0.0.1; default: the protocol's");
  app.add_option("--request", settings.requests,
                 "user-info, validate, bind, ip-query-hit, ip-query-miss, or a mix: user-info:95,bind:5");
  app.add_option("--connections", settings.connections, "that ask");
  app.add_option("--idle", settings.idle,
                 "further connections that ask once, stay silent, and ask at the end");
  app.add_option("--at-once", settings.at_once, "questions under way; default: one on each connection");
  app.add_option("--pace", settings.pace,
                 "requests a second, due at even times; latencies count from then (default: closed loop)")
      ->check(CLI::Range(0.0, 1e6));
  app.add_flag("--spin", settings.spin,
               "at a pace, look for answers without a pause: for a processor of its own");
  app.add_option("--threads", settings.threads, "of the generator, each with a share of the connections")
      ->check(CLI::Range(1, 64));
  app.add_option("--seconds", settings.seconds, "that are measured")->check(CLI::Range(0.01, 3600.0));
  app.add_option("--warmup", settings.warmup, "seconds of load before that")->check(CLI::Range(0.0, 600.0));
  app.add_option("--keys", settings.keys, "different questions of each kind")->check(CLI::Range(1, 1 << 24));
  app.add_option("--step", settings.step, "from one asked address to the next")
      ->check(CLI::Range(1, 1 << 20));
  app.add_option("--users", settings.users, "in the directory that make_ldif wrote")
      ->check(CLI::Range(1, 9'999'999));
  app.add_option("--answer-bytes", settings.answer_bytes, "of the other servers' answers to look-ups");
  app.add_option("--server-pids", settings.server_pids, "whose processor time is measured")->delimiter(',');
  app.add_flag("--hold", settings.hold,
               "no load: open the idle connections, say so, close them at the end of standard input");
}

// "user-info" or "user-info:95,bind:5"; empty when it cannot be read.
std::vector<Share> parse_shares(const std::string& text) {
  std::vector<Share> shares;
  std::istringstream parts(text);
  for (std::string part; std::getline(parts, part, ',');) {
    const size_t colon = part.find(':');
    const auto kind = kRequests.find(part.substr(0, colon));
    const unsigned long weight =
        colon == std::string::npos ? 1 : std::strtoul(part.c_str() + colon + 1, nullptr, 10);
    if (kind == kRequests.end() || weight < 1 || weight > 1'000'000) return {};
    shares.push_back({kind->second, static_cast<unsigned>(weight)});
  }
  return shares;
}

double own_cpu_seconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// User and system time of a process with all its threads; nothing when it is gone.
std::optional<double> cpu_seconds(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  std::getline(file, text);
  const size_t name_end = text.rfind(')');  // the name may hold blanks
  if (name_end == std::string::npos) return std::nullopt;
  std::istringstream fields(text.substr(name_end + 1));
  constexpr int kFieldsBeforeTimes = 11;
  std::string skipped;
  for (int i = 0; i < kFieldsBeforeTimes; ++i) fields >> skipped;
  double user = 0;
  double system = 0;
  if (!(fields >> user >> system)) return std::nullopt;
  return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

std::optional<double> cpu_seconds(const std::vector<pid_t>& pids) {
  double sum = 0;
  for (const pid_t pid : pids) {
    const std::optional<double> seconds = cpu_seconds(pid);
    if (!seconds) return std::nullopt;
    sum += *seconds;
  }
  return sum;
}

struct Usage {
  double own = own_cpu_seconds();
  std::optional<double> server;
};

Usage usage(const Settings& settings) {
  return {own_cpu_seconds(), cpu_seconds(settings.server_pids)};
}

struct Outcome {
  Tally tally;
  double own_cpu = 0;
  std::optional<double> server_cpu;
};

// Even shares; the first ones take what is left over.
size_t share_of(size_t total, size_t parts, size_t index) {
  return total / parts + (index < total % parts ? 1 : 0);
}

Result<void> open_all(const Settings& settings, std::vector<Crowd>& crowds) {
  for (size_t i = 0; i < crowds.size(); ++i) {
    if (auto idle = crowds[i].open_idle(share_of(settings.idle, crowds.size(), i)); !idle) return idle;
    if (auto active = crowds[i].open_active(share_of(settings.connections, crowds.size(), i)); !active) {
      return active;
    }
  }
  return {};
}

void append(std::vector<uint32_t>& all, const std::vector<uint32_t>& more) {
  all.insert(all.end(), more.begin(), more.end());
}

Outcome run(const Settings& settings, std::vector<Crowd>& crowds) {
  Span span;
  span.start = Clock::now();
  span.measured_from =
      span.start + std::chrono::duration_cast<Clock::duration>(duration<double>(settings.warmup));
  span.end =
      span.measured_from + std::chrono::duration_cast<Clock::duration>(duration<double>(settings.seconds));
  const size_t at_once = settings.at_once == 0 ? settings.connections : settings.at_once;

  const auto pause = [&](size_t intervals) {
    return std::chrono::duration_cast<Clock::duration>(
        duration<double>(static_cast<double>(intervals) / settings.pace));
  };
  Usage before;
  Usage after;
  {
    std::vector<std::jthread> threads;
    for (size_t i = 0; i < crowds.size(); ++i) {
      threads.emplace_back([&, i] {
        if (settings.pace > 0)
          return crowds[i].run_paced(span, pause(crowds.size()), pause(i), settings.spin);
        crowds[i].run(span, share_of(at_once, crowds.size(), i));
      });
    }
    std::this_thread::sleep_until(span.measured_from);
    before = usage(settings);
    std::this_thread::sleep_until(span.end);
    after = usage(settings);
  }
  Outcome outcome;
  outcome.own_cpu = after.own - before.own;
  if (before.server && after.server) outcome.server_cpu = *after.server - *before.server;
  for (Crowd& crowd : crowds) {
    crowd.prove_idle();
    const Tally& tally = crowd.tally();
    outcome.tally.wrong += tally.wrong;
    outcome.tally.unanswered += tally.unanswered;
    outcome.tally.overdue += tally.overdue;
    append(outcome.tally.latencies, tally.latencies);
    append(outcome.tally.delays, tally.delays);
  }
  return outcome;
}

double percentile_microseconds(std::vector<uint32_t>& latencies, double part) {
  if (latencies.empty()) return 0;
  const auto rank =
      std::min(static_cast<size_t>(part * static_cast<double>(latencies.size())), latencies.size() - 1);
  const auto place = latencies.begin() + static_cast<ptrdiff_t>(rank);
  std::nth_element(latencies.begin(), place, latencies.end());
  return *place / 1e3;
}

void print(const Settings& settings, const Workload& workload, Outcome& outcome) {
  std::vector<uint32_t>& latencies = outcome.tally.latencies;
  const size_t answered = latencies.size() - static_cast<size_t>(outcome.tally.overdue);
  std::printf(
      "{\"protocol\": \"%s\", \"request\": \"%s\", \"connections\": %zu, \"idle\": %zu, "
      "\"at_once\": %zu, \"threads\": %zu, ",
      settings.protocol.c_str(), settings.requests.c_str(), settings.connections, settings.idle,
      settings.at_once == 0 ? settings.connections : settings.at_once, settings.threads);
  std::printf("\"requests\": %zu, \"seconds\": %.3f, \"rate\": %.0f, ", answered, settings.seconds,
              static_cast<double>(answered) / settings.seconds);
  std::printf("\"p50_us\": %.1f, \"p99_us\": %.1f, \"p999_us\": %.1f, ",
              percentile_microseconds(latencies, 0.5), percentile_microseconds(latencies, 0.99),
              percentile_microseconds(latencies, 0.999));
  std::printf("\"pace\": %.0f, \"delay_p99_us\": %.1f, \"delay_p999_us\": %.1f, \"overdue\": %zu, ",
              settings.pace, percentile_microseconds(outcome.tally.delays, 0.99),
              percentile_microseconds(outcome.tally.delays, 0.999),
              static_cast<size_t>(outcome.tally.overdue));
  std::printf("\"own_cpu_s\": %.3f, \"server_cpu_s\": %.3f, \"answer_bytes\": %.0f, ", outcome.own_cpu,
              outcome.server_cpu.value_or(0), workload.mean_answer_bytes());
  std::printf("\"wrong\": %zu, \"unanswered\": %zu}\n", static_cast<size_t>(outcome.tally.wrong),
              static_cast<size_t>(outcome.tally.unanswered));
}

int complain(const std::string& text) {
  std::cerr << "load_generator: " << text << '\n';
  return 1;
}

int hold() {
  std::cout << "ready" << std::endl;
  for (std::string line; std::getline(std::cin, line);) continue;
  return 0;
}

int generate(const Settings& settings) {
  WorkloadSettings wanted;
  const ProtocolEntry& entry = kProtocols.at(settings.protocol);
  const uint16_t port = settings.port == 0 ? entry.port : settings.port;
  wanted.protocol = entry.protocol;
  wanted.server = "127.0.0.1:" + std::to_string(port);
  wanted.shares = parse_shares(settings.requests);
  wanted.keys = settings.keys;
  wanted.step = settings.step;
  wanted.users = settings.users;
  wanted.answer_bytes = settings.answer_bytes;
  if (wanted.shares.empty()) return complain("cannot read --request " + settings.requests);
  const auto wants = [&](RequestKind kind) {
    return std::any_of(wanted.shares.begin(), wanted.shares.end(),
                       [&](const Share& share) { return share.kind == kind; });
  };
  if (wants(RequestKind::kBind) && wants(RequestKind::kIpQueryHit)) {
    return complain("bind renews the expiry that ip-query-hit compares: ask for them apart");
  }

  const auto addresses = velder_client::resolve({"127.0.0.1", port});
  if (!addresses) return complain(addresses.error().text);
  const auto workload = prepare_workload(wanted);
  if (!workload) return complain(workload.error().text);
  std::vector<Crowd> crowds;
  crowds.reserve(settings.threads);
  for (size_t i = 0; i < settings.threads; ++i) {
    crowds.emplace_back(*workload, addresses->front(), i * workload->schedule.size() / settings.threads);
  }
  if (auto opened = open_all(settings, crowds); !opened) return complain(opened.error().text);
  if (settings.hold) return hold();

  Outcome outcome = run(settings, crowds);
  print(settings, *workload, outcome);
  if (!outcome.server_cpu) return complain("a process of the server has ended");
  if (outcome.tally.wrong + outcome.tally.unanswered > 0) return complain("answers were wrong or missing");
  return outcome.tally.latencies.size() > outcome.tally.overdue
             ? 0
             : complain("no answer came within the measured time");
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Asks as fast as the answers come, or at a fixed pace, and checks every answer."};
  Settings settings;
  add_options(app, settings);
  CLI11_PARSE(app, argc, argv);
  return generate(settings);
}
