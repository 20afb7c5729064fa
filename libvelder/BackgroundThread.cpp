#include "libvelder/BackgroundThread.h"

#include <csignal>
#include <system_error>
#include <thread>
#include <utility>

namespace velder {

bool start_background_thread(std::function<void()> body) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  bool started = true;
  try {
    std::thread(std::move(body)).detach();
  } catch (const std::system_error&) {
    started = false;
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return started;
}

}  // namespace velder
