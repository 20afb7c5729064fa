// The daemon's process-wide settings and flags: set once at start in the parent, inherited by the workers
// through fork. The two flags are set by the signal handler, each process its own.
#pragma once

#include <atomic>
#include <cstdint>

extern char g_workdir[512];  // prefix of every file that the daemon reads or runs; may be empty
extern bool g_verbose_log;
extern bool g_enable_reply_cache;
extern int32_t g_work_process_num;   // 1 to kMaxWorkers
extern int32_t g_work_thread_num;    // per worker, 1 to 30
extern uint32_t ldap_sync_interval;  // minutes between directory synchronisations
extern int32_t g_listen_socket;
extern std::atomic<bool> g_exit_daemon;
extern std::atomic<bool> g_reload_data;  // looked at by workers only
extern const char* const AUTH_PID_FILE;

constexpr int32_t kMaxWorkers = 10;
constexpr int32_t kMaxThreads = 30;

// Reads the command line and LdapSetting.ini into the settings above. Unknown words and values out of range
// are ignored.
void parse_boot_parameter(int argc, char** argv);
