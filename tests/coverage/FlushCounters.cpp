// In a coverage build every program has this in the place of _exit, with which the daemon's workers end:
// their counters would be lost.
#include <cstdlib>

extern "C" void __gcov_dump();
extern "C" [[noreturn]] void __real__exit(int status);
extern "C" [[noreturn]] void __wrap__exit(int status);

extern "C" void __wrap__exit(int status) {
  __gcov_dump();
  __real__exit(status);
}
