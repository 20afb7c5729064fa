// fill_bindings WORKDIR COUNT USERS: binds COUNT addresses, 10.0.0.0 and up, to make_ldif's users in the
// store of WORKDIR, while no daemon has it open. A million over the wire would take longer than the
// measurement.
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string_view>

#include "bench/Subject.h"
#include "libtorrin/IPUserCacheModule.h"

namespace {

std::optional<uint32_t> read_count(std::string_view text) {
  constexpr uint32_t kMost = 1U << 24U;  // the addresses that start with 10
  uint32_t count = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  if (error != std::errc() || end != text.data() + text.size() || count < 1 || count > kMost)
    return std::nullopt;
  return count;
}

int fill(const char* workdir, uint32_t count, uint32_t users) {
  IPUserCacheModule bindings;
  if (const int result = bindings.initialize(workdir); result != kCacheSuccess) return result;
  for (uint32_t index = 0; index < count; ++index) {
    const bench::Subject subject(index, users);
    const int result = bindings.update_cache_item(subject.bound_ip.c_str(), subject.user_ln);
    if (result != kCacheSuccess) return result;
  }
  return kCacheSuccess;
}

}  // namespace

int main(int argc, char** argv) {
  const std::optional<uint32_t> count = argc == 4 ? read_count(argv[2]) : std::nullopt;
  const std::optional<uint32_t> users = argc == 4 ? read_count(argv[3]) : std::nullopt;
  if (!count || !users) {
    std::fputs("usage: fill_bindings WORKDIR COUNT USERS (each at most 16777216)\n", stderr);
    return 2;
  }
  const int result = fill(argv[1], *count, *users);
  if (result == kCacheSuccess) return 0;
  std::fprintf(stderr, "fill_bindings: the store answered %d\n", result);
  return 1;
}
