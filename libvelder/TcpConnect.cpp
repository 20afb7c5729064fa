#include "libvelder/TcpConnect.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <system_error>
#include <vector>

#include "libvelder/BackgroundThread.h"
#include "libvelder/LdapModule.h"
#include "libvelder/LongWaits.h"

namespace velder {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Name servers that do not answer hold a look-up far longer than a connection may take, and a look-up cannot
// be interrupted. So it has a thread of its own, which is left behind; this many may be left at a time.
constexpr uint32_t kMostLookups = 32;

struct Address {
  sockaddr_storage storage{};
  socklen_t length = 0;
};

struct Lookup {
  std::mutex mutex;
  std::condition_variable ended;
  bool done = false;
  int code = EAI_AGAIN;
  std::vector<Address> addresses;
};

tl::unexpected<Error> down(std::string text) {
  return tl::unexpected(Error{kDirectoryServerDown, std::move(text)});
}

int look_up(const std::string& host, uint16_t port, int flags, std::vector<Address>& addresses) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags | AI_NUMERICSERV;
  addrinfo* list = nullptr;
  const int code = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list);
  if (code != 0) return code;
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(list, freeaddrinfo);
  for (const addrinfo* one = list; one != nullptr; one = one->ai_next) {
    Address& address = addresses.emplace_back();
    std::memcpy(&address.storage, one->ai_addr, one->ai_addrlen);
    address.length = one->ai_addrlen;
  }
  return 0;
}

ProcessCount g_lookups;  // under way

Result<std::vector<Address>> look_up_in_time(const std::string& host, uint16_t port, Deadline deadline) {
  if (!g_lookups.add(kMostLookups)) return down("too many look-ups of host names are waiting for an answer");
  auto lookup = std::make_shared<Lookup>();
  const bool started = start_background_thread([lookup, host, port] {
    std::vector<Address> addresses;
    const int code = look_up(host, port, 0, addresses);
    g_lookups.subtract();
    const std::lock_guard lock(lookup->mutex);
    lookup->code = code;
    lookup->addresses = std::move(addresses);
    lookup->done = true;
    lookup->ended.notify_all();
  });
  if (!started) {
    g_lookups.subtract();
    return down("no thread to look up the host name");
  }
  std::unique_lock lock(lookup->mutex);
  if (!lookup->ended.wait_until(lock, deadline, [&] { return lookup->done; }))
    return down("the host name was not resolved in time");
  if (lookup->code != 0)
    return down(std::string("the host name is not known: ") + gai_strerror(lookup->code));
  return std::move(lookup->addresses);
}

Result<std::vector<Address>> resolve(const std::string& host, uint16_t port, Deadline deadline) {
  std::vector<Address> addresses;
  if (look_up(host, port, AI_NUMERICHOST, addresses) == 0) return addresses;
  return look_up_in_time(host, port, deadline);
}

void set_number(int fd, int level, int option, int value) {
  // Only makes a dead peer noticed earlier: without it the connection works as well.
  static_cast<void>(setsockopt(fd, level, option, &value, sizeof value));
}

void set_options(int fd, milliseconds unacknowledged) {
  set_number(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
  set_number(fd, IPPROTO_TCP, TCP_KEEPIDLE, 30);
  set_number(fd, IPPROTO_TCP, TCP_KEEPINTVL, 10);
  set_number(fd, IPPROTO_TCP, TCP_KEEPCNT, 3);
  set_number(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, static_cast<int>(unacknowledged.count()));
  set_number(fd, IPPROTO_TCP, TCP_NODELAY, 1);
}

// 0 or an errno.
int wait_connected(int fd, Deadline deadline) {
  pollfd wanted{fd, POLLOUT, 0};
  int ready = 0;
  do {
    ready = poll(&wanted, 1, milliseconds_until(deadline));
  } while (ready < 0 && errno == EINTR);
  if (ready < 0) return errno;
  if (ready == 0) return ETIMEDOUT;
  int result = 0;
  socklen_t size = sizeof result;
  return getsockopt(fd, SOL_SOCKET, SO_ERROR, &result, &size) == 0 ? result : errno;
}

// 0 or an errno.
int connect_address(const Address& address, Deadline deadline, milliseconds unacknowledged,
                    FileHandle& socket_out) {
  FileHandle handle(socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (handle.get() < 0) return errno;
  set_options(handle.get(), unacknowledged);
  int failure = 0;
  if (connect(handle.get(), reinterpret_cast<const sockaddr*>(&address.storage), address.length) != 0)
    failure = errno == EINPROGRESS || errno == EINTR ? wait_connected(handle.get(), deadline) : errno;
  if (failure == 0) socket_out = std::move(handle);
  return failure;
}

}  // namespace

int milliseconds_until(Deadline deadline) {
  const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now()).count();
  return static_cast<int>(std::clamp<decltype(left)>(left, 0, 3'600'000));
}

FileHandle::~FileHandle() {
  if (fd_ >= 0) close(fd_);
}

Result<FileHandle> connect_tcp(const std::string& host, uint16_t port, Deadline deadline,
                               milliseconds unacknowledged, bool& resolved) {
  const auto addresses = resolve(host, port, deadline);
  if (!addresses) return tl::unexpected(addresses.error());
  resolved = true;
  int failure = EADDRNOTAVAIL;
  for (size_t i = 0; i < addresses->size(); ++i) {
    const auto now = steady_clock::now();
    const auto share = (deadline - now) / static_cast<int>(addresses->size() - i);
    FileHandle handle;
    failure = connect_address((*addresses)[i], now + share, unacknowledged, handle);
    if (failure == 0) return handle;
  }
  if (failure == ETIMEDOUT) return down("not connected in time");
  return down("not connected: " + std::system_category().message(failure));
}

}  // namespace velder
