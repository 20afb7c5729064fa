#include "daemon/WorkerProcess.h"

#include <malloc.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>

#include "brellog/VrLog.h"
#include "cache/Cache.h"
#include "daemon/AuthDaemon.h"
#include "daemon/LdapSync.h"
#include "event/Event.h"
#include "handler/EventHandler.h"
#include "libvelder/LdapModule.h"
#include "wrapper/CacheWrapper.h"

namespace {

constexpr unsigned int kFirstRoundSeconds = 60;
constexpr unsigned int kRoundSeconds = 600;
constexpr unsigned int kHastyRoundSeconds = 1;
constexpr unsigned int kReportSeconds = 1800;
constexpr unsigned int kFarewellSeconds = 1;
constexpr pid_t kInitProcess = 1;
// Slots past the fifth are not searched: a worker there is never re-forked.
constexpr int kReapedSlots = 5;
// Threads that share a heap seldom meet there, for each keeps small pieces of its own; a heap for each keeps
// room for whatever that thread once made.
constexpr int kMostHeaps = 4;

constexpr int kExitSignals[] = {SIGTERM, SIGHUP, SIGINT};
constexpr int kOtherSignals[] = {SIGCHLD, SIGUSR1, SIGUSR2};

struct Worker {
  pid_t pid;
  int32_t state;
};

// Written by the signal handler, which runs only while the loops that read it sleep.
Worker g_worker_process[kMaxWorkers];
std::atomic<unsigned int> g_signals_taken{0};

sigset_t handled_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (int signal_number : kExitSignals) sigaddset(&signals, signal_number);
  for (int signal_number : kOtherSignals) sigaddset(&signals, signal_number);
  sigaddset(&signals, SIGALRM);
  return signals;
}

void block_signals() {
  const sigset_t signals = handled_signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void unblock_signals() {
  const sigset_t signals = handled_signals();
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

// The parent of the daemon is init, that of a worker the daemon, unless it was killed.
void handle_exit(int signal_number) {
  VRLOG(kLogInfo, "Handle single %d, daemon will exit", signal_number);  // sic
  if (getppid() == kInitProcess) CacheWrapper::write_cache_file();
  g_exit_daemon = true;
}

// One child a signal: when several ended at once the others stay unreaped until a further one ends.
void handle_child() {
  const pid_t pid = waitpid(-1, nullptr, WNOHANG | WCONTINUED);
  if (pid <= 0) {
    VRLOG_SYS(VrLog::LogStr("waitpid return [%d] in signal handle", pid));
    return;
  }
  VRLOG(kLogInfo, "child receive exit signal, child process [%d] exit", pid);
  for (int i = 0; i < kReapedSlots; ++i) {
    if (g_worker_process[i].pid != pid) continue;
    g_worker_process[i].state = WORKER_DEAD;
    return;
  }
}

// A signal that comes between the last look at it and the sleep itself would be noticed when the sleep ends,
// half an hour later. So every signal sets an alarm, which ends the sleep a second later and comes again
// until the sleep is over.
void wake_again(int /*signal_number*/) {
  alarm(1);
}

// No alarm is left, neither set nor on its way.
void forget_alarm() {
  alarm(0);
  sigset_t alarms;
  sigemptyset(&alarms);
  sigaddset(&alarms, SIGALRM);
  const timespec at_once{};
  sigtimedwait(&alarms, nullptr, &at_once);
}

// Installed for all six signals in every process. Runs only inside the main thread's sleeps; the other
// signals are shut out first, so that it never interrupts itself in the middle of a log line.
void handle_signal(int signal_number) {
  block_signals();
  ++g_signals_taken;
  wake_again(signal_number);
  switch (signal_number) {
    case SIGCHLD: handle_child(); break;
    case SIGUSR1:
    case SIGUSR2:
      VRLOG(kLogInfo, "Handle single %d, reload data...", signal_number);  // sic
      g_reload_data = true;
      break;
    default: handle_exit(signal_number); break;
  }
}

// One sleep that any signal ends early, also one that came before it and waited. Returns what is left.
unsigned int sleep_once(unsigned int seconds) {
  const unsigned int taken_before = g_signals_taken;
  unblock_signals();
  if (g_signals_taken == taken_before) seconds = sleep(seconds);
  block_signals();
  forget_alarm();
  return seconds;
}

// One sleep of several that make up a whole wait. What sleep() says is left after a signal is rounded down:
// without the second that is added back, signals would make the wait shorter.
unsigned int sleep_on(unsigned int seconds) {
  const unsigned int taken_before = g_signals_taken;
  const unsigned int left = sleep_once(seconds);
  return g_signals_taken == taken_before ? left : std::min(left + 1, seconds);
}

void raise_core_limit() {
  rlimit limit{};
  getrlimit(RLIMIT_CORE, &limit);
  VRLOG(kLogDebug, "limit: %d %d", static_cast<int>(limit.rlim_cur), static_cast<int>(limit.rlim_max));
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_CORE, &limit);
}

void watch_listen_socket() {
  event_init();
  event listener;
  event_set(&listener, g_listen_socket, EVENT_READ, tcp_listen_socket_handler, nullptr);
  event_set_quick(&listener);
  event_add(&listener, 1);
}

void* work_thread(void* /*arg*/) {
  event_dispatch();
  return nullptr;
}

// The threads inherit the blocked signals: only the main thread ever takes one.
void start_threads() {
  for (int i = 0; i < g_work_thread_num; ++i) {
    pthread_t thread;
    pthread_create(&thread, nullptr, work_thread, nullptr);
  }
}

void reload_data() {
  g_reload_data = false;
  LdapModule::load_db_cache();
  Velder::reset_reply_cache();
  VRLOG(kLogDebug, "child_worker_start() load cache");
}

// The body of a worker; returns on an exit signal, with its threads still at work.
int child_worker_start() {
  VRLOG(kLogDebug, "child_worker_start() start running...");
  raise_core_limit();
  mallopt(M_ARENA_MAX, kMostHeaps);
  if (!g_enable_reply_cache) {
    VRLOG(kLogInfo, "reply cache was disabled ...");
    Velder::reply_cache_enabled = false;
  }
  watch_listen_socket();
  LdapModule::call_before_long_work(event_release_lead);
  start_threads();
  for (;;) {
    sleep_once(kReportSeconds);
    Velder::report_cache_status();
    if (g_exit_daemon) {
      VRLOG(kLogDebug, "child_worker_start() finish running...");
      return 0;
    }
    if (g_reload_data) reload_data();
  }
}

void restart_dead_workers() {
  for (int i = 0; i < g_work_process_num; ++i) {
    // A slot whose fork failed has no pid and is not tried again.
    if (g_worker_process[i].pid > 0 && g_worker_process[i].state == WORKER_DEAD) create_child_worker(i);
  }
}

// Also true of a child that has ended and was not collected yet.
bool is_own_child(pid_t pid) {
  siginfo_t unused{};
  return waitid(P_PID, static_cast<id_t>(pid), &unused, WEXITED | WNOHANG | WNOWAIT) == 0;
}

// A slot that is not searched may hold the pid of a worker that is long gone, and with it somebody else's.
void end_workers() {
  for (const Worker& worker : g_worker_process) {
    if (worker.pid > 0 && worker.state == WORKER_RUNNING && is_own_child(worker.pid)) {
      kill(worker.pid, SIGTERM);
    }
  }
}

}  // namespace

void set_signal_handler() {
  for (int signal_number : kExitSignals) signal(signal_number, handle_signal);
  for (int signal_number : kOtherSignals) signal(signal_number, handle_signal);
  signal(SIGALRM, wake_again);
  signal(SIGPIPE, SIG_IGN);  // a client that closes early is a failed send, not the end of a worker
  block_signals();
}

int create_child_worker(int index) {
  Worker& slot = g_worker_process[index];
  slot = {0, WORKER_DEAD};
  const pid_t pid = fork();
  if (pid < 0) {
    VRLOG_SYS("Fail to create child process");
    return -1;
  }
  if (pid == 0) {
    child_worker_start();
    _exit(0);  // static objects stay: the threads still use them
  }
  slot = {pid, WORKER_RUNNING};
  return 0;
}

void loop_monitor() {
  sleep_through(kFirstRoundSeconds);
  while (!g_exit_daemon) {
    restart_dead_workers();
    sync_ldap_server();
    // A worker that dies as soon as it starts must not make this a loop of forks and log lines. A sleep that
    // is interrupted in its first second has one second less left.
    if (sleep_once(kRoundSeconds) >= kRoundSeconds - 1) sleep_through(kHastyRoundSeconds);
  }
  VRLOG(kLogInfo, "Receive exit signal, daemon will exit...");
  // Scripts repeat the signal until the daemon is gone; each would begin the last second anew.
  for (int signal_number : kExitSignals) signal(signal_number, SIG_IGN);
  end_workers();
  // Not sleep_through, which an exit signal ends: the one that brought us here already came.
  for (unsigned int left = kFarewellSeconds; left > 0;) left = sleep_on(left);
}

void sleep_through(unsigned int seconds) {
  while (seconds > 0 && !g_exit_daemon) seconds = sleep_on(seconds);
}

void restore_default_signals() {
  for (int signal_number : kExitSignals) signal(signal_number, SIG_DFL);
  signal(SIGCHLD, SIG_DFL);
  signal(SIGPIPE, SIG_DFL);
  signal(SIGALRM, SIG_DFL);
  signal(SIGUSR1, SIG_IGN);
  signal(SIGUSR2, SIG_IGN);
  unblock_signals();
}
