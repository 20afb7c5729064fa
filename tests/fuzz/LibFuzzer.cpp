// The target that libFuzzer runs is named by AUTHD_FUZZ_TARGET: one program for all of them links once.
#include <cstdio>
#include <cstdlib>

#include "Fuzz.h"

static fuzz::Body g_target = nullptr;

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  const char* name = getenv("AUTHD_FUZZ_TARGET");
  g_target = name == nullptr ? nullptr : fuzz::find_target(name);
  if (g_target == nullptr) {
    fprintf(stderr, "AUTHD_FUZZ_TARGET=%s names no target\n", name == nullptr ? "" : name);
    exit(2);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  g_target({reinterpret_cast<const char*>(data), size});
  return 0;
}
