// What can go wrong between a client and the daemon, as values.
#pragma once

#include <string>
#include <string_view>
#include <tl/expected.hpp>

namespace velder_client {

enum class ErrorKind {
  kInvalidAddress,       // the HOST:PORT text cannot be read
  kCannotResolve,        // the name service knows no address for the host
  kRefused,              // the machine answers, nothing listens on the port
  kUnreachable,          // no way to the machine, or a firewall says no
  kConnectTimeout,       // no connection within the time-out
  kConnectAborted,       // reset or undecided: the daemon's queue is full; only start_connect and
                         // finish_connect report it, Connection tries again until its time-out
  kNotOpen,              // call on a connection that an earlier error closed
  kClosedWithoutAnswer,  // the daemon closed before the first byte of an answer. It does so with a request
                         // that it cannot read
  kClosedMidAnswer,      // the connection ended within an answer: also when its send buffer was full
  kAnswerTimeout,        // the request was not taken or not answered in time
  kMalformedAnswer,      // wrong type, impossible length, bytes beyond the frame, a body that does not parse
  kInvalidRequest,       // required fields missing, or larger than the daemon takes; nothing was sent
  kLocalFailure,         // this machine's fault: no descriptors, no free port, no memory
};

struct Error {
  ErrorKind kind;
  std::string text;  // one line for a human, without the kind's name and without a final dot
};

template <class T>
using Result = tl::expected<T, Error>;

tl::unexpected<Error> fail(ErrorKind kind, std::string text);

// `what`, a colon and the text of `error_number`.
std::string system_text(std::string_view what, int error_number);

}  // namespace velder_client
