// What a load run asks and what it must be answered, byte by byte, whatever the protocol.
//
// The directory behind the daemon is the one that `make_ldif USERS GROUPS` writes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "client/Error.h"

namespace bench {

enum class Protocol { kDaemon, kEcho, kMemcached, kRedis, kLdap };

enum class RequestKind {
  kUserInfo,     // a user's names and groups; LDAP: search; elsewhere: get of a value of the same size
  kValidate,     // a right password; LDAP: simple bind; daemon and echo else
  kBind,         // address to user; elsewhere: set of the same key and value
  kIpQueryHit,   // who is behind a bound address; elsewhere: get of a value of the same size
  kIpQueryMiss,  // the same for an address that nobody bound; elsewhere: get of an unknown key
};

struct Share {
  RequestKind kind;
  unsigned weight;
};

struct WorkloadSettings {
  Protocol protocol = Protocol::kDaemon;
  std::string server;
  std::vector<Share> shares;
  uint32_t keys = 1000;     // different questions of each kind
  uint32_t step = 1;        // from one key to the next: spreads them over more addresses
  uint32_t users = 2000;    // in the directory
  size_t answer_bytes = 0;  // whole answers of the echo server; answers to get
};

struct Exchange {
  std::string request;
  std::string answer;
};

struct Workload {
  std::vector<Exchange> exchanges;
  std::vector<uint32_t> schedule;  // indices of exchanges, drawn by weight; to be gone through in a circle

  double mean_answer_bytes() const;
};

// Builds the exchanges and brings the server into the state that they need (bindings, stored values).
// The daemon's answers are learnt by asking each question once; each is parsed and must be about the one
// asked for. From then on any other byte is a wrong answer.
velder_client::Result<Workload> prepare_workload(const WorkloadSettings& settings);

}  // namespace bench
