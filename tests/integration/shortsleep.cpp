// Preloaded into the daemon by the tests: sleep() waits a fraction of the time. The daemon counts its long
// waits by what sleep() returns, so what is left after a signal is given in the caller's seconds.
//
// SHORTSLEEP_GAP_MS makes the moment longer that lies between the caller's last look at its flags and the
// wait itself: a signal in that gap is handled, and the wait begins all the same.
#include <time.h>

#include <cerrno>
#include <cstdlib>

namespace {

constexpr double kNanoseconds = 1e9;

double factor() {
  const char* text = getenv("SHORTSLEEP_FACTOR");
  const double value = text == nullptr ? 1 : strtod(text, nullptr);
  return value >= 1 ? value : 1;
}

void linger_in_the_gap() {
  const char* text = getenv("SHORTSLEEP_GAP_MS");
  if (text == nullptr) return;
  timespec left{0, strtol(text, nullptr, 10) * 1'000'000};
  while (nanosleep(&left, &left) != 0) {
  }
}

}  // namespace

extern "C" __attribute__((visibility("default"))) unsigned int sleep(unsigned int seconds) {
  const double shortened = seconds / factor();
  const auto whole = static_cast<time_t>(shortened);
  timespec left{whole, static_cast<long>((shortened - static_cast<double>(whole)) * kNanoseconds)};
  const int saved_errno = errno;
  linger_in_the_gap();
  if (nanosleep(&left, &left) == 0) {
    errno = saved_errno;
    return 0;
  }
  const double seconds_left =
      static_cast<double>(left.tv_sec) + static_cast<double>(left.tv_nsec) / kNanoseconds;
  return static_cast<unsigned int>(seconds_left * factor());  // rounded down, as the C library does
}
