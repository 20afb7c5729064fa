// A TCP connection within a time limit, the search for the host's addresses included.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>

#include "libvelder/Error.h"

namespace velder {

using Deadline = std::chrono::steady_clock::time_point;

// Milliseconds left for poll(): at least 0, rounded up.
int milliseconds_until(Deadline deadline);

// Owns one descriptor.
class FileHandle {
 public:
  FileHandle() = default;
  explicit FileHandle(int fd) : fd_(fd) {}
  FileHandle(FileHandle&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  FileHandle& operator=(FileHandle&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~FileHandle();

  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
};

// A connected socket: non-blocking, closed on exec, with keep-alive; data that the peer does not acknowledge
// for `unacknowledged` ends the connection. `host` is a name or an address (IPv6 without brackets). Every
// address of the host gets its share of the time that is left. `resolved` is set once there are addresses.
// Errors: 81. Any thread.
Result<FileHandle> connect_tcp(const std::string& host, uint16_t port, Deadline deadline,
                               std::chrono::milliseconds unacknowledged, bool& resolved);

}  // namespace velder
