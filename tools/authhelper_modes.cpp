#include "tools/authhelper_modes.h"

#include <set>
#include <utility>

#include "client/RawFrames.h"
#include "libvelder/Dn.h"
#include "libvelder/Fold.h"

namespace authhelper {
namespace {

using Outcome = DaemonLink::Outcome;
using Repeat = DaemonLink::Repeat;

// Result codes that are a plain "no" and not a failure.
constexpr int kNoBinding = 1;
constexpr int kNoSuchUser = 32;

// The proxy may show these to whoever sits at the browser, so they tell nothing of the inside.
constexpr std::string_view kNoAnswer = "the authentication daemon did not answer";
constexpr std::string_view kUnusable = "the answer of the authentication daemon cannot be used";

Reply broken(std::string_view message = kNoAnswer) {
  return {Verdict::kBroken, {}, {}, message};
}

Reply refused(std::string_view message) {
  return {Verdict::kRefused, {}, {}, message};
}

class LinkedResponder : public Responder {
 public:
  explicit LinkedResponder(Shared& shared)
      : shared_(shared),
        complaints_(shared.complaints),
        link_(shared.link, shared.backoff, shared.complaints) {}

 protected:
  Reply failed_with(int result) {
    complaints_.tell(Topic::kUnknown, "the daemon answered with result " + std::to_string(result));
    return broken("the authentication daemon could not find out");
  }
  Reply unusable() {
    complaints_.tell(Topic::kBadAnswer, kUnusable);
    return broken(kUnusable);
  }

  // Whether the daemon answered.
  template <class Request, class Answer>
  bool ask(int32_t type, const Request& request, Answer& answer, Repeat repeat) {
    return link_.ask(type, request, answer, repeat) == Outcome::kAnswered;
  }

  Shared& shared_;
  Complaints& complaints_;
  DaemonLink link_;
};

class BasicResponder final : public LinkedResponder {
 public:
  using LinkedResponder::LinkedResponder;

  Reply respond(const std::vector<std::string>& fields) override {
    const std::string& user = fields[0];
    if (user.empty() || fields[1].empty()) return refused("user name or password is empty");
    if (shared_.lost_users.contains(user, LostUsers::Clock::now())) return broken();
    Velder::UserValidateRequest request;
    request.set_user_ln(user);
    // In a buffer of its final size at once; growing would leave pieces of the password behind.
    request.mutable_password()->reserve(fields[1].size());
    request.mutable_password()->assign(fields[1]);
    Velder::UserValidateResponse answer;
    const Outcome outcome = link_.ask(Velder::USER_VALIDATE_REQUEST, request, answer, Repeat::kNever);
    velder_client::wipe(*request.mutable_password());
    if (outcome == Outcome::kLost) shared_.lost_users.add(user, LostUsers::Clock::now());
    if (outcome != Outcome::kAnswered) return broken();
    if (answer.result() != 0) return refused("wrong user name or password");
    return {Verdict::kOk, name_in_directory(user), {}, {}};
  }

 private:
  // uid@domain, so that one person has one name however it was typed. The local snapshot and the daemon's
  // reply cache make it cheap; without it the password is still right.
  std::string name_in_directory(const std::string& user) {
    Velder::UserInfoQueryRequest request;
    request.set_user_ln(user);
    Velder::UserInfoQueryResponse answer;
    if (!ask(Velder::USER_INFO_QUERY_REQUEST, request, answer, Repeat::kOnce)) return {};
    const Velder::UserInfo& info = answer.userinfo();
    if (answer.result() != 0 || info.uid().empty()) return {};
    return info.domain_dns().empty() ? info.uid() : info.uid() + "@" + info.domain_dns();
  }
};

// The daemon keeps the challenge with the connection, so an exchange keeps its connection. Afterwards the
// next exchange may use it.
class NtlmResponder final : public LinkedResponder {
 public:
  using LinkedResponder::LinkedResponder;

  Reply respond(const std::vector<std::string>& fields) override {
    const std::string& command = fields[0];
    if (command == "YR") return begin(fields);
    if (command == "KK") return finish(fields);
    complaints_.tell(Topic::kBadLine, "a request that is neither YR nor KK");
    return broken("neither YR nor KK");
  }

 private:
  static bool has_token(const std::vector<std::string>& fields) {
    return fields.size() > 1 && is_base64(fields[1]);
  }

  // Leaves the exchange that the client has given up. The daemon waits for its second message on that
  // connection and takes nothing else.
  void abandon() {
    if (std::exchange(under_way_, false)) link_.close();
  }

  Reply begin(const std::vector<std::string>& fields) {
    abandon();
    if (!has_token(fields)) return refused("no NTLM message");
    Velder::NTLMAuthResponse answer;
    const Request request(1, fields);
    // Proves nothing yet, so it may be sent again.
    if (!ask(Velder::NTLM_AUTH_REQUEST, request.message, answer, Repeat::kOnce)) return broken();
    if (answer.result() != 0) return refused("the NTLM message was refused");
    under_way_ = true;
    if (!is_base64(answer.responsecontent())) {
      abandon();
      return unusable();
    }
    return {Verdict::kChallenge, {}, answer.responsecontent(), {}};
  }

  Reply finish(const std::vector<std::string>& fields) {
    if (!under_way_) return broken("no NTLM exchange is under way");
    if (!has_token(fields)) {
      abandon();
      return refused("no NTLM message");
    }
    under_way_ = false;
    Velder::NTLMAuthResponse answer;
    const Request request(2, fields);
    if (link_.ask_on_same(Velder::NTLM_AUTH_REQUEST, request.message, answer) != Outcome::kAnswered) {
      return broken();
    }
    if (answer.result() != 0) return refused("wrong user name or password");
    if (answer.responsecontent().empty()) return unusable();
    return {Verdict::kOk, answer.responsecontent(), {}, {}};
  }

  struct Request {
    Request(int number, const std::vector<std::string>& fields) {
      message.set_messagetype(number);
      message.set_clientip(std::string(client_address(fields)));
      message.set_requestcontent(fields[1]);
    }
    ~Request() { velder_client::wipe(*message.mutable_requestcontent()); }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    Velder::NTLMAuthRequest message;
  };

  bool under_way_ = false;
};

class NegotiateResponder final : public LinkedResponder {
 public:
  NegotiateResponder(bool strip_realm, Shared& shared) : LinkedResponder(shared), strip_realm_(strip_realm) {}

  Reply respond(const std::vector<std::string>& fields) override {
    if (fields[0] != "YR" && fields[0] != "KK") {
      complaints_.tell(Topic::kBadLine, "a request that is neither YR nor KK");
      return broken("neither YR nor KK");
    }
    if (fields.size() < 2 || !is_base64(fields[1])) return refused("no Negotiate token");
    note_ntlm(fields[1]);
    Velder::NEGOAuthRequest request;
    request.set_requestcontent(fields[1]);
    Velder::NEGOAuthResponse answer;
    const bool answered = ask(Velder::NEGO_AUTH_REQUEST, request, answer, Repeat::kNever);
    velder_client::wipe(*request.mutable_requestcontent());
    return answered ? judge(answer) : broken();
  }

 private:
  Reply judge(const Velder::NEGOAuthResponse& answer) {
    const std::string& token = answer.returnmsg();
    const bool has_token = !token.empty();
    if (has_token && !is_base64(token)) return unusable();
    if (answer.neednego() && has_token) return {Verdict::kChallenge, {}, token, {}};
    if (answer.result() != 0 || answer.neednego()) {
      Reply reply = refused("the Negotiate token was refused");
      if (has_token) reply.token = token;
      return reply;
    }
    const std::string_view principal = answer.clientinfo();
    const std::string_view user = strip_realm_ ? without_realm(principal) : principal;
    if (user.empty()) return unusable();
    // The proxy crashes on an OK without a token, and takes an empty one.
    return {Verdict::kOk, std::string(user), token, {}};
  }

  // What a browser without a ticket falls back to, and what administrators then look for.
  void note_ntlm(std::string_view token) {
    constexpr std::string_view kNtlmSignature = "TlRMTVNTUA";
    if (!token.starts_with(kNtlmSignature)) return;
    complaints_.tell(Topic::kWrongScheme,
                     "a client sent an NTLM message for Negotiate: it got no Kerberos ticket for this proxy");
  }

  const bool strip_realm_;
};

class IpUserResponder final : public LinkedResponder {
 public:
  using LinkedResponder::LinkedResponder;

  Reply respond(const std::vector<std::string>& fields) override {
    if (fields[0].empty() || fields[0] == "-") return refused("no address");
    Velder::IPUserQueryRequest request;
    request.set_ip(fields[0]);
    Velder::IPUserQueryResponse answer;
    if (!ask(Velder::IP_USER_QUERY_REQUEST, request, answer, Repeat::kOnce)) return broken();
    if (answer.result() == kNoBinding) return refused("nobody is bound to this address");
    if (answer.result() != 0) return failed_with(answer.result());
    const std::string& user = answer.userinfo().user_ln();
    if (user.empty()) return unusable();
    return {Verdict::kOk, user, {}, {}};
  }
};

class GroupResponder final : public LinkedResponder {
 public:
  using LinkedResponder::LinkedResponder;

  Reply respond(const std::vector<std::string>& fields) override {
    const std::string& user = fields[0];
    if (user.empty() || user == "-") return refused("no user");
    if (fields.size() < 2) {
      complaints_.tell(Topic::kBadLine, "a request without a group; does the acl name one?");
      return broken("no group is named");
    }
    Velder::UserGroupQueryRequest request;
    request.set_user_ln(user);
    Velder::UserGroupQueryResponse answer;
    if (!ask(Velder::USER_GROUP_QUERY_REQUEST, request, answer, Repeat::kOnce)) return broken();
    if (answer.result() == kNoSuchUser) return refused("the directory does not know the user");
    if (answer.result() != 0) return failed_with(answer.result());
    if (!names_one_of(fields, answer.grouplist())) return refused("in none of the groups");
    return {Verdict::kOk, {}, {}, {}};
  }
};

}  // namespace

std::unique_ptr<Responder> make_responder(const ModeSettings& settings, Shared& shared) {
  switch (settings.mode) {
    case Mode::kBasic: return std::make_unique<BasicResponder>(shared);
    case Mode::kNtlm: return std::make_unique<NtlmResponder>(shared);
    case Mode::kNegotiate: return std::make_unique<NegotiateResponder>(settings.strip_realm, shared);
    case Mode::kIpUser: return std::make_unique<IpUserResponder>(shared);
    case Mode::kGroup: break;
  }
  return std::make_unique<GroupResponder>(shared);
}

bool names_one_of(const std::vector<std::string>& fields,
                  const google::protobuf::RepeatedPtrField<Velder::GroupInfo>& groups) {
  std::set<std::string> names;
  std::set<std::string> dns;
  for (size_t i = 1; i < fields.size(); ++i) {
    names.insert(velder::fold_text(fields[i]));
    if (std::string dn = velder::normalize_dn(fields[i]); !dn.empty()) dns.insert(std::move(dn));
  }
  for (const Velder::GroupInfo& group : groups) {
    if (names.contains(velder::fold_text(group.cn()))) return true;
    if (!dns.empty() && dns.contains(velder::normalize_dn(group.dn()))) return true;
  }
  return false;
}

}  // namespace authhelper
