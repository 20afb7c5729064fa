#include "client/RawFrames.h"

#include <google/protobuf/message.h>
#include <google/protobuf/stubs/logging.h>
#include <netinet/tcp.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace velder_client {
namespace {

// Small answers, which are nearly all, take one receive call.
constexpr size_t kReceiveBytes = 65536;
// A buffer that one huge answer grew is given back rather than kept for the connection's life.
constexpr size_t kKeptBytes = size_t{1} << 20;

Error connect_error(int error_number, const SocketAddress& address) {
  const auto with = [&](ErrorKind kind) {
    return Error{kind, system_text("cannot connect to " + address.text(), error_number)};
  };
  switch (error_number) {
    case ECONNREFUSED: return with(ErrorKind::kRefused);
    case ETIMEDOUT: return with(ErrorKind::kConnectTimeout);
    case ECONNRESET:
    case ECONNABORTED: return with(ErrorKind::kConnectAborted);
    case EMFILE:
    case ENFILE:
    case ENOMEM:
    case ENOBUFS:
    case EAGAIN:
    case EADDRNOTAVAIL: return with(ErrorKind::kLocalFailure);
    default: return with(ErrorKind::kUnreachable);
  }
}

}  // namespace

void wipe(std::string& text) {
  text.resize(text.capacity());
  explicit_bzero(text.data(), text.size());
  text.clear();
}

Result<void> encode_request(int32_t type, const google::protobuf::Message& request, std::string& out) {
  if (!request.IsInitialized()) {
    return fail(ErrorKind::kInvalidRequest,
                "the request lacks required fields: " + request.InitializationErrorString());
  }
  const size_t body_bytes = request.ByteSizeLong();
  if (body_bytes > kMaxRequestBody) {
    return fail(ErrorKind::kInvalidRequest, "a request of " + std::to_string(body_bytes) +
                                                " bytes is longer than the daemon takes (" +
                                                std::to_string(kMaxRequestBody) + ")");
  }
  std::string grown;
  if (out.capacity() - out.size() < kHeaderBytes + body_bytes) {
    grown.reserve(2 * out.size() + kHeaderBytes + body_bytes);
    grown = out;
    out.swap(grown);
    wipe(grown);
  }
  const auto header = encode_header({static_cast<int32_t>(body_bytes), type});
  out.append(header.data(), header.size());
  const size_t body_at = out.size();
  out.resize(body_at + body_bytes);
  // A debug build of the generated code complains about text that is not UTF-8, which a password may be.
  const google::protobuf::LogSilencer silencer;
  if (!request.SerializePartialToArray(out.data() + body_at, static_cast<int>(body_bytes))) {
    out.resize(body_at - header.size());
    return fail(ErrorKind::kInvalidRequest, "the request cannot be encoded");
  }
  return {};
}

Result<void> parse_answer(std::string_view body, google::protobuf::Message& answer) {
  const google::protobuf::LogSilencer silencer;
  if (!answer.ParsePartialFromArray(body.data(), static_cast<int>(body.size()))) {
    return fail(ErrorKind::kMalformedAnswer,
                "malformed answer: the body does not parse as " + answer.GetDescriptor()->name());
  }
  if (!answer.IsInitialized()) {
    return fail(ErrorKind::kMalformedAnswer,
                "malformed answer: required fields are missing: " + answer.InitializationErrorString());
  }
  return {};
}

Result<UniqueFd> start_connect(const SocketAddress& address) {
  const auto* raw = reinterpret_cast<const sockaddr*>(&address.storage);
  UniqueFd fd(socket(raw->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd.valid()) return tl::make_unexpected(connect_error(errno, address));
  const int on = 1;
  // Without it a request waits for the acknowledgement of the one before. Slower is no reason to fail.
  (void)setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  // An interrupted connect goes on in the background like one in progress.
  if (connect(fd.get(), raw, address.length) != 0 && errno != EINPROGRESS && errno != EINTR) {
    return tl::make_unexpected(connect_error(errno, address));
  }
  return fd;
}

Result<void> finish_connect(int fd, const SocketAddress& address) {
  int error_number = 0;
  socklen_t length = sizeof(error_number);
  if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error_number, &length) != 0) error_number = errno;
  if (error_number != 0) return tl::make_unexpected(connect_error(error_number, address));
  return {};
}

Result<FrameReader::Progress> FrameReader::receive(int fd) {
  std::array<char, kReceiveBytes> buffer;  // filled by recv before it is read
  for (;;) {
    const ssize_t got = recv(fd, buffer.data(), buffer.size(), 0);
    if (got > 0) {
      Result<Progress> progress = feed({buffer.data(), static_cast<size_t>(got)});
      if (!progress || *progress == Progress::kComplete) return progress;
      continue;
    }
    const int error_number = got < 0 ? errno : 0;
    if (error_number == EINTR) continue;
    if (error_number == EAGAIN || error_number == EWOULDBLOCK) return Progress::kWait;
    const std::string reason = error_number == 0 ? "" : system_text("", error_number);
    if (gathered_.empty()) {
      return fail(ErrorKind::kClosedWithoutAnswer,
                  "the daemon closed the connection without an answer" + reason);
    }
    return fail(ErrorKind::kClosedMidAnswer, "the connection was closed in the middle of an answer, after " +
                                                 std::to_string(gathered_.size()) + " bytes" + reason);
  }
}

Result<FrameReader::Progress> FrameReader::feed(std::string_view bytes) {
  gathered_.append(bytes);
  return judge();
}

Result<FrameReader::Progress> FrameReader::judge() const {
  if (gathered_.size() < kHeaderBytes) return Progress::kWait;
  const Header header = decode_header(std::span(gathered_).first<kHeaderBytes>());
  if (header.body_length < 0 || static_cast<size_t>(header.body_length) > max_body_) {
    return fail(ErrorKind::kMalformedAnswer,
                "malformed answer: a body of " + std::to_string(header.body_length) + " bytes is announced");
  }
  const size_t whole = kHeaderBytes + static_cast<size_t>(header.body_length);
  if (gathered_.size() < whole) return Progress::kWait;
  if (gathered_.size() > whole) {
    return fail(ErrorKind::kMalformedAnswer,
                "malformed answer: " + std::to_string(gathered_.size() - whole) + " bytes follow the answer");
  }
  return Progress::kComplete;
}

int32_t FrameReader::type() const {
  return decode_header(std::span(gathered_).first<kHeaderBytes>()).type;
}

std::string_view FrameReader::body() const {
  return std::string_view(gathered_).substr(kHeaderBytes);
}

void FrameReader::clear() {
  gathered_.clear();
  if (gathered_.capacity() > kKeptBytes) gathered_.shrink_to_fit();
}

}  // namespace velder_client
