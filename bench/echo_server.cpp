// Answers every frame with a filler of a fixed size, in one of two ways: see Echo.h.
#include <netinet/in.h>
#include <sys/socket.h>

#include <CLI/CLI.hpp>
#include <cstdio>

#include "bench/Echo.h"
#include "daemonbase/UniqueFd.h"

namespace {

using bench::die;

constexpr int kBacklog = 512;

UniqueFd listen_on(uint16_t port, bool nonblocking) {
  UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | (nonblocking ? SOCK_NONBLOCK : 0), 0));
  const int on = 1;
  setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  if (bind(fd.get(), raw, length) != 0 || listen(fd.get(), kBacklog) != 0) die("echo_server: listen");
  getsockname(fd.get(), raw, &length);
  std::printf("listening on %u\n", static_cast<unsigned>(ntohs(address.sin_port)));
  std::fflush(stdout);
  return fd;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Answers every frame with filler, on 127.0.0.1."};
  uint16_t port = 1101;
  size_t answer_bytes = 512;
  bool told = false;
  app.add_option("--port", port, "0: one that is free; it is printed");
  app.add_option("--answer-bytes", answer_bytes, "of a whole answer");
  app.add_flag("--told", told, "hand every descriptor over as the daemon's event loop is described");
  CLI11_PARSE(app, argc, argv);

  const bench::EchoAnswers answers(answer_bytes);
  const UniqueFd listener = listen_on(port, told);
  if (told) bench::run_told(listener.get(), answers);
  bench::run_fast(listener.get(), answers);
}
