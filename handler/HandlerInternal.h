// What the request handlers share with each other and with nobody else.
#pragma once

#include <google/protobuf/message.h>
#include <unistd.h>

#include <list>
#include <string>
#include <string_view>

#include "event/Event.h"
#include "handler/EventHandler.h"
#include "handler/Frame.h"
#include "handler/QuickWork.h"
#include "handler/Reply.h"
#include "handler/Velder.pb.h"
#include "wrapper/LdapWrapper.h"

// What becomes of a connection after its request.
enum class Outcome {
  kKeep,        // answered: read the next request
  kClose,       // close it
  kHandedOver,  // somebody else registers or closes it, or already did
};

// A complete request frame. The body is all that was gathered after the header, not cut at the header's
// length.
struct Frame {
  int fd;
  int type;
  std::string bytes;

  [[nodiscard]] std::string_view body() const { return std::string_view(bytes).substr(kHeaderBytes); }
};

// One-shot registration. The last thing that a callback does: another thread may serve `fd` at once.
inline void wait_for(int fd, short events, event_callback callback, void* arg) {
  event ev;
  event_set(&ev, fd, events, callback, arg);
  if (callback == tcp_read_socket_handler) event_set_quick(&ev);
  event_add(&ev, 0);
}

// The last thing that is done with a connection that is not waited for.
inline void close_connection(int fd) {
  event_closing(fd);
  close(fd);
}

// False after a log line when the body does not parse or lacks a required field.
bool parse_request(const Frame& frame, google::protobuf::Message* request);

// Answers with the response type of the frame's request (request type plus one).
Outcome reply(const Frame& frame, const google::protobuf::Message& response);

// The same with a response that is serialised: `answer` is kHeaderBytes of room, then the body.
Outcome reply_encoded(const Frame& frame, std::string& answer);

// Wipes a text of a request, as `text` gives it, when the handler leaves, whatever became of the request.
template <class Request>
class WipeAtEnd {
 public:
  WipeAtEnd(Request& request, std::string* (Request::*text)()) : request_(request), text_(text) {}
  ~WipeAtEnd() { wipe(*(request_.*text_)()); }
  WipeAtEnd(const WipeAtEnd&) = delete;
  WipeAtEnd& operator=(const WipeAtEnd&) = delete;

 private:
  Request& request_;
  std::string* (Request::*text_)();
};

// A text from the wire for a call that takes a NUL-terminated one: with a NUL inside it would name
// somebody else, so it becomes the empty text, which names nobody.
inline const char* whole_text(const std::string& text) {
  return text.find('\0') == std::string::npos ? text.c_str() : "";
}

extern QuickWork g_user_look_ups;  // around the calls of all requests that look one user up

// Appends what the directory knows of one user in serialised form, as a message field: a hundred small
// objects less for a user with a dozen groups. Attributes and groups are those of one snapshot when it has
// the user; two calls could find a reload between them, and then the groups of another who has the name now.
// Otherwise the groups are asked for when the user was found or `groups_anyway`; the code is that of both
// calls. What is known of a user who was not found is the name.
int encode_user(int field, const std::string& user, bool groups_anyway, std::string& encoded);
void append_user_info(int field, const std::string& user_ln, const KnownUser& user, std::string& encoded);

// Takes the texts out of what it is given.
void fill_groups(std::list<GroupMeta>& groups,
                 google::protobuf::RepeatedPtrField<Velder::GroupInfo>* group_list);

// The request handlers, by family.
Outcome handle_user_search(Frame& frame);
Outcome handle_group_search(Frame& frame);
Outcome handle_user_groups(Frame& frame);
Outcome handle_user_validate(Frame& frame);
Outcome handle_user_info(Frame& frame);
Outcome handle_group_groups(Frame& frame);
Outcome handle_all_users(Frame& frame);

Outcome handle_ip_bind(Frame& frame);
Outcome handle_ip_unbind(Frame& frame);
Outcome handle_ip_query(Frame& frame);
Outcome handle_ip_export(Frame& frame);
Outcome handle_ip_auth(Frame& frame);

Outcome handle_negotiate(Frame& frame);
Outcome start_ntlm_exchange(Frame& frame);
