// Single steps of a request, without the network and without other threads: micro --benchmark_filter=REGEX
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <span>
#include <string>
#include <vector>

#include "bench/Subject.h"
#include "brellog/VrLog.h"
#include "cache/Cache.h"
#include "handler/Base64.h"
#include "handler/Frame.h"
#include "handler/Velder.pb.h"
#include "libtorrin/IPUserCacheModule.h"
#include "libvelder/Base64.h"
#include "libvelder/Dn.h"
#include "libvelder/LdapModule.h"

namespace {

constexpr uint32_t kUsers = 20000;
constexpr uint32_t kSubjects = 1024;  // asked about in turns
constexpr int kGroups = 11;           // of make_ldif's average user, the primary one included
constexpr int kLifetime = 3600;
constexpr int kUserInfoType = Velder::USER_INFO_QUERY_RESPONSE;

// A working directory of our own with make_ldif's directory; removed in the end.
class WorkDirectory {
 public:
  bool make() {
    std::string pattern = (std::filesystem::temp_directory_path() / "micro.XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) return false;
    path_ = pattern;
    std::ofstream(path_ / "LdapSetting.ini") << "[LDAP_Setting]\nSource=ldif\n";
    VrLog::setConfig("micro.log", (path_.string() + "/").c_str());
    const auto make_ldif = std::filesystem::read_symlink("/proc/self/exe").replace_filename("make_ldif");
    const std::string command = "'" + make_ldif.string() + "' " + std::to_string(kUsers) + " 2000 > '" +
                                (path_ / "directory.ldif").string() + "'";
    return std::system(command.c_str()) == 0;
  }
  ~WorkDirectory() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  const char* c_str() const { return path_.c_str(); }

 private:
  std::filesystem::path path_;
};

IPUserCacheModule* g_bindings = nullptr;  // main's

const std::vector<bench::Subject>& subjects() {
  static const std::vector<bench::Subject> all = [] {
    std::vector<bench::Subject> made;
    for (uint32_t i = 0; i < kSubjects; ++i) made.emplace_back(i, kUsers);
    return made;
  }();
  return all;
}

// The next one on each call.
const bench::Subject& next_subject(uint32_t& turn) {
  return subjects()[turn++ % kSubjects];
}

Velder::UserInfoQueryResponse sample_reply() {
  Velder::UserInfoQueryResponse reply;
  reply.set_result(0);
  Velder::UserInfo& info = *reply.mutable_userinfo();
  info.set_user_ln("user0000007@corp.example");
  info.set_domain_dns("corp.example");
  info.set_uid("user0000007");
  info.set_cn("Hugo Baker 0000007");
  info.set_dn("CN=Hugo Baker 0000007,OU=Finance,OU=People,DC=corp,DC=example");
  info.set_upn("user0000007@corp.example");
  for (int i = 0; i < kGroups; ++i) {
    Velder::GroupInfo& group = *info.add_grouplist();
    group.set_cn("Production Group 0000347");
    group.set_dn("CN=Production Group 0000347,OU=Groups,DC=corp,DC=example");
  }
  return reply;
}

void EncodeReplyFrame(benchmark::State& state) {
  const Velder::UserInfoQueryResponse reply = sample_reply();
  std::string frame;
  while (state.KeepRunning()) benchmark::DoNotOptimize(message2buffer(kUserInfoType, &reply, frame));
}
BENCHMARK(EncodeReplyFrame);

void DecodeRequestFrame(benchmark::State& state) {
  Velder::UserInfoQueryRequest request;
  request.set_user_ln("user0000007@corp.example");
  std::string frame;
  message2buffer(Velder::USER_INFO_QUERY_REQUEST, &request, frame);
  while (state.KeepRunning()) {
    const FrameHeader header = read_header(frame);
    Velder::UserInfoQueryRequest parsed;
    if (!parsed.ParseFromArray(frame.data() + kHeaderBytes, header.body_length)) state.SkipWithError("bad");
    benchmark::DoNotOptimize(parsed);
  }
}
BENCHMARK(DecodeRequestFrame);

void fill_reply_cache() {
  Velder::reset_reply_cache();
  const Velder::UserInfoQueryResponse reply = sample_reply();
  for (const bench::Subject& subject : subjects()) {
    Velder::update_reply_cache(kUserInfoType, subject.user_ln.c_str(), &reply, kLifetime);
  }
}

void ReplyCacheHit(benchmark::State& state) {
  fill_reply_cache();
  std::string encoded;
  uint32_t turn = 0;
  while (state.KeepRunning()) {
    encoded.clear();
    if (Velder::search_reply_cache(kUserInfoType, next_subject(turn).user_ln.c_str(), encoded) != 0) {
      state.SkipWithError("a miss");
    }
  }
}
BENCHMARK(ReplyCacheHit);

void ReplyCacheHitAsMessage(benchmark::State& state) {
  fill_reply_cache();
  uint32_t turn = 0;
  while (state.KeepRunning()) {
    Velder::UserInfoQueryResponse reply;
    if (Velder::search_reply_cache(kUserInfoType, next_subject(turn).user_ln.c_str(), &reply) != 0) {
      state.SkipWithError("a miss");
    }
  }
}
BENCHMARK(ReplyCacheHitAsMessage);

void ReplyCacheStore(benchmark::State& state) {
  Velder::reset_reply_cache();
  const Velder::UserInfoQueryResponse reply = sample_reply();
  uint32_t turn = 0;
  while (state.KeepRunning()) {
    Velder::update_reply_cache(kUserInfoType, next_subject(turn).user_ln.c_str(), &reply, kLifetime);
  }
}
BENCHMARK(ReplyCacheStore);

const std::string kToken(1500, 'k');  // as long as a ticket of a big domain

void TokenToBase64(benchmark::State& state) {
  std::vector<char> text(kToken.size() * 2);
  while (state.KeepRunning()) {
    ToB64Enc(kToken.data(), static_cast<int>(kToken.size()), text.data(), static_cast<int>(text.size()));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(TokenToBase64);

void TokenFromBase64(benchmark::State& state) {
  const std::string text = velder::encode_base64(kToken);
  std::vector<char> bytes(kToken.size() + 1);
  while (state.KeepRunning()) {
    benchmark::DoNotOptimize(ToB64Dec(text.c_str(), bytes.data(), static_cast<int>(bytes.size())));
  }
}
BENCHMARK(TokenFromBase64);

void HashFromBase64(benchmark::State& state) {
  const std::string text = velder::encode_base64(std::string(24, 'h'));  // SHA-1 and a salt of four bytes
  std::string bytes;
  while (state.KeepRunning()) benchmark::DoNotOptimize(velder::decode_base64(text, bytes));
}
BENCHMARK(HashFromBase64);

constexpr const char* kDn = "CN=Hugo Baker 0000007,OU=Finance,OU=People,DC=corp,DC=example";

void ParseDn(benchmark::State& state) {
  while (state.KeepRunning()) benchmark::DoNotOptimize(velder::parse_dn(kDn));
}
BENCHMARK(ParseDn);

void NormalizeDn(benchmark::State& state) {
  while (state.KeepRunning()) benchmark::DoNotOptimize(velder::normalize_dn(kDn));
}
BENCHMARK(NormalizeDn);

void SnapshotUserInfo(benchmark::State& state) {
  std::string domain, uid, cn, dn, upn;
  uint32_t turn = 0;
  while (state.KeepRunning()) {
    if (LdapModule::get_user_info(next_subject(turn).user_ln, domain, uid, cn, dn, upn) != 0) {
      state.SkipWithError("no such user");
    }
  }
}
BENCHMARK(SnapshotUserInfo);

void SnapshotUserGroups(benchmark::State& state) {
  uint32_t turn = 0;
  while (state.KeepRunning()) {
    std::list<GroupMeta> groups;
    if (LdapModule::get_user_groups(next_subject(turn).user_ln, groups) != 0) state.SkipWithError("none");
  }
}
BENCHMARK(SnapshotUserGroups);

void SnapshotPassword(benchmark::State& state) {
  uint32_t turn = 0;
  while (state.KeepRunning()) {
    const bench::Subject& subject = next_subject(turn);
    if (!LdapModule::validate_credential(subject.user_ln.c_str(), subject.password.c_str(), nullptr)) {
      state.SkipWithError("refused");
    }
  }
}
BENCHMARK(SnapshotPassword);

void BindAddress(benchmark::State& state) {
  uint32_t turn = 0;
  while (state.KeepRunning()) {
    const bench::Subject& subject = next_subject(turn);
    if (g_bindings->update_cache_item(subject.bound_ip.c_str(), subject.user_ln) != 0)
      state.SkipWithError("bad");
  }
}
BENCHMARK(BindAddress);

void QueryAddress(benchmark::State& state) {
  for (const bench::Subject& subject : subjects()) {
    g_bindings->update_cache_item(subject.bound_ip.c_str(), subject.user_ln);
  }
  std::string user;
  long expire = 0;
  uint32_t turn = 0;
  while (state.KeepRunning()) {
    if (g_bindings->query_cache_item(next_subject(turn).bound_ip.c_str(), user, expire) != 0) {
      state.SkipWithError("not bound");
    }
  }
}
BENCHMARK(QueryAddress);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  WorkDirectory directory;
  IPUserCacheModule bindings;  // closed before its directory goes
  g_bindings = &bindings;
  if (!directory.make() || LdapModule::initialize(directory.c_str(), false) != 0 ||
      LdapModule::load_db_cache() != 0 || bindings.initialize(directory.c_str()) != 0) {
    std::cerr << "micro: no working directory\n";
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
