// The Negotiate request: one token in, one token out. The proxy carries an exchange of several legs; no
// state is kept here between requests.
#include "brellog/VrLog.h"
#include "handler/HandlerInternal.h"

Outcome handle_negotiate(Frame& frame) {
  Velder::NEGOAuthRequest request;
  const WipeAtEnd wiped(request, &Velder::NEGOAuthRequest::mutable_requestcontent);
  if (!parse_request(frame, &request)) return Outcome::kClose;

  std::string clientinfo;
  std::string returnmsg;
  bool neednego = false;
  Velder::NEGOAuthResponse response;
  response.set_result(LdapWrapper::validate_negotiate_message(request.requestcontent().c_str(), clientinfo,
                                                              returnmsg, neednego));
  // Both are texts and end at a zero byte.
  response.set_clientinfo(clientinfo.c_str());
  response.set_returnmsg(returnmsg.c_str());
  response.set_neednego(neednego);
  VRLOG(kLogDebug, "messge_type(%d), negotiate auth, rc(%d)", frame.type, response.result());  // sic
  return reply(frame, response);
}
