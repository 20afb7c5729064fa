// Worker processes, the parent's monitor loop, and the one signal handler of all of them.
//
// Signals are taken only while a process's main thread sleeps: everywhere else they are blocked, so that
// the handler, which logs, never interrupts code that it could not safely enter again.
#pragma once

#include <cstdint>

enum WorkerState : int32_t {
  WORKER_UNUSED = 0,   // never forked
  WORKER_DEAD = 1,     // fork under way, fork failed, or the process has ended
  WORKER_RUNNING = 2,  // forked and running
};

// Installs the handler of the six signals that the daemon knows, ignores SIGPIPE, and blocks the six until
// the first sleep.
void set_signal_handler();

// Forks the worker of a slot. 0, or -1 when the fork failed. The worker never returns from here.
int create_child_worker(int index);

// The parent's loop; returns after an exit signal, with the workers told to end.
void loop_monitor();

// Sleeps with the signals let in, all of `seconds` even when signals come, unless one of them is an exit
// signal; then it returns at once.
void sleep_through(unsigned int seconds);

// Gives a child that is about to run a program the signals of an ordinary process, except that it ignores
// the reload signals, which are not meant for it.
void restore_default_signals();
