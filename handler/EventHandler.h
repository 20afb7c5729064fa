// The network front of a worker: accepts connections, gathers request frames and routes them.
//
// A connection carries one request at a time and stays open until its peer closes it or sends what cannot
// be served; there is no time-out.
#pragma once

#include <string>

// What was received of a frame that is not yet whole; the argument of the connection's next read wait.
struct client_request {
  std::string data;
};

// Read callback of the listening socket, which is registered as persistent; `arg` is not used.
void tcp_listen_socket_handler(int listen_fd, short events, void* arg);

// Read callback of a client socket; `arg` is null or the connection's client_request, owned by the callback.
void tcp_read_socket_handler(int fd, short events, void* arg);
