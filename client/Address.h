// Where the daemon listens: reading HOST:PORT and turning it into socket addresses.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "client/Error.h"

namespace velder_client {

constexpr uint16_t kDefaultPort = 1100;

struct Server {
  std::string host = "127.0.0.1";
  uint16_t port = kDefaultPort;

  bool operator==(const Server&) const = default;
};

// Reads "HOST", "HOST:PORT", "[IPV6]", "[IPV6]:PORT" or a bare IPv6 address; without a port, kDefaultPort.
Result<Server> parse_server(std::string_view text);

struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t length = 0;

  // "127.0.0.1:1100" or "[::1]:1100".
  std::string text() const;
};

// All stream addresses of the server, in the order in which the system prefers them; never an empty list.
// A host name may wait for the name service, whose time-outs are its own.
Result<std::vector<SocketAddress>> resolve(const Server& server);

}  // namespace velder_client
