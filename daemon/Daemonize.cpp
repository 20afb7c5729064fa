#include "daemon/Daemonize.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>

#include "brellog/VrLog.h"

namespace {

constexpr rlim_t kDescriptorsWithoutLimit = 1024;

// One call however high the limit is: closing them one by one takes seconds at a million.
void close_descriptors(rlim_t count) {
  const auto last = static_cast<unsigned int>(std::min<rlim_t>(count, UINT_MAX)) - 1;
  if (count == 0 || close_range(0, last, 0) == 0) return;
  for (unsigned int fd = 0; fd <= last; ++fd) close(static_cast<int>(fd));  // a kernel without the call
}

bool use_null_device() {
  const int in = open("/dev/null", O_RDWR);
  const int out = dup(0);
  const int error = dup(0);
  return in == 0 && out == 1 && error == 2;
}

}  // namespace

void daemonize() {
  umask(0);
  if (fork() != 0) exit(0);
  setsid();
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    VRLOG_SYS("Fail to get limits setting");
    exit(0);
  }
  close_descriptors(limit.rlim_max == RLIM_INFINITY ? kDescriptorsWithoutLimit : limit.rlim_max);
  if (!use_null_device()) exit(0);
}
