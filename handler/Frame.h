// The frame of the TCP protocol: an 8-byte header (body length without the header, MessageType; both
// signed 32-bit integers in host order, which is little-endian) and a Protocol Buffers body.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace google::protobuf {
class Message;
}

constexpr size_t kHeaderBytes = 8;
// A frame that announces more is dropped while it is incomplete: it would be kept in memory until then.
constexpr int32_t kMaxBodyBytes = 10485760;

struct FrameHeader {
  int32_t body_length;
  int32_t type;
};
static_assert(sizeof(FrameHeader) == kHeaderBytes);

// `bytes` holds at least kHeaderBytes.
FrameHeader read_header(std::string_view bytes);

// Fills the first kHeaderBytes of `frame`, behind which the whole body lies.
void write_header(int type, std::string& frame);

// Replaces `out` by the frame of `msg`, all of whose required fields are set. Always 0.
int message2buffer(int type, const google::protobuf::Message* msg, std::string& out);

// Judges what was gathered for one frame; `received` is the number of bytes (header included) or the
// result of the last receive call. 1 when the frame may be processed, 0 after a log line otherwise.
int message_integrity_check(const char* buffer, int received);

// Overwrites the text, which may have held a password, and what stood in a small buffer before it; empties
// it.
void wipe(std::string& text);

enum class GatherResult {
  kComplete,  // the frame is whole
  kWait,      // nothing more to read now
  kClose,     // the peer closed, failed or sent what cannot be served; logged where there is something to say
};

enum class TypeCheck { kRefuseInvalid, kIgnore };

// Receives from a non-blocking socket through `buffer`, appending to `gathered`, until the frame at its
// beginning is whole or nothing more comes. Nothing of it stays elsewhere: it may be a password.
GatherResult gather_frame(int fd, std::span<char> buffer, TypeCheck check, std::string& gathered);
