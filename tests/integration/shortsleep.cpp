// Preloaded into the daemon by the tests: sleep() waits a fraction of the time. The daemon counts its long
// waits by what sleep() returns, so what is left after a signal is given in the caller's seconds.
//
// SHORTSLEEP_CLOCK names a file of 8 bytes: the seconds by which the wall clock is wrong, at this very moment
// and for all processes that started while the file was there.
//
// SHORTSLEEP_GAP_MS makes the moment longer that lies between the caller's last look at its flags and the
// wait itself: a signal in that gap is handled, and the wait begins all the same.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
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

const volatile int64_t* map_clock() {
  const char* path = getenv("SHORTSLEEP_CLOCK");
  const int file = path == nullptr ? -1 : open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return nullptr;
  void* bytes = mmap(nullptr, sizeof(int64_t), PROT_READ, MAP_SHARED, file, 0);
  close(file);
  return bytes == MAP_FAILED ? nullptr : static_cast<const int64_t*>(bytes);
}

// Before main: a fork may come while another thread asks for the time.
const volatile int64_t* const g_shift = map_clock();

}  // namespace

#define REPLACES_THE_SYSTEMS extern "C" __attribute__((visibility("default")))

REPLACES_THE_SYSTEMS int clock_gettime(clockid_t clock, timespec* now) noexcept {
  const long result = syscall(SYS_clock_gettime, clock, now);
  const bool wall = clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
  if (result == 0 && wall && g_shift != nullptr) now->tv_sec += *g_shift;
  return static_cast<int>(result);
}

REPLACES_THE_SYSTEMS time_t time(time_t* out) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  if (out != nullptr) *out = now.tv_sec;
  return now.tv_sec;
}

REPLACES_THE_SYSTEMS int gettimeofday(timeval* __restrict out, void* __restrict /*zone*/) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  *out = {now.tv_sec, now.tv_nsec / 1000};
  return 0;
}

REPLACES_THE_SYSTEMS unsigned int sleep(unsigned int seconds) {
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
