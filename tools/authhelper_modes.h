// What a request of the proxy means: one question, sometimes two, to the daemon, and the reply made of the
// answer.
//
// In all modes a request that the daemon did not answer is kBroken. kRefused is said only when the daemon
// said no, or when no daemon is needed to know it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "handler/Velder.pb.h"
#include "tools/authhelper_link.h"
#include "tools/authhelper_protocol.h"

namespace authhelper {

// For one thread at a time.
class Responder {
 public:
  virtual ~Responder() = default;
  // `fields` as parse_helper_line gave them for the responder's mode, without a fault.
  virtual Reply respond(const std::vector<std::string>& fields) = 0;
};

struct ModeSettings {
  Mode mode = Mode::kBasic;
  bool strip_realm = false;  // negotiate only
};

// What the responders of all threads of a helper share.
struct Shared {
  LinkSettings link;
  Complaints& complaints;
  Backoff backoff;
  LostUsers lost_users;
};

std::unique_ptr<Responder> make_responder(const ModeSettings& settings, Shared& shared);

// Whether one of fields[1..] names one of the groups, by cn or DN, compared as the directory compares.
bool names_one_of(const std::vector<std::string>& fields,
                  const google::protobuf::RepeatedPtrField<Velder::GroupInfo>& groups);

}  // namespace authhelper
