#include "tools/status_commands.h"

#include "tools/config_check.h"
#include "tools/reload_command.h"
#include "tools/status_report.h"

namespace authctl {
namespace {

constexpr std::chrono::milliseconds kStatusTimeout{3000};

std::optional<std::string> given(const std::string& workdir) {
  return workdir.empty() ? std::nullopt : std::optional(workdir);
}

void add_common(CLI::App* command, InsideOptions& options) {
  command->fallthrough();
  command->add_option("--workdir", options.workdir, "Working directory, instead of the running daemon's")
      ->type_name("DIR");
  command->add_flag("--no-servers", options.no_servers, "Do not contact the directory servers");
}

}  // namespace

void add_inside_commands(CLI::App& app, InsideOptions& options, std::function<int(const Settings&)>& run) {
  CLI::App* status = app.add_subcommand("status", "How the daemon on this machine is");
  add_common(status, options);
  CLI::Option* watch = status
                           ->add_option("--watch", options.watch_seconds,
                                        "Look again every so many seconds (2), until q or Ctrl-C")
                           ->expected(0, 1)
                           ->check(CLI::Range(0.1, 86400.0))
                           ->type_name("[SECONDS]");
  status->footer(
      "Example:\n  authctl status --watch 5\n"
      "Run it as root to see everything. Exit status: 0 all is well; 1 something is wrong, the lines that\n"
      "begin with PROBLEM say what; 2 wrong arguments; 3 the daemon does not answer.");
  const CLI::Option* timeout = app.get_option("--timeout");
  status->callback([&options, &run, watch, timeout] {
    run = [&options, watch, timeout](const Settings& settings) {
      StatusOptions wanted;
      wanted.server = settings.server;
      wanted.timeout = timeout->count() > 0 ? settings.timeout : kStatusTimeout;
      wanted.workdir = given(options.workdir);
      wanted.ask_servers = !options.no_servers;
      wanted.json = settings.json;
      if (watch->count() == 0) return show_status(wanted);
      return watch_status(wanted, std::chrono::milliseconds(static_cast<long>(options.watch_seconds * 1000)));
    };
  });

  CLI::App* reload = app.add_subcommand("reload", "Have every worker read the directory again");
  reload->fallthrough();
  reload->footer(
      "Example:\n  authctl reload\n"
      "Run it as root or as the daemon's account. Exit status: 0 every worker took it; 1 one did not, or "
      "keeps\n"
      "the directory that it had; 3 no worker is running.");
  reload->callback([&run] {
    run = [](const Settings& settings) {
      return reload_workers(ReloadOptions{settings.timeout, settings.json});
    };
  });

  CLI::App* check = app.add_subcommand("check-config", "Find what is wrong with the settings before a start");
  add_common(check, options);
  check->footer(
      "Example:\n  authctl check-config --workdir /srv/auth\n"
      "Starts nothing and changes nothing. Run by root it looks with the rights of the daemon's account.\n"
      "Exit status: 0 no errors (there may be warnings); 1 errors; 2 wrong arguments.");
  check->callback([&options, &run] {
    run = [&options](const Settings& settings) {
      return check_config(CheckOptions{given(options.workdir), !options.no_servers, settings.json});
    };
  });
}

}  // namespace authctl
