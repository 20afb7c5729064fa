// The layer below Connection for programs with a loop of their own, such as a load generator: start a
// connection without waiting, encode a request, gather an answer from a non-blocking socket.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "client/Address.h"
#include "client/Error.h"
#include "client/Frame.h"
#include "daemonbase/UniqueFd.h"

namespace google::protobuf {
class Message;
}

namespace velder_client {

// Overwrites the text's whole buffer, then empties it: for whatever held a password.
void wipe(std::string& text);

// Appends the frame of `request` to `out`. kInvalidRequest leaves `out` as it was. The one buffer that grows
// is wiped before it is given back, because the request may hold a password; `out` is the caller's to wipe.
Result<void> encode_request(int32_t type, const google::protobuf::Message& request, std::string& out);

// Parses an answer's body and checks its required fields; nothing is printed whatever the bytes are.
Result<void> parse_answer(std::string_view body, google::protobuf::Message& answer);

// Opens a non-blocking, close-on-exec socket without Nagle's delay and starts to connect it. The socket is
// writable once the outcome is known; ask finish_connect then.
Result<UniqueFd> start_connect(const SocketAddress& address);
Result<void> finish_connect(int fd, const SocketAddress& address);

// Gathers one frame at a time. Not thread-safe.
class FrameReader {
 public:
  enum class Progress {
    kComplete,  // type() and body() hold the frame; clear() before the next one
    kWait,      // nothing more to read now
  };

  explicit FrameReader(size_t max_body = kMaxAnswerBody) : max_body_(max_body) {}

  // Receives from a non-blocking socket until the frame is whole or nothing more comes. Bytes beyond the
  // frame are an error: the daemon answers one request at a time. After an error the connection is of no use.
  Result<Progress> receive(int fd);

  // The same for bytes that came another way; `bytes` may be empty.
  Result<Progress> feed(std::string_view bytes);

  int32_t type() const;           // of a complete frame
  std::string_view body() const;  // of a complete frame; valid until clear(), receive() or feed()
  bool empty() const { return gathered_.empty(); }
  void clear();

 private:
  Result<Progress> judge() const;

  size_t max_body_;
  std::string gathered_;
};

}  // namespace velder_client
