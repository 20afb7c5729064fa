#include "daemonbase/BRELConfigFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>

#include "brellog/VrLog.h"
#include "tests/unit/Support.h"

namespace {

using support::read_file;
using support::write_file;

class ConfigFileTest : public testing::Test {
 protected:
  std::string ini(const std::string& text) {
    write_file(path_, text);
    return path_;
  }
  support::TempDir folder_;
  const std::string path_ = folder_.file("test.ini");
};

TEST_F(ConfigFileTest, SyntaxIsReadAsDescribed) {
  using namespace std::string_literals;
  const std::string long_text(5'000'000, 'v');
  const struct {
    std::string text;
    ConfigFile::SectionMap settings;
    std::string errors;  // the lines that were passed over, each with the first letter of the reason
  } rows[] = {
      {"", {}, ""},
      {"[s]\r\nk=v\r", {{"s", {{"k", "v"}}}}, ""},
      {"[s]\nk=v\r\r\n", {{"s", {{"k", "v\r"}}}}, ""},
      {"\xEF\xBB\xBF[s]\nk=v\n", {{"s", {{"k", "v"}}}}, ""},
      {"\n\xEF\xBB\xBF[s]\nk=v\n", {}, "2' 3n "},
      {"[s]\n \t k \t= \t v  \n", {{"s", {{"k", "v  "}}}}, ""},
      {"[s]\nk=\n=v\n", {{"s", {{"k", ""}, {"", "v"}}}}, ""},
      {"[s]\nk=a=b]\n", {{"s", {{"k", "a=b]"}}}}, ""},
      {"[s]\n  # k=v\n#x\nk#=#v # w\n", {{"s", {{"k#", "#v # w"}}}}, ""},
      {"[s]\nk x=v\n\nk]=v\nk\n", {}, "2' 4' 5' "},
      {"k=v\n[s]\n", {}, "1n "},
      {" [a=b] x\nk=v\n", {{"a", {{"k", "v"}}}}, ""},
      {"[a]\n[]\n[ b]\n[b\nk=v\n", {{"a", {{"k", "v"}}}}, "2c 3c 4c "},
      {"[[a]\nk=v\n", {{"[a", {{"k", "v"}}}}, ""},
      {"[s]\nk=1\nK=2\n[S]\nk=3\n[s]\nk=5\n", {{"S", {{"k", "3"}}}, {"s", {{"K", "2"}, {"k", "5"}}}}, ""},
      {"[s]\nk=" + long_text + "\nl=v\n", {{"s", {{"k", long_text}, {"l", "v"}}}}, ""},
      {"[s]\nk=a\0b\nl=v\n\0\nm\0=v\n"s, {{"s", {{"k", "a"}, {"l", "v"}}}}, "5' "},
  };
  for (const auto& row : rows) {
    const ConfigFile file(ini(row.text));
    EXPECT_TRUE(file.ok()) << row.text.substr(0, 80);
    EXPECT_EQ(file.GetRawData(), row.settings) << row.text.substr(0, 80);
    std::string errors;
    for (const auto& remark : file.syntax_errors())
      errors += std::to_string(remark.line) + remark.text[0] + " ";
    EXPECT_EQ(errors, row.errors) << row.text.substr(0, 80);
  }
}

TEST_F(ConfigFileTest, FailedReadLeavesNothingAndTheNextOneStartsAnew) {
  ConfigFile file(ini("[s]\nk=v\n"));
  for (const char* bad : {"/none", "/", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(file.read_config(bad), -1);
    EXPECT_FALSE(file.ok());
    EXPECT_TRUE(file.GetRawData().empty());
    EXPECT_EQ(file.GetFileMTime(), 0);
  }
  EXPECT_EQ(file.refresh(), 0);
  EXPECT_STREQ(file.getparam("s", "k"), "v");
  EXPECT_EQ(file.getparam("s", nullptr), nullptr);
  EXPECT_EQ(ConfigFile().refresh(), -1);
}

TEST_F(ConfigFileTest, LogTellsWhatIsWrongAndMissing) {
  VrLog::setConfig("x.log", folder_.path().c_str());
  VrLog::setLogVerbose("inf,dbg");
  ConfigFile file(ini("k=v\n[\nk\n[s]\nk=v\n"));
  EXPECT_EQ(file.getparam("S", "k"), nullptr);
  EXPECT_EQ(file.getdigitparam("s", "x"), 0U);
  file.read_config("/none");
  file.read_config("/");
  VrLog::stopLog();
  std::string told;
  for (const std::string& line : support::log_lines(folder_.path(), "x.log")) {
    const size_t text = line.find("> ") + 2;
    told += line.substr(14, 3) + " " + line.substr(text, line.rfind(" @<") - text) + "\n";
  }
  EXPECT_THAT(told, testing::ContainsRegex("INF ERROR: Section not defined at line 1\n"
                                           "INF ERROR: Syntax error at line 2 : closing '\\]' missing\n"
                                           "INF ERROR: Syntax error at line 3 : '=' missing\n"
                                           "DBG NOT FOUND SECTION: .*/test.ini, \\[S\\], k \n"
                                           "DBG NOT FOUND KEY: .*/test.ini, \\[s\\], x \n"
                                           "DBG Read .ini file /none\nDBG Failed to open /none\n"
                                           "DBG Read .ini file /\nINF ERROR: Failed to read /\n$"));
}

TEST_F(ConfigFileTest, NumbersAreThoseOf32Bits) {
  const std::pair<uint32_t, std::vector<const char*>> rows[] = {
      {42, {"\t\v42 ", "+42", "42ab", "00000000000000000000000000042"}},
      {0, {"abc", "", "-", "+-1", "0x10", "4294967296", "99999999999999999999999", "-4294967296"}},
      {4294967295, {"4294967295", "-1"}},
  };
  ConfigFile file;
  for (const auto& [number, texts] : rows) {
    for (const char* text : texts) {
      file.setparam("s", "k", text);
      EXPECT_EQ(file.getdigitparam("s", "k"), number) << text;
    }
  }
}

TEST_F(ConfigFileTest, DumpIsSortedAndPrivateAndHoldsWhatWasChanged) {
  ConfigFile file(ini("# comment\n[b]\nz=1\na = 2 \n[a]\nk=\n"));
  file.setparam("a", "new", "n");
  file.unsetparam("b", "z");
  EXPECT_EQ(file.Serialize() + file.SerializeSection("a"), "k=\nnew=n\na=2 \nk=\nnew=n\n");
  const std::string path = folder_.file("dumped");
  const mode_t before = umask(0);
  EXPECT_EQ(file.dump(path.c_str()), 0);
  umask(before);
  EXPECT_EQ(read_file(path), "[a]\nk=\nnew=n\n[b]\na=2 \n");
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0640});
  EXPECT_EQ(file.dump("/"), -1);
}

TEST_F(ConfigFileTest, ChangeIsSeenUntilTheFileIsReadAgain) {
  ConfigFile file(ini("[s]\nk=1\n"));
  EXPECT_FALSE(file.check_config_file_changed(false));
  ini("[s]\nk=12\n");                        // another size
  for (int twice = 0; twice < 2; ++twice) {  // an older file put back is a change as well
    EXPECT_TRUE(file.check_config_file_changed(false) && file.check_config_file_changed(true));
    EXPECT_FALSE(file.check_config_file_changed(true));
    EXPECT_STREQ(file.getparam("s", "k"), "12");
    std::filesystem::last_write_time(path_,
                                     std::filesystem::last_write_time(path_) - std::chrono::seconds(99));
  }
}

TEST_F(ConfigFileTest, MessageFileIsReadWholeWithoutOneByteOrderMark) {
  for (const auto& [content, text] : {std::pair("a\nb\n", "a\nb\n"), {"\xEF\xBB\xBF\xEF\xBB", "\xEF\xBB"}}) {
    const std::unique_ptr<char[]> read(ConfigFile().ReadWarnMsg(ini(content).c_str()));
    EXPECT_STREQ(read.get(), text);
  }
  for (const char* none : {"/none", "/"}) EXPECT_EQ(ConfigFile().ReadWarnMsg(none), nullptr);
}

}  // namespace
