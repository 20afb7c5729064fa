// The administrator's command line for the daemon: one command per request type, over the wire only.
#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "tools/authctl_commands.h"
#include "tools/command_line.h"
#include "tools/status_commands.h"

namespace {

using authctl::Settings;

// What a command line was read into, and the command to run with it.
struct Program {
  CLI::App app{"Asks the authentication daemon. Results go to standard output, messages to standard error.",
               "authctl"};
  Settings settings;
  authctl::InsideOptions inside;
  double timeout_seconds = 30;
  std::function<int(const Settings&)> run;

  CLI::App* command(const std::string& name, const std::string& what, const std::string& example,
                    int (*function)(const Settings&)) {
    CLI::App* sub = app.add_subcommand(name, what);
    sub->footer("Example:\n  authctl " + example);
    sub->fallthrough();  // the options of the program are understood behind the command too
    sub->callback([this, function] { run = function; });
    return sub;
  }
};

constexpr const char* kExitStatus =
    "Exit status: 0 the daemon answered with result 0; 1 with another result; 2 wrong arguments or input;\n"
    "3 no connection, a closed connection, no answer in time or a malformed one.\n"
    "An argument that begins with a dash goes behind '--'. 'authctl COMMAND --help' tells more.";

void add_general_options(Program& program) {
  CLI::App& app = program.app;
  app.set_version_flag("--version", "authctl " AUTHCTL_VERSION);
  app.set_help_flag("-h,--help", "Print this help");
  app.require_subcommand(1);
  app.footer(kExitStatus);
  app.add_option("--server", program.settings.server,
                 "Where the daemon listens: HOST, HOST:PORT or [IPV6]:PORT")
      ->default_val("127.0.0.1:1100")
      ->take_last()  // so that an alias may set one
      ->type_name("HOST:PORT");
  app.add_option("--timeout", program.timeout_seconds, "Longest wait for the connection, and for each answer")
      ->default_val(program.timeout_seconds)
      ->take_last()
      ->check(CLI::Range(0.001, 86400.0))
      ->type_name("SECONDS");
  app.add_flag("--json", program.settings.json,
               "Print the whole answer as JSON, one line per answer, whatever its result");
}

void add_name(CLI::App* command, Settings& settings, const char* placeholder, const char* what) {
  command->add_option(placeholder, settings.name, what)->required();
}

void add_ip(CLI::App* command, Settings& settings) {
  command->add_option("IP", settings.ip, "IPv4 or IPv6 address of the client")->required();
}

void add_directory_commands(Program& program) {
  Settings& settings = program.settings;
  constexpr const char* kUserForms = "DOMAIN\\uid, uid@dns.domain, principal name, DN or uid";

  CLI::App* search = program.command("user-search", "Find users by cn, uid or principal name",
                                     "user-search ali      (anywhere in the name)\n"
                                     "  authctl user-search ^ali     (cn begins with it)\n"
                                     "  authctl user-search alice --full --long",
                                     authctl::user_search);
  add_name(search, settings, "NAME", "Text to look for; an empty text finds everybody, '^' anchors it");
  search->add_flag("--full", settings.full_match, "NAME is the whole cn, uid or principal name");
  search->add_flag("-l,--long", settings.long_list,
                   "Logon name and DN too; without it uid, cn, principal name and domain");

  CLI::App* groups =
      program.command("group-search", "Find groups by cn", "group-search ^Staff", authctl::group_search);
  add_name(groups, settings, "NAME", "Text to look for; an empty text finds all groups, '^' anchors it");
  groups->add_flag("--full", settings.full_match, "NAME is the whole cn");

  CLI::App* of_user = program.command("user-groups", "All groups of a user, nested and primary ones included",
                                      "user-groups 'CORP\\alice'", authctl::user_groups);
  add_name(of_user, settings, "USER", kUserForms);

  CLI::App* of_group = program.command("group-groups", "The groups nested inside a group, at any depth",
                                       "group-groups Staff --full", authctl::group_groups);
  add_name(of_group, settings, "NAME", "Text to look for in the groups' cn");
  of_group->add_flag("--full", settings.full_match, "NAME is a whole cn or a DN");

  CLI::App* members = program.command("all-users", "The users of groups, nested members included",
                                      "all-users Staff 'Domain Guests'\n"
                                      "  authctl all-users --dn 'CN=Staff,OU=Groups,DC=corp,DC=test'",
                                      authctl::all_users);
  members->add_option("GROUP", settings.groups, "cn of a group")->required();
  members->add_flag("--dn", settings.by_dn, "The groups are given by DN");

  CLI::App* info = program.command("user-info", "Names and groups of one user",
                                   "user-info alice@corp.test --json", authctl::user_info);
  add_name(info, settings, "USER", kUserForms);

  CLI::App* password = program.command(
      "validate", "Check a password: asked for on a terminal, else the first line of standard input",
      "validate 'CORP\\alice'", authctl::validate);
  add_name(password, settings, "USER", kUserForms);
}

void add_address_commands(Program& program) {
  Settings& settings = program.settings;
  CLI::App* bind = program.command("bind", "Bind an address to a user", "bind 10.0.0.1 'CORP\\alice'",
                                   authctl::bind_address);
  add_ip(bind, settings);
  add_name(bind, settings, "USER", "The user's logon name, stored as given");

  add_ip(program.command("unbind", "Remove the binding of an address", "unbind 10.0.0.1",
                         authctl::unbind_address),
         settings);
  add_ip(program.command("ip-query", "Who is behind an address, and until when", "ip-query 2001:db8::7",
                         authctl::ip_query),
         settings);

  CLI::App* agent = program.command("ip-auth", "Have the WMI agent asked who is logged on at an address",
                                    "ip-auth 10.0.0.1 --wait --scope dc", authctl::ip_auth);
  add_ip(agent, settings);
  agent->add_flag("--wait", settings.wait,
                  "Wait for the agent and print the user; without it the daemon only takes note");
  agent
      ->add_option("--scope", settings.scope,
                   "Ask the domain controllers' records, the client machine, or both (as without it)")
      ->check(CLI::IsMember({"dc", "client", "both"}));

  CLI::App* save = program.command("export", "Write all bindings to a CSV file on the daemon's machine",
                                   "export /var/tmp/bindings.csv", authctl::export_bindings);
  add_name(save, settings, "PATH", "Absolute path, as the daemon sees it");
}

void add_token_commands(Program& program) {
  Settings& settings = program.settings;
  CLI::App* two_legs = program.command(
      "ntlm",
      "Log on by NTLM as a client would: the password is asked for on a terminal, else the first line of\n"
      "standard input. Without USER the messages of another client are carried: the type 1 message (base64)\n"
      "is the first line of standard input, the challenge is printed, the type 3 message is the next line",
      "ntlm 'CORP\\alice'\n  authctl ntlm --client-ip 10.0.0.1 alice@corp.test <password-file",
      authctl::ntlm);
  two_legs->add_option("USER", settings.name, "DOMAIN\\uid, principal name or uid; sent as it is written")
      ->check([](const std::string& text) { return text.empty() ? "the user is empty" : std::string(); });
  two_legs->add_option("--client-ip", settings.ip, "Address of the client that authenticates")
      ->default_val("127.0.0.1")
      ->type_name("IP")
      ->check([](const std::string& text) { return text.empty() ? "the address is empty" : std::string(); });

  CLI::App* one_leg =
      program.command("negotiate", "One leg of a Negotiate exchange",
                      "negotiate --service HTTP@proxy.corp.test      (with a ticket that kinit got)\n"
                      "  authctl negotiate - <token\n  authctl negotiate YIIGhgYGKwYBBQUC...",
                      authctl::negotiate);
  CLI::Option* token = one_leg->add_option("TOKEN", settings.token,
                                           "The token in base64, or - for the first line of standard input");
  one_leg
      ->add_option("--service", settings.service,
                   "Make the token of a ticket for this service, and check the answer as a browser does")
      ->type_name("HTTP@HOST")
      ->excludes(token);
  one_leg->callback([&program, &settings] {
    if (settings.token.empty() && settings.service.empty()) throw CLI::RequiredError("TOKEN or --service");
    program.run = authctl::negotiate;
  });
}

// The parser takes a value of a list that stands in brackets for a list itself: a group called [a,b] would
// become two, one called [a] would lose its brackets. A character in front of the bracket prevents it.
constexpr char kShield = '\x01';

std::vector<std::string> shielded_arguments(int argc, char** argv) {
  std::vector<std::string> arguments;
  for (int i = argc - 1; i > 0; --i) {  // the parser takes them from the back
    std::string& argument = arguments.emplace_back(argv[i]);
    if (argument.starts_with('[')) argument.insert(argument.begin(), kShield);
  }
  return arguments;
}

void remove_shields(Settings& settings) {
  const auto remove = [](std::string& text) {
    if (text.size() > 1 && text[0] == kShield && text[1] == '[') text.erase(text.begin());
  };
  for (std::string* text :
       {&settings.server, &settings.name, &settings.ip, &settings.token, &settings.service})
    remove(*text);
  for (std::string& group : settings.groups) remove(group);
}

}  // namespace

int main(int argc, char** argv) {
  command_line::fill_standard_descriptors();
  Program program;
  add_general_options(program);
  add_directory_commands(program);
  add_address_commands(program);
  add_token_commands(program);
  authctl::add_inside_commands(program.app, program.inside, program.run);
  try {
    program.app.parse(shielded_arguments(argc, argv));
    remove_shields(program.settings);
  } catch (const CLI::ParseError& error) {
    return command_line::finish(program.app, error, authctl::kExitNoAnswer);
  }
  program.settings.timeout = std::chrono::milliseconds(static_cast<long>(program.timeout_seconds * 1000));
  return program.run(program.settings);
}
