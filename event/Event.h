// The event loop of a worker process: readiness callbacks over one epoll set (epoll(7)) that all threads
// of the worker share.
//
// A registration fires once, so one descriptor is never served by two threads at a time; a callback that
// wants more events registers again as its last act. One thread has the lead: it waits. It gives the lead to
// another before it runs a callback, unless the registration was marked quick. The descriptor is the key of a
// registration: whoever closes a descriptor that still has one leaves its record behind.
//
// event_add and event_del may be called from any thread, callbacks included. Each process that uses the
// loop calls event_init for itself, after its fork.
#pragma once

constexpr short EVENT_READ = 1;   // equals EPOLLIN
constexpr short EVENT_WRITE = 4;  // equals EPOLLOUT

// `events` is what was asked for, not what epoll reported: an error or hang-up shows in the next call on fd.
using event_callback = void (*)(int fd, short events, void* arg);

struct event {
  event_callback callback;
  int fd;
  short events;   // EVENT_READ, EVENT_WRITE or both
  void* arg;      // the caller's; handed to the callback as it is
  event* next;    // the loop's own
  short persist;  // 1: the loop registers again after each call of the callback
  bool quick;     // the callback is quick; see event_set_quick
  bool in_epoll;  // the loop's own
};

// Fills `ev`, which may live on the caller's stack. No side effect.
void event_set(event* ev, int fd, short events, event_callback callback, void* arg);

// Marks a registration whose callback never waits for anything but the processor, or calls event_release_lead
// before it does: the thread keeps the lead while it runs, which spares a change of threads. Such a callback
// ends by registering its descriptor again, by closing it (the last one of its socket, after event_closing),
// or has given the lead away before it leaves it to somebody else.
void event_set_quick(event* ev);

// Called before a descriptor that may still be in epoll is closed: from then on its number may be somebody
// else's, so the loop must not take it out later.
void event_closing(int fd);

// Called by a quick callback before anything that may take long: another thread waits from here on. Without
// effect in other places.
void event_release_lead();

// Work for several descriptors at once. It registers each again, closes it, or leaves it to another thread.
using event_work = void (*)();

// Called by a quick callback that leaves its descriptor to `finish`, for work that costs little more for many
// than for one. True: this thread calls `finish` once for all that were left to it, as soon as nothing else
// is ready, after a number of further events, and in any case before the lead is given away: also from
// event_release_lead in another callback. False: the thread does not have the lead; nobody calls `finish`.
// There is one such work in a process.
bool event_finish_later(event_work finish);

// Called by a `finish` that keeps the lead before it leaves descriptors to another thread: takes out what is
// still in epoll of them.
void event_let_go();

// Registers a copy of `ev` and makes its descriptor non-blocking. The result says nothing that a caller
// could act on.
int event_add(event* ev, short persist);

// Queues the removal of the newest registration of ev->fd.
int event_del(event* ev);

// Makes this process's epoll set. Called once, before the first event_add.
int event_init();

// Waits for events and runs callbacks. Never returns; run by every thread of the worker.
int event_dispatch();
