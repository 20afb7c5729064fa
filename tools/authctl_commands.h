// The commands of authctl: each sends its request, prints the answer and says how the program ends.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace authctl {

// The program's exit status.
enum ExitCode : int {
  kExitSuccess = 0,      // the daemon answered with result 0
  kExitOtherResult = 1,  // it answered with another result
  kExitUsage = 2,        // wrong arguments or input
  kExitNoAnswer = 3,     // no connection, a closed one, no answer in time, a malformed one
};

// The command line in readable form.
struct Settings {
  std::string server;
  std::chrono::milliseconds timeout{0};
  bool json = false;

  std::string name;                 // user, group or file, as the command wants it
  std::string ip;                   // also the client's address of an NTLM exchange
  std::string token;                // "-": to be read from standard input
  std::string service;              // whose ticket is to be shown; empty: `token` counts
  std::vector<std::string> groups;  // of all-users
  bool full_match = false;
  bool by_dn = false;
  bool long_list = false;
  bool wait = false;
  std::string scope;  // empty: not sent
};

int user_search(const Settings& settings);
int group_search(const Settings& settings);
int user_groups(const Settings& settings);
int group_groups(const Settings& settings);
int all_users(const Settings& settings);
int user_info(const Settings& settings);
int validate(const Settings& settings);
int bind_address(const Settings& settings);
int unbind_address(const Settings& settings);
int ip_query(const Settings& settings);
int ip_auth(const Settings& settings);
int export_bindings(const Settings& settings);
int ntlm(const Settings& settings);
int negotiate(const Settings& settings);

}  // namespace authctl
