#include "bench/Echo.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <span>

#include "bench/EchoAnswer.h"
#include "client/Frame.h"
#include "handler/Velder.pb.h"

namespace bench {

using velder_client::kHeaderBytes;

EchoAnswers::EchoAnswers(size_t answer_bytes) {
  for (int type = Velder::MessageType_MIN; type <= Velder::MessageType_MAX; ++type) {
    frames_.push_back(echo_answer(type, answer_bytes));
  }
}

const std::string* EchoAnswers::to(int32_t request_type) const {
  const auto index = static_cast<size_t>(request_type - Velder::MessageType_MIN);
  return index < frames_.size() ? &frames_[index] : nullptr;
}

namespace {

bool answer_if_complete(EchoClient& client, const EchoAnswers& answers) {
  if (client.gathered.size() < kHeaderBytes) return true;
  const auto header = velder_client::decode_header(std::span(client.gathered).first<kHeaderBytes>());
  if (header.body_length < 0) return false;
  if (client.gathered.size() < kHeaderBytes + static_cast<size_t>(header.body_length)) return true;
  client.gathered.clear();
  const std::string* answer = answers.to(header.type);
  return answer != nullptr && send(client.fd.get(), answer->data(), answer->size(), MSG_NOSIGNAL) ==
                                  static_cast<ssize_t>(answer->size());
}

}  // namespace

bool serve(EchoClient& client, const EchoAnswers& answers) {
  std::array<char, 4096> buffer;
  const ssize_t got = recv(client.fd.get(), buffer.data(), buffer.size(), 0);
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) return true;
  if (got < 1) return false;
  client.gathered.append(buffer.data(), static_cast<size_t>(got));
  return answer_if_complete(client, answers);
}

std::unique_ptr<EchoClient> accept_client(int listener) {
  UniqueFd fd(accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!fd.valid()) {
    if (errno != EINTR && errno != ECONNABORTED && errno != EAGAIN) die("echo_server: accept");
    return nullptr;
  }
  const int on = 1;
  setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  auto client = std::make_unique<EchoClient>();
  client->fd = std::move(fd);
  return client;
}

void die(const char* what) {
  std::perror(what);
  std::exit(1);
}

}  // namespace bench
