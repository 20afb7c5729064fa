// Whole exchanges through the library's face, with the real mechanism on both sides.
#include <sys/stat.h>

#include "tests/unit/libvelder/GssPeer.h"
#include "tests/unit/libvelder/SampleDirectory.h"

namespace {

// The NT hash of "password", and of "second".
constexpr char kHash[] = "8846f7eaee8fb117ad06bdd830b7586c";
constexpr char kSecondHash[] = "58D567FB78E63B605AF73BFDCB4BC86E";

class NtlmLogonTest : public SampleDirectory {
 protected:
  void SetUp() override {
    write("directory.ldif", ldif_of(std::string("cn=a,dc=corp,dc=test|user|cn: alice|sambaNTPassword: ") +
                                    kHash + "\ncn=n,dc=lab,dc=test|user|cn: nohash\n"));
  }

  // "code:output"; the token is not only read.
  static std::string say(LdapModule& module, std::string token, int capacity = 2048) {
    std::string out(2048, '\0');
    const int code = module.validate_ntlm_message("192.0.2.1", token.data(), static_cast<int>(token.size()),
                                                  out.data(), capacity);
    return std::to_string(code) + ":" + out.substr(0, static_cast<size_t>(capacity));
  }
  NtlmUser user(const std::string& name, const std::string& hash) const {
    write("client",
          name.substr(name.find('\\') + 1) + ":0:" + std::string(32, 'X') + ":" + hash + ":[U]:LCT-0:\n");
    return {name, path("client")};
  }
  std::string log_on(const std::string& name, const std::string& hash) const {
    const NtlmUser client = user(name, hash);
    GssPeer peer(client);
    LdapModule module;
    const std::string challenge = say(module, peer.next().value_or("")).substr(2);
    return say(module, peer.next(challenge).value_or(""));
  }
};

TEST_F(NtlmLogonTest, AChallengeAnswersForOneMessage3) {
  ASSERT_EQ(initialize(), 0);
  const NtlmUser client = user("CORP\\alice", kHash);
  for (const bool too_long : {false, true}) {
    GssPeer peer(client);
    LdapModule module, another;
    const std::string type1 = peer.next().value_or("");
    const std::string answer = peer.next(say(module, type1).substr(2)).value_or("");
    EXPECT_EQ(say(another, answer), "-1:") << "without a message 1";
    // Longer than any caller's buffer; and CORP\alice takes one byte more than there is room.
    EXPECT_EQ(too_long ? say(module, std::string(3072, 'x')) : say(module, answer, 9), "-1:");
    EXPECT_EQ(say(module, answer), "-1:") << "the exchange is over";
    EXPECT_EQ(say(module, type1), "-1:") << "and does not begin again";
  }
  char nothing = 0;
  for (const int length : {3072, 1 << 30, 0, -1}) {
    LdapModule module;
    int out_length = 1;
    EXPECT_EQ(module.validate_ntlm_message("192.0.2.1", &nothing, length, &nothing, out_length), -1)
        << length;
    EXPECT_EQ(out_length, 0) << length;
  }
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
  const std::string hash = std::string(":0:X:") + kSecondHash;
  const std::string rest = ":[U          ]:LCT-00000000:\n";
  const std::pair<std::string, const char*> kRows[] = {
      {"# nohash\n\nLAB:NOHASH:second\r\n", "0:LAB\\nohash"},
      {"lab.test:nohash:second", "0:LAB\\nohash"},
      {"CORP:nohash:second\n", "-1:"},
      {"lab\\nohash" + hash + rest, "0:LAB\\nohash"},
      {"nohash:0:X:" + std::string(kHash) + rest + "LAB:nohash:second\n", "0:LAB\\nohash"},
      {"nohash" + hash + ":[UD         ]:LCT-0:\n", "-1:"},
      {"nohash:0:X:" + std::string(32, 'X') + rest, "-1:"},
      {"LAB:stranger:second\nnohash" + hash + rest, "0:LAB\\nohash"},
      {"broken\n", "0:LAB\\nohash"},  // the users as they were stay in use
  };
  place("LAB:stranger:second\n");
  ASSERT_EQ(initialize(), 0);
  for (const auto& [line, expected] : kRows) {
    place(line);  // noticed without a reload
    EXPECT_EQ(log_on("LAB\\nohash", kSecondHash), expected) << line;
    EXPECT_EQ(log_on("LAB\\nohash", kHash), "-1:") << line;
    EXPECT_EQ(log_on("LAB\\stranger", kSecondHash), "-1:") << "unknown to the directory";
  }
}

}  // namespace
