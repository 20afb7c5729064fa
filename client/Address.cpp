#include "client/Address.h"

#include <netdb.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>

namespace velder_client {
namespace {

Result<uint16_t> parse_port(std::string_view digits, std::string_view whole) {
  unsigned value = 0;
  const char* end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, value);
  if (error != std::errc() || stop != end || value < 1 || value > 65535) {
    return fail(ErrorKind::kInvalidAddress,
                "'" + std::string(whole) + "' is no server address: the port is a number from 1 to 65535");
  }
  return static_cast<uint16_t>(value);
}

}  // namespace

Result<Server> parse_server(std::string_view text) {
  std::string_view host = text;
  std::string_view rest;  // what follows the host: nothing, or a colon and the port
  if (text.starts_with('[')) {
    const size_t bracket = text.find(']');
    if (bracket == std::string_view::npos) {
      return fail(ErrorKind::kInvalidAddress,
                  "'" + std::string(text) + "' is no server address: ']' is missing");
    }
    host = text.substr(1, bracket - 1);
    rest = text.substr(bracket + 1);
  } else if (const size_t colon = text.find(':');
             colon != std::string_view::npos && colon == text.rfind(':')) {
    // A second colon would make it a bare IPv6 address, which has no room for a port.
    host = text.substr(0, colon);
    rest = text.substr(colon);
  }
  // A NUL inside would cut the name that the resolver sees.
  if (host.empty() || host.find('\0') != std::string_view::npos || (!rest.empty() && rest[0] != ':')) {
    return fail(ErrorKind::kInvalidAddress,
                "'" + std::string(text) + "' is no server address: expected HOST:PORT or [IPV6]:PORT");
  }
  Server server{std::string(host), kDefaultPort};
  if (!rest.empty()) {
    const Result<uint16_t> port = parse_port(rest.substr(1), text);
    if (!port) return tl::make_unexpected(port.error());
    server.port = *port;
  }
  return server;
}

std::string SocketAddress::text() const {
  char host[NI_MAXHOST];
  char port[NI_MAXSERV];
  const int code = getnameinfo(reinterpret_cast<const sockaddr*>(&storage), length, host, sizeof(host), port,
                               sizeof(port), NI_NUMERICHOST | NI_NUMERICSERV);
  if (code != 0) return "an unprintable address";
  if (storage.ss_family == AF_INET6) return "[" + std::string(host) + "]:" + port;
  return std::string(host) + ":" + port;
}

Result<std::vector<SocketAddress>> resolve(const Server& server) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* list = nullptr;
  const int code = getaddrinfo(server.host.c_str(), std::to_string(server.port).c_str(), &hints, &list);
  const int saved_errno = errno;
  if (code != 0) {
    const char* reason = code == EAI_SYSTEM ? std::strerror(saved_errno) : gai_strerror(code);
    return fail(ErrorKind::kCannotResolve, "cannot resolve " + server.host + ": " + reason);
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(list, freeaddrinfo);
  std::vector<SocketAddress> addresses;
  for (const addrinfo* item = list; item != nullptr; item = item->ai_next) {
    if (item->ai_addrlen > sizeof(sockaddr_storage)) continue;
    SocketAddress& address = addresses.emplace_back();
    std::memcpy(&address.storage, item->ai_addr, item->ai_addrlen);
    address.length = item->ai_addrlen;
  }
  if (addresses.empty()) {
    return fail(ErrorKind::kCannotResolve, "cannot resolve " + server.host + ": no usable address");
  }
  return addresses;
}

}  // namespace velder_client
