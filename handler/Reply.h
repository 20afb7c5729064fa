// Sending responses, at once or, for those that can be long, as the socket takes them.
#pragma once

#include <string>

#include "event/Event.h"

namespace google::protobuf {
class Message;
}

// A response under way and what to register when its last byte is out. Owned by send_data_handler.
struct SendDataTask {
  int fd;
  std::string data;  // the whole frame
  int sent;          // bytes of it that the socket took
  short events;
  event_callback callback;
  void* arg;
};

// Frames and sends a response in one go. The frame's size, or -1 when the socket did not take all of it;
// the caller then closes the connection.
int reply_request(int fd, int type, const google::protobuf::Message* response);

// The same for a frame that is whole.
int reply_request(int fd, const std::string& frame);

// Write callback of a connection with a pending SendDataTask; handlers call it directly the first time.
void send_data_handler(int fd, short events, void* task);
