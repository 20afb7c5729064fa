#include "handler/Frame.h"

#include <google/protobuf/message.h>
#include <sys/socket.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>

#include "brellog/VrLog.h"
#include "event/Event.h"
#include "handler/Velder.pb.h"

static_assert(std::endian::native == std::endian::little, "headers travel as they lie in memory");

namespace {

// Receives that nearly every frame is complete after, or that find nothing more.
constexpr int kQuickRounds = 2;

constexpr size_t kSmallBuffer = 4096;  // a page

enum class FrameState { kHeaderMissing, kIncomplete, kComplete };

// The comparison is signed: a negative length makes any frame complete.
FrameState state_of(const std::string& gathered) {
  if (gathered.size() < kHeaderBytes) return FrameState::kHeaderMissing;
  const auto body_bytes = static_cast<int64_t>(gathered.size() - kHeaderBytes);
  return body_bytes >= read_header(gathered).body_length ? FrameState::kComplete : FrameState::kIncomplete;
}

// A text that becomes too small is wiped before its buffer is given back.
void append(std::string_view bytes, std::string& gathered) {
  if (gathered.capacity() - gathered.size() < bytes.size()) {
    std::string grown;
    grown.reserve(std::max(2 * gathered.capacity(), gathered.size() + bytes.size()));
    grown += gathered;
    gathered.swap(grown);
    wipe(grown);
  }
  gathered += bytes;
}

GatherResult after_failed_receive(ssize_t result) {
  if (result == 0) {
    VRLOG(kLogDebug, "client close connection socket");
    return GatherResult::kClose;
  }
  if (errno != EAGAIN) return GatherResult::kClose;
  VRLOG(kLogDebug, "Info: need more data to continue");
  return GatherResult::kWait;
}

}  // namespace

FrameHeader read_header(std::string_view bytes) {
  FrameHeader header;
  memcpy(&header, bytes.data(), sizeof(header));
  return header;
}

void write_header(int type, std::string& frame) {
  const FrameHeader header{static_cast<int32_t>(frame.size() - kHeaderBytes), type};
  memcpy(frame.data(), &header, kHeaderBytes);
}

int message2buffer(int type, const google::protobuf::Message* msg, std::string& out) {
  const size_t body_bytes = msg->ByteSizeLong();
  out.resize(kHeaderBytes + body_bytes);
  write_header(type, out);
  msg->SerializeWithCachedSizesToArray(reinterpret_cast<uint8_t*>(out.data() + kHeaderBytes));
  return 0;
}

int message_integrity_check(const char* buffer, int received) {
  if (received == -1) {
    VRLOG(kLogError, "recv message error(%s)", strerror(errno));
    return 0;
  }
  if (received == 0) {
    VRLOG(kLogDebug, "client close connection socket");
    return 0;
  }
  if (received < static_cast<int>(kHeaderBytes)) {
    VRLOG(kLogError, "recv message len(%d) is less header ", received);
    return 0;
  }
  const FrameHeader header = read_header({buffer, kHeaderBytes});
  if (header.body_length > received) {
    VRLOG(kLogError, "recv message len(%d) is less than it in header(%d)", received, header.body_length);
    return 0;
  }
  if (!Velder::MessageType_IsValid(header.type)) {
    VRLOG(kLogError, "recv message type(%d) is invalid", header.type);
    return 0;
  }
  return 1;
}

void wipe(std::string& text) {
  // A longer text may have stood there before. What was never used of a large buffer has no memory yet.
  if (text.capacity() <= kSmallBuffer) text.resize(text.capacity());
  explicit_bzero(text.data(), text.size());
  text.clear();
}

GatherResult gather_frame(int fd, std::span<char> buffer, TypeCheck check, std::string& gathered) {
  for (int round = 0;; ++round) {
    // A client that sends as fast as we read must not keep the others waiting.
    if (round == kQuickRounds) event_release_lead();
    const ssize_t received = recv(fd, buffer.data(), buffer.size() - 1, 0);
    if (received < 1) return after_failed_receive(received);
    append({buffer.data(), static_cast<size_t>(received)}, gathered);
    explicit_bzero(buffer.data(), static_cast<size_t>(received));

    const FrameState state = state_of(gathered);
    if (state == FrameState::kHeaderMissing) continue;
    const FrameHeader header = read_header(gathered);
    if (check == TypeCheck::kRefuseInvalid && !Velder::MessageType_IsValid(header.type)) {
      VRLOG(kLogInfo, "Message type [%d] is invalid.", header.type);
      return GatherResult::kClose;
    }
    if (state == FrameState::kComplete) return GatherResult::kComplete;
    if (header.body_length > kMaxBodyBytes) {
      VRLOG(kLogInfo, "Error: receive message is too big, discard it");
      return GatherResult::kClose;
    }
  }
}
