// A directory server that answers exactly what a test says, for everything that a good server never does.
#pragma once

#include <ldap.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace fake {

// The encoding (BER) of what goes over the wire; every length in the long form.
inline std::string bytes_of(size_t number) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(number >> shift);
  return bytes;
}
inline std::string tlv(int tag, std::string_view content) {
  const char head[] = {static_cast<char>(tag), '\x84'};
  return (std::string(head, 2) + bytes_of(content.size())).append(content);
}
inline std::string number(int value, int tag = 0x02) {
  return tlv(tag, bytes_of(static_cast<size_t>(value)));
}
inline std::string text(std::string_view value) {
  return tlv(0x04, value);
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
  std::string body;  // all of it

  bool holds(std::string_view bytes) const { return body.find(bytes) != std::string::npos; }
};

// One connection, as the server sees it.
class Peer {
 public:
  explicit Peer(int fd) : fd_(fd) {}

  bool send(std::string_view bytes) {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }

  // Nothing when the client is gone.
  std::optional<Request> receive() {
    std::string header, more, body;
    if (!read(2, header)) return {};
    size_t length = static_cast<unsigned char>(header[1]);
    if (length >= 128) {
      if (!read(length & 127, more)) return {};
      length = 0;
      for (const char c : more) length = length << 8 | static_cast<unsigned char>(c);
    }
    if (!read(length, body)) return {};
    return parse(body);
  }

  // Until the client goes away.
  void do_nothing() {
    std::string ignored;
    while (read(4096, ignored)) {
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
        id,  static_cast<int>(operation), {dn.bv_val, dn.bv_len}, {password.bv_val, password.bv_len}, {},
        body};
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

  explicit Server(Serve serve) : serve_(std::move(serve)) {
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t size = sizeof address;
    bind(listener_, reinterpret_cast<sockaddr*>(&address), size);
    const int at_once = 1;  // handed on to each connection
    setsockopt(listener_, IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof at_once);
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
    for (const auto& [fd, thread] : served_) shutdown(fd, SHUT_RDWR);
    for (auto& [fd, thread] : served_) {
      thread.join();
      close(fd);
    }
    close(listener_);
  }

  std::string url(std::string_view scheme = "ldap") const {
    return std::string(scheme) + "://127.0.0.1:" + std::to_string(port_);
  }
  int connections() const { return connections_; }

 private:
  void accept_all() {
    for (int fd = -1; (fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
      ++connections_;
      served_.emplace_back(fd, std::thread([this, fd] {
                             Peer peer(fd);
                             serve_(peer);
                             shutdown(fd, SHUT_RDWR);
                           }));
    }
  }

  const Serve serve_;
  const int listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int port_ = 0;
  std::atomic<int> connections_{0};
  std::list<std::pair<int, std::thread>> served_;  // the acceptor's, then the destructor's
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

// The same for searches that bring one entry, unless it has no attributes, and end with `code`.
inline Server::Serve bringing(const std::string& dn, const std::vector<Attribute>& attributes, int code = 0) {
  return answering([=](Peer& peer, const Request& request) {
    if (!attributes.empty()) peer.send(entry(request.id, dn, attributes));
    peer.send(result(request.id, kSearchDone, code));
  });
}

// A small directory that can be made to misbehave. Entries are found by their DN or a value of theirs,
// exactly. It proves their passwords; whoever gives neither name nor password is let in, too. As others do
// with thousands, it hands out several values of an attribute one by one, in ranges.
class Directory {
 public:
  enum class Mood { kWell, kDisconnecting, kUnavailable };
  struct Entry {
    std::string dn;
    std::vector<Attribute> attributes;
  };

  explicit Directory(std::vector<Entry> entries) : entries_(std::move(entries)) {}
  std::string url() const { return server_.url(); }
  int connections() const { return server_.connections(); }
  int searches() const { return searches_; }
  int binds(const std::string& dn) {
    const std::lock_guard lock(mutex_);
    return binds_[dn];
  }
  void replace(std::vector<Entry> entries) {
    const std::lock_guard lock(mutex_);
    entries_ = std::move(entries);
  }
  std::atomic<Mood> mood = Mood::kWell;

 private:
  void serve(Peer& peer) {
    while (const auto request = peer.receive()) {
      const std::lock_guard lock(mutex_);
      if (request->operation == 0x60) ++binds_[request->dn];
      if (mood == Mood::kDisconnecting || request->operation == 0x42) return;
      if (request->operation == 0x60) peer.send(result(request->id, kBindResponse, judge(*request)));
      if (request->operation != 0x63) continue;
      ++searches_;
      for (const Entry& one : entries_)
        if (is_found(one, *request)) peer.send(entry(request->id, one.dn, in_ranges(one, *request)));
      peer.send(result(request->id, kSearchDone, 0));
    }
  }
  int judge(const Request& request) const {
    if (mood == Mood::kUnavailable) return 52;
    bool good = request.dn.empty() && request.password.empty();
    for (const Entry& one : entries_)
      for (const Attribute& attribute : one.attributes)
        good |= one.dn == request.dn && attribute.name == "userPassword" &&
                attribute.values[0] == request.password;
    return good ? 0 : 49;
  }
  static std::vector<Attribute> in_ranges(const Entry& one, const Request& request) {
    std::vector<Attribute> shown;
    for (const Attribute& attribute : one.attributes) {
      const std::string begin = attribute.name + ";range=";
      // Who asks for a range asks for nothing else.
      const bool more = !request.attributes.empty() &&
                        strncasecmp(request.attributes[0].c_str(), begin.c_str(), begin.size()) == 0;
      const size_t at = more ? std::stoul(request.attributes[0].substr(begin.size())) : 0;
      const bool last = at + 1 >= attribute.values.size();
      const std::string range = std::to_string(at) + "-" + (last ? "*" : std::to_string(at));
      if (!more) shown.push_back({attribute.name, last ? attribute.values : std::vector<std::string>()});
      if (more || !last) shown.push_back({begin + range, {attribute.values.at(at)}});
      if (more) return {shown.back()};
    }
    return shown;
  }
  static bool is_below(const std::string& dn, const std::string& base) {
    return dn.size() >= base.size() && strcasecmp(&dn[dn.size() - base.size()], base.c_str()) == 0;
  }
  static bool asks_for(const Request& request, const std::string& name, const std::string& value) {
    return request.holds(static_cast<char>(name.size()) + name + '\x04' + static_cast<char>(value.size()) +
                         value);
  }
  static bool is_found(const Entry& one, const Request& request) {
    // All below the base, for whoever asks for what any entry has, or for more attributes than a look-up
    // wants.
    bool found = request.dn == one.dn || asks_for(request, "entryDN", one.dn) ||
                 (is_below(one.dn, request.dn) &&
                  (request.holds("\x87\x0bobjectClass") || request.attributes.size() > 11));
    for (const Attribute& attribute : one.attributes)
      for (const std::string& value : attribute.values)
        found |= attribute.name != "objectClass" && asks_for(request, attribute.name, value);
    return found;
  }

  std::mutex mutex_;  // guards the two below
  std::vector<Entry> entries_;
  std::map<std::string, int> binds_;
  std::atomic<int> searches_{0};
  Server server_{[this](Peer& peer) { serve(peer); }};
};

}  // namespace fake
