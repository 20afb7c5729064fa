#include "handler/Reply.h"

#include <google/protobuf/message.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>

#include "brellog/VrLog.h"
#include "daemonbase/UniqueFd.h"
#include "handler/Frame.h"
#include "handler/HandlerInternal.h"

namespace {

// Every socket takes as much from the start.
constexpr size_t kShortReply = 16384;

// Of a socket's send buffer: what the system keeps for itself is not counted.
int room_of(int fd) {
  int bytes = 0;
  socklen_t length = sizeof(bytes);
  return getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, &length) == 0 ? bytes / 2 : INT_MAX;
}

// Lets the socket take the whole reply at once where the system allows it (net.core.wmem_max): of a search
// reply that it takes in pieces, the client may get a piece twice, and another reply fails. Over a network
// the buffer is small until much was sent. One that has grown by itself may be larger than what is allowed to
// be asked for, and would shrink: a socket of our own tells what that is.
void make_room(int fd, size_t bytes) {
  if (bytes <= kShortReply) return;
  const int wanted = static_cast<int>(std::min<size_t>(bytes, INT_MAX / 2));
  const int present = room_of(fd);
  if (present >= wanted) return;
  const UniqueFd trial(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!trial.valid()) return;
  setsockopt(trial.get(), SOL_SOCKET, SO_SNDBUF, &wanted, sizeof(wanted));
  if (room_of(trial.get()) > present) setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &wanted, sizeof(wanted));
}

enum class Progress {
  kWouldBlock,  // wait for the socket to take more
  kFinished,    // all is out
  kFailed,      // close
};

Progress send_some(SendDataTask& task) {
  const int size = static_cast<int>(task.data.size());
  // The start does not move while this call sends: after a short write a second one repeats from here, with
  // the shorter length. Only the next call begins behind what was sent.
  const char* const start = task.data.data() + task.sent;
  while (task.sent < size) {
    const ssize_t result = send(task.fd, start, static_cast<size_t>(size - task.sent), 0);
    if (result < 0 && errno == EAGAIN) return Progress::kWouldBlock;
    if (result < 1) {
      VRLOG(kLogInfo, "Error: fail to send data to client (%s)", strerror(errno));
      return Progress::kFailed;
    }
    task.sent += static_cast<int>(result);
    VRLOG(kLogDebug, "send_data_handler(): has sent to client %d bytes, total %d bytes", task.sent, size);
  }
  return Progress::kFinished;
}

}  // namespace

int reply_request(int fd, int type, const google::protobuf::Message* response) {
  std::string frame;
  message2buffer(type, response, frame);
  return reply_request(fd, frame);
}

int reply_request(int fd, const std::string& frame) {
  VRLOG(kLogDebug, "reply_request(): response message total size (%d)", static_cast<int>(frame.size()));
  make_room(fd, frame.size());
  size_t sent = 0;
  while (sent < frame.size()) {
    const ssize_t result = send(fd, frame.data() + sent, frame.size() - sent, 0);
    if (result < 1) {
      VRLOG(kLogInfo, "Error: fail to send response message to client (%s)", strerror(errno));
      return -1;
    }
    sent += static_cast<size_t>(result);
    VRLOG(kLogDebug, "reply_request(): has sent to client (%d) bytes", static_cast<int>(sent));
  }
  return static_cast<int>(frame.size());
}

// Runs when the client socket takes bytes again, or directly. `arg` is the pending reply, ours until we
// wait again or drop it. Leaves a write wait, the task's own registration, or a closed socket.
void send_data_handler(int fd, short /*events*/, void* arg) {
  VrLogContext::setCurrentThreadTag(fd);
  std::unique_ptr<SendDataTask> task(static_cast<SendDataTask*>(arg));
  if (task == nullptr) {
    VRLOG(kLogInfo, "Error: no data was specified to send.");
    close_connection(fd);
    return;
  }
  if (task->sent >= static_cast<int>(task->data.size())) {
    VRLOG(kLogInfo, "Error: the data has been sent, should not call again");
    close_connection(fd);
    return;
  }
  if (task->sent == 0) make_room(fd, task->data.size());
  switch (send_some(*task)) {
    case Progress::kWouldBlock: wait_for(fd, EVENT_WRITE, send_data_handler, task.release()); return;
    case Progress::kFinished: wait_for(fd, task->events, task->callback, task->arg); return;
    case Progress::kFailed: close_connection(fd); return;
  }
}
