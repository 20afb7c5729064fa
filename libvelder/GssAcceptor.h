// The acceptor's side of NTLM and Kerberos through GSSAPI. No decisions here: tokens go in, tokens, names and
// the mechanism's reasons come out. What a message may look like is checked before (NtlmMessage), who is let
// in is decided after (NtlmLogon, NegotiateLogon).
//
// One acceptor credential serves the whole process, each exchange has a context of its own. Credentials are
// made at the first call, so an acceptor that was made before a fork and not called holds nothing.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "libvelder/Error.h"
#include "libvelder/NtHash.h"
#include "libvelder/Settings.h"

namespace velder {

// A security context, freed with its owner.
class GssContext {
 public:
  GssContext() = default;
  ~GssContext();
  GssContext(const GssContext&) = delete;
  GssContext& operator=(const GssContext&) = delete;

  void reset();

 private:
  friend class GssAcceptor;
  void* handle_ = nullptr;  // gss_ctx_id_t
};

enum class GssOutcome {
  kProven,
  kAnotherLeg,  // the peer is to answer `token`
  kRefused,
  kNoAcceptor,  // our own fault: no mechanism, no keytab, no memory; `reason` has it
};

struct GssAnswer {
  GssOutcome outcome = GssOutcome::kNoAcceptor;
  std::string token;       // for the peer; also a refusal may have one
  std::string name;        // of the peer when it is proven
  std::string sid;         // of the user whom winbind has proven
  bool anonymous = false;  // proven to be nobody
  bool damaged = false;    // refused for its form, not for what it proves
  bool denied = false;     // refused by who was asked for the proof
  std::string reason;      // of a refusal, for the log: one line, to be made printable
};

class GssAcceptor {
 public:
  // `workdir` is where the replay cache lies.
  GssAcceptor(const Settings& settings, const std::string& workdir);
  ~GssAcceptor();
  GssAcceptor(const GssAcceptor&) = delete;
  GssAcceptor& operator=(const GssAcceptor&) = delete;

  const Settings& settings() const { return settings_; }
  // Null when none is configured.
  NtlmUsersFile* users_file() const { return users_file_.get(); }
  bool accepts_negotiate() const { return !settings_.negotiate_keytab.empty(); }

  // Answers a message 1 with the challenge.
  GssAnswer ntlm_challenge(GssContext& context, std::string_view type1);

  // Has the mechanism check a message 3 against a hash that only we know. `user` is the name in the message.
  GssAnswer ntlm_verify(GssContext& context, std::string_view type3, std::string_view user,
                        const Secret& nt_hash);
  // Has it ask winbind.
  GssAnswer ntlm_ask_winbind(GssContext& context, std::string_view type3);

  // One token of Kerberos, bare or inside SPNEGO. No context is left.
  GssAnswer negotiate(std::string_view token);

 private:
  struct Credentials;

  const Settings settings_;
  const std::string workdir_;
  const std::unique_ptr<NtlmUsersFile> users_file_;
  const std::unique_ptr<Credentials> credentials_;
};

// To be called once, before there are threads: changing the environment is not safe beside them. Sets the
// variables that the NTLM mechanism reads at each call: the names in the challenge and what is refused. An
// empty `netbios_domain` leaves the names to winbind: a domain controller lets nobody in whose challenge was
// given under another name than that of the member that asks it. Loads the mechanism, if it is installed.
void prepare_ntlm(std::string_view netbios_domain);
// Whether each challenge asks winbind for the names.
bool ntlm_challenge_asks_winbind();

// Whether the files that the settings name can be used; the error names the file and what was expected.
Result<void> check_acceptor_files(const Settings& settings);

}  // namespace velder
