// One connection to the daemon and the blocking call on it.
//
// The daemon serves a connection's requests strictly one after the other and keeps the connection open
// between them, so one Connection serves one thread at a time; several threads take one each.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "client/Address.h"
#include "client/Error.h"
#include "client/Frame.h"
#include "client/RawFrames.h"
#include "daemonbase/UniqueFd.h"

namespace velder_client {

struct Options {
  std::chrono::milliseconds connect_timeout{5000};  // for all addresses of the server together
  std::chrono::milliseconds call_timeout{
      30000};  // from the first byte of a request to the last of its answer
  size_t max_answer_body = kMaxAnswerBody;
  // A refused connection normally fails at once. A program that has just started the daemon waits for it.
  bool wait_for_listener = false;
};

class Connection {
 public:
  using Deadline = std::chrono::steady_clock::time_point;

  // Connects to HOST:PORT (see parse_server), trying every address of the host within the time-out.
  static Result<Connection> open(std::string_view server, const Options& options = {});
  static Result<Connection> open(const std::vector<SocketAddress>& addresses, const Options& options = {});

  // Takes over a connected, non-blocking socket.
  Connection(UniqueFd fd, const Options& options);

  // Sends one request and reads its one answer into `answer`. kInvalidRequest leaves the connection usable;
  // every other error closes it, because an answer may still be under way. The encoded request is wiped.
  Result<void> call(int32_t type, const google::protobuf::Message& request,
                    google::protobuf::Message& answer);

  struct RawAnswer {
    int32_t type;
    std::string_view body;  // valid until the next call on this connection
  };
  // The two halves of call(), without any judgement of what is sent and of the answer's type. An error
  // closes the connection.
  Result<void> send_bytes(std::string_view bytes, Deadline deadline);
  Result<RawAnswer> receive_frame(Deadline deadline);

  Deadline call_deadline() const { return std::chrono::steady_clock::now() + options_.call_timeout; }
  bool is_open() const { return fd_.valid(); }
  int fd() const { return fd_.get(); }
  void close() { fd_.reset(); }

 private:
  tl::unexpected<Error> close_with(Error error);

  UniqueFd fd_;
  Options options_;
  FrameReader reader_;
};

}  // namespace velder_client
