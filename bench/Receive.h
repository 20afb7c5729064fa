// Receiving in lockstep, before the load: one question at a time, with patience.
#pragma once

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <string>

#include "client/Connection.h"

namespace bench {

constexpr int kPatienceMilliseconds = 5000;

// Adds what comes next to `got`. False when nothing comes any more.
inline bool receive_more(const velder_client::Connection& connection, std::string& got) {
  pollfd item{connection.fd(), POLLIN, 0};
  if (poll(&item, 1, kPatienceMilliseconds) < 1) return false;
  std::array<char, 4096> buffer;
  const ssize_t size = recv(connection.fd(), buffer.data(), buffer.size(), 0);
  if (size < 1) return false;
  got.append(buffer.data(), static_cast<size_t>(size));
  return true;
}

}  // namespace bench
