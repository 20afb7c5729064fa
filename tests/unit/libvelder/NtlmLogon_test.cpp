// Whole exchanges through the library's face, with the real mechanism on both sides.
#include <sys/stat.h>

#include "tests/unit/libvelder/GssPeer.h"
#include "tests/unit/libvelder/SampleDirectory.h"

namespace {

// The NT hash of "password", and of "second".
constexpr char kHash[] = "8846f7eaee8fb117ad06bdd830b7586c";
constexpr char kSecondHash[] = "58D567FB78E63B605AF73BFDCB4BC86E";

std::string user(const std::string& dn, const std::string& uid, const std::string& more = "") {
  return "dn: " + dn + "\nobjectClass: user\ncn: " + uid + "\nsAMAccountName: " + uid + "\n" + more + "\n";
}

class NtlmLogonTest : public SampleDirectory {
 protected:
  void SetUp() override {
    SampleDirectory::SetUp();
    const std::string hash = std::string("sambaNTPassword: ") + kHash + "\n";
    write("directory.ldif",
          "version: 1\n\n" +
              user("cn=Alice,dc=corp,dc=test", "alice", "userPrincipalName: al@corp.test\n" + hash) +
              user("cn=Zoe,dc=corp,dc=test", "Zo\xc3\xab", hash) +
              user("cn=Bob,dc=corp,dc=test", "bob", hash) + user("cn=Bob,dc=lab,dc=test", "bob", hash) +
              user("cn=Gone,dc=corp,dc=test", "gone", "userAccountControl: 514\n" + hash) +
              user("cn=Nohash,dc=lab,dc=test", "nohash"));
    write("LdapSetting.ini",
          "[Domain_1]\nDnsName=lab.test\nNetbiosName=LAB-NET\n[LDAP_Setting]\nSource=ldif\n");
  }

  static std::string message1(LdapModule& module, std::string token) {
    char out[2048];
    int length = sizeof out;
    if (module.validate_ntlm_message("192.0.2.1", token.data(), static_cast<int>(token.size()), out,
                                     length) != 1) {
      return "";
    }
    return std::string(out, static_cast<size_t>(length));
  }
  // "code:output"
  static std::string message3(LdapModule& module, std::string token, int capacity = 2048) {
    std::string out(2048, '\0');
    int length = capacity;
    const int code = module.validate_ntlm_message("192.0.2.1", token.data(), static_cast<int>(token.size()),
                                                  out.data(), length);
    return std::to_string(code) + ":" + out.substr(0, static_cast<size_t>(length));
  }
  static std::string log_on(const std::string& name, const std::string& password, OM_uint32 flags = 0) {
    const NtlmUser client(name, password);
    GssPeer peer = GssPeer::ntlm(client, flags);
    LdapModule module;
    const auto answer = peer.next(message1(module, peer.next().value_or("")));
    return answer ? message3(module, *answer) : "no answer to the challenge";
  }
};

TEST_F(NtlmLogonTest, TheDirectorySaysWhoAHashProves) {
  ASSERT_EQ(initialize(), 0);
  const struct {
    const char* name;
    const char* expected;  // with the right password
  } kRows[] = {
      {"corp\\zO\xc3\x8b", "0:CORP\\Zo\xc3\xab"},
      {"LAB-NET\\bob", "0:LAB-NET\\bob"},
      {"LAB\\bob", "-1:"},
      {"CORP\\gone", "-1:"},
      {"bob", "-1:"},  // two domains have one
  };
  for (const auto& row : kRows) {
    for (const OM_uint32 flags : {OM_uint32{0}, OM_uint32{GSS_C_INTEG_FLAG | GSS_C_CONF_FLAG}}) {
      EXPECT_EQ(log_on(row.name, "password", flags), row.expected) << row.name;
    }
    EXPECT_EQ(log_on(row.name, "Password"), "-1:") << row.name;
  }
}

TEST_F(NtlmLogonTest, AChallengeAnswersForOneMessage3) {
  ASSERT_EQ(initialize(), 0);
  const NtlmUser client("CORP\\alice", "password");
  GssPeer peer = GssPeer::ntlm(client);
  LdapModule module, another;
  const std::string type1 = peer.next().value_or("");
  const std::string answer = peer.next(message1(module, type1)).value_or("");
  EXPECT_EQ(message3(another, answer), "-1:") << "without a message 1";
  EXPECT_EQ(message3(module, answer, 9), "-1:") << "CORP\\alice takes one byte more than there is room";
  EXPECT_EQ(message3(module, answer), "-1:");
  EXPECT_EQ(message1(module, type1), "") << "an exchange that is over does not begin again";
}

TEST_F(NtlmLogonTest, LengthsAreJudgedBeforeTheTokenAndEndTheExchange) {
  ASSERT_EQ(initialize(), 0);
  char nothing = 0;
  char out[16];
  for (const int length : {3072, 1 << 30, 0, -1, -3072}) {
    LdapModule module;
    int out_length = sizeof out;
    EXPECT_EQ(module.validate_ntlm_message("192.0.2.1", &nothing, length, out, out_length), -1) << length;
    EXPECT_EQ(out_length, 0) << length;
  }
  const NtlmUser client("CORP\\alice", "password");
  GssPeer peer = GssPeer::ntlm(client);
  LdapModule module;
  const auto answer = peer.next(message1(module, peer.next().value_or("")));
  int out_length = sizeof out;
  EXPECT_EQ(module.validate_ntlm_message("192.0.2.1", &nothing, 3072, out, out_length), -1);
  EXPECT_EQ(message3(module, answer.value_or("")), "-1:");
}

TEST_F(NtlmLogonTest, TheUsersFileSuppliesWhatTheDirectoryLacks) {
  write("LdapSetting.ini", "[NTLM]\nUserFile=users\n");
  const auto place = [&](const std::string& text, mode_t mode = 0600) {
    write("users", text);
    chmod(path("users").c_str(), mode);
  };
  EXPECT_NE(initialize(), 0) << "missing";
  place("LAB:nohash:second\n", 0644);
  EXPECT_NE(initialize(), 0) << "everybody may read it";
  for (const char* broken : {"nohash\n", "LAB:nohash:\n", "nohash:0:X:short:\n", "nohash:0:X:Y\n"}) {
    place(broken);
    EXPECT_NE(initialize(), 0) << broken;
  }
  const std::string hash = kSecondHash;
  const std::string rest = ":[U          ]:LCT-00000000:\n";
  const struct {
    std::string line;
    const char* expected;
  } kRows[] = {
      {"# nohash\n\nLAB:NOHASH:second\r\n", "0:LAB\\nohash"},
      {"lab.test:nohash:second", "0:LAB\\nohash"},
      {"CORP:nohash:second\n", "-1:"},
      {"nohash:0:" + std::string(32, 'X') + ":" + hash + rest, "0:LAB\\nohash"},
      {"lab\\nohash:0:" + std::string(32, 'X') + ":" + hash + rest, "0:LAB\\nohash"},
      {"CORP\\nohash:0:X:" + hash + rest + "LAB:nohash:second\n", "0:LAB\\nohash"},
      {"nohash:0:X:" + hash + ":[UD         ]:LCT-0:\n", "-1:"},
      {"nohash:0:X:" + std::string(32, 'X') + rest, "-1:"},
      {"LAB:stranger:second\n", "-1:"},
  };
  place("LAB:stranger:second\n");
  ASSERT_EQ(initialize(), 0);
  for (const auto& row : kRows) {
    place(row.line);  // noticed without a reload
    EXPECT_EQ(log_on("LAB\\nohash", "second"), row.expected) << row.line;
    EXPECT_EQ(log_on("LAB\\nohash", "first"), "-1:") << row.line;
    EXPECT_EQ(log_on("LAB\\stranger", "second"), "-1:") << "unknown to the directory";
  }
  place("LAB:nohash:second\n");
  EXPECT_EQ(log_on("LAB\\nohash", "second"), "0:LAB\\nohash");
  place("broken\n");
  EXPECT_EQ(log_on("LAB\\nohash", "second"), "0:LAB\\nohash") << "the users as they were stay in use";
}

}  // namespace
