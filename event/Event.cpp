// Registrations go from the caller's record to a pending stack, from there into epoll and the table of
// watched registrations, and leave both before their callback runs.
//
// The thread that owns epoll_mutex has the lead: it alone waits. Changes are queued, the last one first, and
// made after the wait that they end. They are made earlier, and without ending a wait, where nobody can tell:
// when none of them is a removal or comes on top of another registration.
//
// A quick callback runs with the lead. Its descriptor, without a registration now, stays in epoll, since
// nobody waits; the next registration takes the place, or it is taken out before somebody waits again. So do
// descriptors that are left to a work that follows: until then the leader only looks what else is ready, and
// what it finds without a registration is one of them, which it takes out.
//
// Invariant, while a thread waits in earnest: a descriptor is in the epoll set only if the table holds a
// registration of it; both change together then, under event_list_mutex. Lock order: epoll_mutex before
// event_list_mutex. event_add and event_del take only the latter.
#include "event/Event.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "brellog/VrLog.h"
#include "daemonbase/BRELSync.h"
#include "daemonbase/Immortal.h"

static_assert(EVENT_READ == EPOLLIN && EVENT_WRITE == EPOLLOUT, "the values are handed to epoll as they are");

namespace {

constexpr int kEventMask = EVENT_READ | EVENT_WRITE;
// Events that are taken at most while descriptors are left to a work: the first of them waits no longer than
// these take, and a store is not kept locked for longer than the work for so many takes.
constexpr size_t kMostEventsBetween = 64;
constexpr int kEpollSizeHint = 128;  // only has to be positive
constexpr int kWaitMilliseconds = 30000;
constexpr int kWakeUpBytes = 4;
// One pass drains 32 wake-ups, the rest keep the socket readable for the next wait.
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
bool waiting GUARDED_BY(event_list_mutex) = false;  // a thread is in epoll_wait or about to enter it

// A descriptor that is in epoll without a registration.
struct Fired {
  int fd = -1;       // -1: none
  short events = 0;  // what epoll reports of it
};

// This thread's part in the lead.
struct Lead {
  bool held = false;            // it owns epoll_mutex
  Fired fired;                  // of the callback that runs
  event_work finish = nullptr;  // what descriptors were left to
  size_t events_between = 0;    // taken since the first was left, with the one that left it
  // Those that were left and are still in epoll: usually registered again in the order in which they came.
  std::array<Fired, kMostEventsBetween> left;
  size_t left_begin = 0;
  size_t left_end = 0;
};
constinit thread_local Lead t_lead;

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
  record->in_epoll = false;
  return record;
}

int wake_waiter() {
  const char wake_up[kWakeUpBytes] = {};
  return static_cast<int>(send(sync_sockets[1], wake_up, sizeof(wake_up), 0));
}

void take_lead() NO_THREAD_SAFETY_ANALYSIS {
  if (t_lead.held) return;
  epoll_mutex.Lock();
  t_lead.held = true;
}

void remove(Fired& fired) {
  if (fired.fd >= 0) epoll_ctl(epoll_fd, EPOLL_CTL_DEL, fired.fd, nullptr);
  fired.fd = -1;
}

void remove_left() {
  for (; t_lead.left_begin < t_lead.left_end; ++t_lead.left_begin) remove(t_lead.left[t_lead.left_begin]);
  t_lead.left_begin = t_lead.left_end = 0;
}

// The place in epoll that `fd` has without a registration, no longer among those that were left; fd -1: none.
Fired take_place(int fd) {
  if (fd < 0) return {};
  if (t_lead.fired.fd == fd) return std::exchange(t_lead.fired, {});
  for (size_t i = t_lead.left_begin; i < t_lead.left_end; ++i) {
    if (t_lead.left[i].fd != fd) continue;
    std::swap(t_lead.left[i], t_lead.left[t_lead.left_begin]);
    return t_lead.left[t_lead.left_begin++];
  }
  return {};
}

// True when the descriptor of `ev` is still in epoll and can stay there.
bool takes_place(const event& ev) {
  Fired place = take_place(ev.fd);
  if (place.fd < 0) return false;
  if (((place.events ^ ev.events) & kEventMask) == 0) return true;
  remove(place);
  return false;
}

void finish_left() {
  const event_work finish = std::exchange(t_lead.finish, nullptr);
  if (finish == nullptr) return;
  finish();
  remove_left();  // of those that were neither registered nor closed
}

// Takes the registration of a ready descriptor out of the table. The descriptor leaves epoll with the lead.
event take_ready(int fd) REQUIRES(event_list_mutex) {
  event* record = pop(watched_at(fd));
  // Operators know this failure by its place; it must not move with the lines of this file.
  if (record == nullptr) __assert_fail("c != __null", "Event.cpp", 209, "int event_dispatch()");
  t_lead.fired = {fd, record->events};
  event ready = *record;
  free(record);
  return ready;
}

void watch(event* record) REQUIRES(event_list_mutex) {
  // Registered twice: from here on the place in epoll is this one's.
  if (Fired place = take_place(record->fd); place.fd >= 0) remove(place);
  epoll_event request{};
  request.events = static_cast<uint32_t>(record->events & kEventMask);
  request.data.fd = record->fd;
  // A descriptor that was closed meanwhile, or added twice, fails here; its record is kept all the same.
  if (!record->in_epoll) epoll_ctl(epoll_fd, EPOLL_CTL_ADD, record->fd, &request);
  push(watched_at(record->fd), record);
}

// Neither the request nor the unlinked record is freed: a caller of event_del may still hold the event's
// argument through a callback that is running.
void unwatch(const event* request) REQUIRES(event_list_mutex) {
  epoll_ctl(epoll_fd, EPOLL_CTL_DEL, request->fd, nullptr);
  take_place(request->fd);  // gone as well, if it was left to a work
  if (pop(watched_at(request->fd)) == nullptr) VRLOG(kLogError, "fail to find register event");
}

void drain_wake_ups() {
  char wake_ups[kDrainBytes];
  [[maybe_unused]] const ssize_t drained = read(sync_sockets[0], wake_ups, sizeof(wake_ups));
}

void handle_pending_events() REQUIRES(event_list_mutex) {
  while (pending_active_events != nullptr) {
    VRLOG(kLogDebug, "handle_pending_events() wakeup for add events...");
    watch(pop(pending_active_events));
  }
  while (pending_inactive_events != nullptr) {
    VRLOG(kLogDebug, "handle_pending_events() wakeup for del events...");
    unwatch(pop(pending_inactive_events));
  }
}

// Whether it makes a difference to make the queued changes before a wait and not after it.
bool order_shows() REQUIRES(event_list_mutex) {
  if (pending_inactive_events != nullptr) return true;
  for (const event* record = pending_active_events; record != nullptr; record = record->next) {
    if (watched_at(record->fd) != nullptr) return true;
  }
  return false;
}

// Leaves nothing in epoll whose registration is still queued.
void remove_queued() REQUIRES(event_list_mutex) {
  for (event* record = pending_active_events; record != nullptr; record = record->next) {
    if (record->in_epoll) epoll_ctl(epoll_fd, EPOLL_CTL_DEL, record->fd, nullptr);
    record->in_epoll = false;
  }
}

// What was queued since the last wait, by nobody who could have woken one.
void prepare_wait() {
  BRELLock list_guard(event_list_mutex);
  if (order_shows()) {
    remove_queued();
  } else {
    handle_pending_events();
  }
  waiting = true;
}

// The result of one wait: at most one event is taken, so that the next thread can wait meanwhile.
struct Wakened {
  bool failed = false;
  bool nothing_ready = false;
  int count = 0;
  event ready;
};

Wakened wait_once() {
  Wakened wakened;
  prepare_wait();
  epoll_event reported{};
  const int patience = t_lead.finish == nullptr ? kWaitMilliseconds : 0;
  const int count = epoll_wait(epoll_fd, &reported, 1, patience);
  if (count < 0 && errno != EINTR) {
    wakened.failed = true;
    VRLOG_SYS(VrLog::LogStr("Fail to call epoll_wait (%s)", strerror(errno)));
  }
  BRELLock list_guard(event_list_mutex);
  waiting = false;
  wakened.nothing_ready = count <= 0;
  if (count > 0 && reported.data.fd == sync_sockets[0]) {
    drain_wake_ups();
  } else if (Fired left = count > 0 ? take_place(reported.data.fd) : Fired{}; left.fd >= 0) {
    remove(left);  // more has come on it, or its end
  } else if (count > 0) {
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
  ev->quick = false;
  ev->in_epoll = false;
}

void event_set_quick(event* ev) {
  ev->quick = true;
}

void event_closing(int fd) {
  take_place(fd);  // the close itself takes it out
}

void event_release_lead() NO_THREAD_SAFETY_ANALYSIS {
  finish_left();  // which may have given it away itself
  if (!t_lead.held) return;
  event_let_go();
  t_lead.held = false;
  epoll_mutex.Unlock();
}

bool event_finish_later(event_work finish) {
  if (!t_lead.held || t_lead.left_end == t_lead.left.size()) return false;
  if (t_lead.finish == nullptr) t_lead.events_between = 1;
  t_lead.finish = finish;
  if (t_lead.fired.fd >= 0) t_lead.left[t_lead.left_end++] = std::exchange(t_lead.fired, {});
  return true;
}

void event_let_go() {
  remove(t_lead.fired);
  remove_left();
}

int event_add(event* ev, short persist) {
  if ((ev->events & kEventMask) == 0) {
    return VrLog::writeLog3(kLogError, __FILE__, __LINE__, __FUNCTION__,
                            "Fail to add invalid events into monitor");
  }
  event* record = new_record(ev, persist);
  record->in_epoll = takes_place(*ev);
  if (!record->in_epoll) fcntl(ev->fd, F_SETFL, O_NONBLOCK);
  VRLOG(kLogDebug, "event_add() wake up ...");
  BRELLock list_guard(event_list_mutex);
  push(pending_active_events, record);
  // At once, also when nobody waits now: what gets ready from here on finds this registration on top.
  if (watched_at(ev->fd) != nullptr) return wake_waiter();
  if (waiting && !order_shows()) handle_pending_events();  // otherwise whoever waits next looks first
  return kWakeUpBytes;
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
    if (t_lead.events_between >= kMostEventsBetween) finish_left();
    take_lead();
    Wakened wakened = wait_once();
    if (wakened.nothing_ready) finish_left();
    if (wakened.failed) {
      event_release_lead();
      poll(nullptr, 0, kFailedWaitPauseMilliseconds);
    }
    if (wakened.count == 0) continue;
    ++t_lead.events_between;
    event& ready = wakened.ready;
    if (!ready.quick) event_release_lead();
    ready.callback(ready.fd, ready.events, ready.arg);
    if (ready.persist == 1) event_add(&ready, 1);
    remove(t_lead.fired);  // of a callback that neither registered it again nor closed it
  }
}
