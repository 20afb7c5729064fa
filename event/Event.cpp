// Registrations go from the caller's record to a pending stack, from there into epoll and the table of
// watched registrations, and leave both before their callback runs.
//
// Invariant: a descriptor is in the epoll set only while the table holds a registration of it, and both
// change only under epoll_mutex and event_list_mutex. Lock order: epoll_mutex before event_list_mutex.
// event_add and event_del take only the latter and never touch the epoll set.
#include "event/Event.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "brellog/VrLog.h"
#include "daemonbase/BRELSync.h"
#include "daemonbase/Immortal.h"

static_assert(EVENT_READ == EPOLLIN && EVENT_WRITE == EPOLLOUT, "the values are handed to epoll as they are");

namespace {

constexpr int kEventMask = EVENT_READ | EVENT_WRITE;
constexpr int kEpollSizeHint = 128;  // only has to be positive
constexpr int kWaitMilliseconds = 30000;
// A wake-up is 4 bytes; one pass drains 32 of them, the rest keep the socket readable for the next wait.
constexpr size_t kDrainBytes = 128;
// epoll_wait that fails at once would otherwise fill the log as fast as the disk takes it.
constexpr int kFailedWaitPauseMilliseconds = 1000;

int epoll_fd = -1;
int sync_sockets[2] = {-1, -1};  // 0: read end, watched by epoll; 1: wake-ups are written here

// Never destroyed, like the table below: the worker's threads use them until the process is gone.
const Immortal<BRELMutex> epoll_mutex_object(false);
const Immortal<BRELMutex> event_list_mutex_object(false);
BRELMutex& epoll_mutex = epoll_mutex_object.get();
BRELMutex& event_list_mutex = event_list_mutex_object.get();

// The registrations in epoll, by descriptor: each slot is a stack, newest on top. Searching one list of all
// of them from its newest end finds the same record, but costs more with every idle connection.
const Immortal<std::vector<event*>> monitor_events_object;
std::vector<event*>& monitor_events GUARDED_BY(event_list_mutex) = monitor_events_object.get();
event* pending_active_events GUARDED_BY(event_list_mutex) = nullptr;
event* pending_inactive_events GUARDED_BY(event_list_mutex) = nullptr;

void push(event*& head, event* record) {
  record->next = head;
  head = record;
}

event* pop(event*& head) {
  event* record = head;
  if (record != nullptr) head = record->next;
  return record;
}

event*& watched_at(int fd) REQUIRES(event_list_mutex) {
  const size_t slot = fd < 0 ? 0 : static_cast<size_t>(fd) + 1;  // what is no descriptor is kept as well
  if (slot >= monitor_events.size()) monitor_events.resize(slot + 1);
  return monitor_events[slot];
}

event* new_record(const event* ev, short persist) {
  auto* record = static_cast<event*>(malloc(sizeof(event)));
  assert(record != nullptr);
  *record = *ev;
  record->persist = persist;
  return record;
}

int wake_waiter() {
  const char wake_up[4] = {};
  return static_cast<int>(send(sync_sockets[1], wake_up, sizeof(wake_up), 0));
}

// Takes the registration of a ready descriptor out of epoll and out of the table.
event take_ready(int fd) REQUIRES(event_list_mutex) {
  event* record = pop(watched_at(fd));
  // Operators know this failure by its place; it must not move with the lines of this file.
  if (record == nullptr) __assert_fail("c != __null", "Event.cpp", 209, "int event_dispatch()");
  epoll_ctl(epoll_fd, EPOLL_CTL_DEL, fd, nullptr);
  event ready = *record;
  free(record);
  return ready;
}

void watch(event* record) REQUIRES(event_list_mutex) {
  epoll_event request{};
  request.events = static_cast<uint32_t>(record->events & kEventMask);
  request.data.fd = record->fd;
  // A descriptor that was closed meanwhile, or added twice, fails here; its record is kept all the same.
  epoll_ctl(epoll_fd, EPOLL_CTL_ADD, record->fd, &request);
  push(watched_at(record->fd), record);
}

// Neither the request nor the unlinked record is freed: a caller of event_del may still hold the event's
// argument through a callback that is running.
void unwatch(const event* request) REQUIRES(event_list_mutex) {
  epoll_ctl(epoll_fd, EPOLL_CTL_DEL, request->fd, nullptr);
  if (pop(watched_at(request->fd)) == nullptr) VRLOG(kLogError, "fail to find register event");
}

// Called with both mutexes held, after every wait.
void handle_pending_events() REQUIRES(event_list_mutex) {
  char wake_ups[kDrainBytes];
  [[maybe_unused]] const ssize_t drained = read(sync_sockets[0], wake_ups, sizeof(wake_ups));
  while (pending_active_events != nullptr) {
    VRLOG(kLogDebug, "handle_pending_events() wakeup for add events...");
    watch(pop(pending_active_events));
  }
  while (pending_inactive_events != nullptr) {
    VRLOG(kLogDebug, "handle_pending_events() wakeup for del events...");
    unwatch(pop(pending_inactive_events));
  }
}

// The result of one wait: at most one event is taken, so that the next thread can wait meanwhile.
struct Wakened {
  bool failed = false;
  int count = 0;
  event ready;
};

Wakened wait_once() {
  Wakened wakened;
  BRELLock epoll_guard(epoll_mutex);
  epoll_event reported{};
  int count = epoll_wait(epoll_fd, &reported, 1, kWaitMilliseconds);
  if (count < 0 && errno != EINTR) {
    wakened.failed = true;
    VRLOG_SYS(VrLog::LogStr("Fail to call epoll_wait (%s)", strerror(errno)));
  }
  BRELLock list_guard(event_list_mutex);
  if (count > 0 && reported.data.fd != sync_sockets[0]) {
    wakened.ready = take_ready(reported.data.fd);
    wakened.count = 1;
  }
  handle_pending_events();
  return wakened;
}

}  // namespace

void event_set(event* ev, int fd, short events, event_callback callback, void* arg) {
  ev->callback = callback;
  ev->fd = fd;
  ev->events = events;
  ev->arg = arg;
  ev->next = nullptr;
  ev->persist = 0;
}

int event_add(event* ev, short persist) {
  if ((ev->events & kEventMask) == 0) {
    return VrLog::writeLog3(kLogError, __FILE__, __LINE__, __FUNCTION__,
                            "Fail to add invalid events into monitor");
  }
  fcntl(ev->fd, F_SETFL, O_NONBLOCK);
  event* record = new_record(ev, persist);
  {
    BRELLock list_guard(event_list_mutex);
    push(pending_active_events, record);
  }
  VRLOG(kLogDebug, "event_add() wake up ...");
  return wake_waiter();
}

int event_del(event* ev) {
  event* record = new_record(ev, ev->persist);
  {
    BRELLock list_guard(event_list_mutex);
    push(pending_inactive_events, record);
  }
  return wake_waiter();
}

int event_init() {
  epoll_fd = epoll_create(kEpollSizeHint);
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, sync_sockets) != 0) {
    VRLOG_SYS(VrLog::LogStr("Fail to create sync socketpair (%s)", strerror(errno)));
  }
  for (int end : sync_sockets) fcntl(end, F_SETFL, O_NONBLOCK);
  epoll_event request{};
  request.events = EPOLLIN;
  request.data.fd = sync_sockets[0];
  epoll_ctl(epoll_fd, EPOLL_CTL_ADD, sync_sockets[0], &request);
  return 0;
}

int event_dispatch() {
  for (;;) {
    Wakened wakened = wait_once();
    if (wakened.failed) poll(nullptr, 0, kFailedWaitPauseMilliseconds);
    if (wakened.count == 0) continue;
    event& ready = wakened.ready;
    ready.callback(ready.fd, ready.events, ready.arg);
    if (ready.persist == 1) event_add(&ready, 1);
  }
}
