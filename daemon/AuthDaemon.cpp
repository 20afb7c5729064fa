// Start of the daemon: settings, detaching, account, port, libraries, pid file, workers, and the end.
#include "daemon/AuthDaemon.h"

#include <fcntl.h>
#include <google/protobuf/stubs/logging.h>
#include <grp.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "brellog/VrLog.h"
#include "daemon/Daemonize.h"
#include "daemon/WorkerProcess.h"
#include "daemonbase/BRELConfigFile.h"
#include "wrapper/CacheWrapper.h"
#include "wrapper/LdapWrapper.h"

char g_workdir[512] = {};
bool g_verbose_log = false;
bool g_enable_reply_cache = true;
int32_t g_work_process_num = 2;
int32_t g_work_thread_num = 10;
uint32_t ldap_sync_interval = 1440;
int32_t g_listen_socket = -1;
std::atomic<bool> g_exit_daemon{false};
std::atomic<bool> g_reload_data{false};
// Found in the file of the running program by whoever asks which version it is; the daemon itself never says.
[[gnu::used]] extern const char g_version_text[] = "AuthDaemon version " AUTHDAEMON_VERSION;
const char* const AUTH_PID_FILE = "/etc/quarn/pids/auth_daemon.pid";

namespace {

constexpr const char* kServiceAccount = "quarn";
constexpr uint16_t kPort = 1100;
constexpr int kListenBacklog = 10;

void take_number(const char* value, int32_t max, int32_t* setting) {
  const long number = strtol(value, nullptr, 10);
  if (number >= 1 && number <= max) *setting = static_cast<int32_t>(number);
}

// Every option is compared with every word, the values of other options included.
void take_option(const char* option, const char* value) {
  if (strcmp(option, "--workdir") == 0 && value != nullptr) {
    strncpy(g_workdir, value, sizeof(g_workdir) - 1);
  }
  if (strcmp(option, "--verbose") == 0 || strcmp(option, "verbose") == 0) g_verbose_log = true;
  if (strcmp(option, "--disable-reply-cache") == 0) g_enable_reply_cache = false;
  if (strcmp(option, "--process-num") == 0 && value != nullptr)
    take_number(value, kMaxWorkers, &g_work_process_num);
  if (strcmp(option, "--thread-num") == 0 && value != nullptr)
    take_number(value, kMaxThreads, &g_work_thread_num);
}

// Results are not checked: without the account, or without the right to change to it, the daemon goes on as
// who it is.
void drop_privileges() {
  const passwd* account = getpwnam(kServiceAccount);
  if (account == nullptr) return;
  [[maybe_unused]] int ignored = initgroups(kServiceAccount, account->pw_gid);
  ignored = setgid(account->pw_gid);
  ignored = setuid(account->pw_uid);
}

[[noreturn]] void give_up_listening(const char* text) {
  VRLOG_SYS(text);
  if (g_listen_socket >= 0) close(g_listen_socket);
  exit(0);
}

void open_listen_socket() {
  g_listen_socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  if (g_listen_socket < 0) give_up_listening("can not create listen socket");
  const int on = 1;
  setsockopt(g_listen_socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(kPort);
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  if (bind(g_listen_socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    give_up_listening(VrLog::LogStr("Fail to bind listening socket [%s]", strerror(errno)));
  }
  if (listen(g_listen_socket, kListenBacklog) != 0) give_up_listening("error listen failed");
}

void initialize_libraries() {
  const int directory = LdapWrapper::initialize(g_workdir, true);
  const int bindings = CacheWrapper::initialize(g_workdir);
  VRLOG(kLogInfo, "LdapWrapper::initialize() (rc=%d)", directory);
  VRLOG(kLogInfo, "CacheWrapper::initialize() (rc=%d)", bindings);
  if (directory != 0 || bindings != 0) {
    VRLOG(kLogInfo, "Error: fail to initialize velder library, exit");
    exit(1);
  }
  if (prldap_install_routines(nullptr, 1) != 0) {
    VRLOG(kLogError, "the LDAP client library cannot be shared between threads");
  }
}

void parent_start() {
  drop_privileges();
  VrLog::setConfig("AuthDaemon.log", "/var/brel/log");
  VrLog::setLogVerbose(g_verbose_log);
  VRLOG(kLogInfo, "**************** Authentication Daemon Start ****************");
  VRLOG(kLogInfo, "Info: start authentication daemon...");
  open_listen_socket();
  initialize_libraries();
}

void write_pid_file() {
  const int fd = open(AUTH_PID_FILE, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return;
  const std::string pid = std::to_string(getpid());
  [[maybe_unused]] const ssize_t written = write(fd, pid.data(), pid.size());
  close(fd);
}

}  // namespace

void parse_boot_parameter(int argc, char** argv) {
  for (int i = 0; i < argc; ++i) take_option(argv[i], i + 1 < argc ? argv[i + 1] : nullptr);

  const ConfigFile settings((std::string(g_workdir) + "/LdapSetting.ini").c_str());
  if (settings.ok()) ldap_sync_interval = settings.getdigitparam("LDAP_Setting", "SyncInterval");
  VRLOG(kLogDebug, "boot parameter: ldap_sync_interval (%u)", ldap_sync_interval);
  VRLOG(kLogDebug, "boot parameter: process number (%d), thread number (%d)", g_work_process_num,
        g_work_thread_num);
}

int main(int argc, char** argv) {
  google::protobuf::SetLogHandler(
      nullptr);  // standard error is closed, and hostile bodies are our own business
  parse_boot_parameter(argc, argv);
  daemonize();
  set_signal_handler();
  parent_start();
  write_pid_file();
  for (int i = 0; i < g_work_process_num; ++i) create_child_worker(i);
  loop_monitor();
  unlink(AUTH_PID_FILE);
  VRLOG(kLogInfo, "Daemon exit");
  return 0;
}
