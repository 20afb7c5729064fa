// Servers that answer every frame with filler and do nothing else: what is left of a request when the work is
// taken away.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "daemonbase/UniqueFd.h"

namespace bench {

// The frames that are sent, made beforehand; one for each type of request.
class EchoAnswers {
 public:
  explicit EchoAnswers(size_t answer_bytes);

  // Null when the type is none.
  const std::string* to(int32_t request_type) const;

 private:
  std::vector<std::string> frames_;
};

struct EchoClient {
  UniqueFd fd;
  std::string gathered;
};

// Takes what has come and answers when the frame is whole. False when the connection is over.
bool serve(EchoClient& client, const EchoAnswers& answers);

// Accepts without waiting; null when there is nobody. Ends the program when accepting is out of the question.
std::unique_ptr<EchoClient> accept_client(int listener);

[[noreturn]] void die(const char* what);

// As fast as the machine allows: two threads, an epoll set each, connections to them in turns.
[[noreturn]] void run_fast(int listener, const EchoAnswers& answers);

// Every descriptor handed over between threads as the daemon's event loop is described, in as many processes
// and threads as the daemon has.
[[noreturn]] void run_told(int listener, const EchoAnswers& answers);

}  // namespace bench
