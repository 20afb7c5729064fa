// The scheduled directory synchronisation: runs LdapSyncTool.sh of the working directory when it is due.
#pragma once

#include <ctime>
#include <string>

// Called by the parent once a monitor round. Forks a child that runs the script, and does not wait for it.
void sync_ldap_server();

// "<year><month><day>.0001" of a time, in local time; empty when the time cannot be converted.
std::string sync_log_date(time_t now);

// The shell command of a synchronisation. Only standard output reaches the log file: standard error is
// pointed at the daemon's standard output first.
std::string sync_command(const std::string& workdir, bool verbose, const std::string& date);
