// A directory server that answers exactly what a test says, for everything that a good server never does.
#pragma once

#include <arpa/inet.h>
#include <ldap.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace fake {

// The encoding (BER) of what goes over the wire.
inline std::string tlv(int tag, std::string_view content) {
  std::string out(1, static_cast<char>(tag));
  if (content.size() < 128) {
    out += static_cast<char>(content.size());
  } else {
    out += static_cast<char>(0x84);
    for (int shift = 24; shift >= 0; shift -= 8) out += static_cast<char>(content.size() >> shift);
  }
  return out.append(content);
}
inline std::string number(int value, int tag = 0x02) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift);
  return tlv(tag, bytes);
}
inline std::string text(std::string_view value, int tag = 0x04) {
  return tlv(tag, value);
}

struct Attribute {
  std::string name;
  std::vector<std::string> values;
};

inline std::string message(int id, std::string_view operation, std::string_view controls = {}) {
  return tlv(0x30, number(id) + std::string(operation) + (controls.empty() ? "" : tlv(0xa0, controls)));
}
inline std::string result(int id, int operation, int code, std::string_view diagnostic = {},
                          std::string_view controls = {}) {
  return message(id, tlv(operation, number(code, 0x0a) + text("") + text(diagnostic)), controls);
}
constexpr int kBindResponse = 0x61;
constexpr int kSearchDone = 0x65;
constexpr int kExtendedResponse = 0x78;

inline std::string entry(int id, std::string_view dn, const std::vector<Attribute>& attributes) {
  std::string list;
  for (const Attribute& one : attributes) {
    std::string values;
    for (const std::string& value : one.values) values += text(value);
    list += tlv(0x30, text(one.name) + tlv(0x31, values));
  }
  return message(id, tlv(0x64, text(dn) + tlv(0x30, list)));
}
inline std::string reference(int id) {
  return message(id, tlv(0x73, text("ldap://elsewhere.example.com/dc=x")));
}
inline std::string page_control(std::string_view cookie) {
  return tlv(0x30, text("1.2.840.113556.1.4.319") + text(tlv(0x30, number(0) + text(cookie))));
}

// What a client asked, as far as the tests look.
struct Request {
  int id = 0;
  int operation = 0;  // the tag: 0x60 bind, 0x63 search, 0x77 extended, 0x42 unbind
  std::string dn;     // of a bind or a search
  std::string password;
  std::vector<std::string> attributes;
};

// One connection, as the server sees it.
class Peer {
 public:
  explicit Peer(int fd) : fd_(fd) {}

  bool send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent <= 0) return false;
      bytes.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
  }

  // Nothing when the client is gone.
  std::optional<Request> receive() {
    std::string header;
    if (!read(2, header)) return {};
    size_t length = static_cast<unsigned char>(header[1]);
    if (length >= 128) {
      std::string more;
      if (!read(length & 127, more)) return {};
      length = 0;
      for (const char c : more) length = length << 8 | static_cast<unsigned char>(c);
    }
    std::string body;
    if (!read(length, body)) return {};
    return parse(body);
  }

  // Until the client goes away.
  void do_nothing() {
    char buffer[4096];
    while (recv(fd_, buffer, sizeof buffer, 0) > 0) {
    }
  }
  void never_read() {
    pollfd gone{fd_, POLLRDHUP, 0};
    poll(&gone, 1, -1);
  }

 private:
  bool read(size_t count, std::string& out) {
    out.resize(count);
    return count == 0 || recv(fd_, out.data(), count, MSG_WAITALL) == static_cast<ssize_t>(count);
  }

  static Request parse(const std::string& body) {
    berval bytes{body.size(), const_cast<char*>(body.data())};  // only read
    BerElement* ber = ber_init(&bytes);
    ber_tag_t operation = 0;
    ber_int_t id = 0, ignored = 0;
    berval dn{}, password{};
    char** attributes = nullptr;
    ber_scanf(ber, "it", &id, &operation);
    if (operation == LDAP_REQ_BIND) ber_scanf(ber, "{imm", &ignored, &dn, &password);
    if (operation == LDAP_REQ_SEARCH)
      ber_scanf(ber, "{meeiibx{v}", &dn, &ignored, &ignored, &ignored, &ignored, &ignored, &attributes);
    Request request{
        id, static_cast<int>(operation), {dn.bv_val, dn.bv_len}, {password.bv_val, password.bv_len}, {}};
    for (char** one = attributes; one != nullptr && *one != nullptr; ++one)
      request.attributes.emplace_back(*one);
    ber_memvfree(reinterpret_cast<void**>(attributes));
    ber_free(ber, 1);
    return request;
  }

  int fd_;
};

// Serves every connection in a thread of its own until it is destroyed.
class Server {
 public:
  using Serve = std::function<void(Peer&)>;

  explicit Server(Serve serve)
      : serve_(std::move(serve)), listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    bind(listener_, reinterpret_cast<sockaddr*>(&address), size);
    listen(listener_, 64);
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { accept_all(); });
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  ~Server() {
    shutdown(listener_, SHUT_RDWR);
    acceptor_.join();
    {
      const std::lock_guard lock(mutex_);
      for (const int fd : fds_) shutdown(fd, SHUT_RDWR);
    }
    for (std::thread& one : threads_) one.join();
    for (const int fd : fds_) close(fd);
    close(listener_);
  }

  std::string url(std::string_view scheme = "ldap") const {
    return std::string(scheme) + "://127.0.0.1:" + std::to_string(port_);
  }
  int connections() const { return connections_; }

 private:
  void accept_all() {
    for (;;) {
      const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) return;
      ++connections_;
      const int at_once = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof at_once);
      const std::lock_guard lock(mutex_);
      fds_.push_back(fd);
      threads_.emplace_back([this, fd] {
        Peer peer(fd);
        serve_(peer);
        shutdown(fd, SHUT_RDWR);
      });
    }
  }

  const Serve serve_;
  const int listener_;
  uint16_t port_ = 0;
  std::atomic<int> connections_{0};
  std::mutex mutex_;
  std::vector<int> fds_;
  std::vector<std::thread> threads_;
  std::thread acceptor_;
};

// Answers binds with success and hands searches to `search`, until the client goes away.
inline Server::Serve answering(std::function<void(Peer&, const Request&)> search) {
  return [search = std::move(search)](Peer& peer) {
    while (const auto request = peer.receive()) {
      if (request->operation == 0x60) peer.send(result(request->id, kBindResponse, 0));
      if (request->operation == 0x63) search(peer, *request);
      if (request->operation == 0x42) return;
    }
  };
}

// The same for searches that bring these entries and end with `code`.
inline Server::Serve bringing(std::vector<std::pair<std::string, std::vector<Attribute>>> entries,
                              int code = 0) {
  return answering([entries = std::move(entries), code](Peer& peer, const Request& request) {
    for (const auto& [dn, attributes] : entries) peer.send(entry(request.id, dn, attributes));
    peer.send(result(request.id, kSearchDone, code));
  });
}

}  // namespace fake
