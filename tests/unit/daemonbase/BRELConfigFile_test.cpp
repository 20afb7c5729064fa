#include "daemonbase/BRELConfigFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <thread>

#include "brellog/VrLog.h"
#include "tests/unit/brellog/LogTestSupport.h"

namespace {

using log_test::log_lines;
using log_test::read_file;
using log_test::TempDir;
using log_test::write_file;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

// Reads files out of a folder of its own, and sees what reading them logs at info and debug.
class ConfigFileTest : public testing::Test {
 protected:
  ConfigFileTest() { start_log("start.log"); }
  ~ConfigFileTest() override { VrLog::stopLog(); }

  // From here on logged() begins anew.
  void start_log(const std::string& name) {
    log_name_ = name;
    VrLog::setLogVerbose("dbg");
    VrLog::setConfig(name.c_str(), folder_.path().c_str());
    VrLog::setLogVerbose("inf,dbg");
    skip_ = log_lines(folder_, log_name_).size();
  }

  // Level and text of each line, without the ones that name a file being read.
  std::vector<std::string> logged(bool with_reads = false) const {
    std::vector<std::string> texts;
    const auto lines = log_lines(folder_, log_name_);
    for (size_t i = skip_; i < lines.size(); ++i) {
      const size_t start = lines[i].find("> ") + 2;
      const std::string text = lines[i].substr(start, lines[i].rfind(" @<") - start);
      const std::string level = lines[i].substr(lines[i].find('<') + 1, 3);
      if (with_reads || !text.starts_with("Read .ini file")) texts.push_back(level + " " + text);
    }
    return texts;
  }

  std::string ini(const std::string& text) {
    write_file(path_, text);
    return path_;
  }

  TempDir folder_;
  const std::string path_ = folder_.file("test.ini");
  std::string log_name_;
  size_t skip_ = 0;
};

std::string closing(int line) {
  return "INF ERROR: Syntax error at line " + std::to_string(line) + " : closing ']' missing";
}
std::string equals(int line) {
  return "INF ERROR: Syntax error at line " + std::to_string(line) + " : '=' missing";
}
std::string homeless(int line) {
  return "INF ERROR: Section not defined at line " + std::to_string(line);
}

TEST_F(ConfigFileTest, SyntaxIsReadAsDescribed) {
  using namespace std::string_literals;
  const std::string long_text(20'000, 'v');
  const struct {
    std::string text;
    ConfigFile::SectionMap settings;
    std::vector<std::string> log;
  } rows[] = {
      {"", {}, {}},
      {"[s]\nk=v", {{"s", {{"k", "v"}}}}, {}},
      {"[s]\r\nk=v\r\n", {{"s", {{"k", "v"}}}}, {}},
      {"[s]\nk=v\r\r\n", {{"s", {{"k", "v\r"}}}}, {}},
      {"\xEF\xBB\xBF[s]\nk=v\n", {{"s", {{"k", "v"}}}}, {}},
      {"\n\xEF\xBB\xBF[s]\nk=v\n", {}, {equals(2), homeless(3)}},
      {"[s]\n \t k \t= \t v  \n", {{"s", {{"k", "v  "}}}}, {}},
      {"[s]\nk=\n", {{"s", {{"k", ""}}}}, {}},
      {"[s]\n=v\n", {{"s", {{"", "v"}}}}, {}},
      {"[s]\nk=a=b]\n", {{"s", {{"k", "a=b]"}}}}, {}},
      {"[s]\n  # k=v\n#x\nk=#v # w\n", {{"s", {{"k", "#v # w"}}}}, {}},
      {"[s]\nk#=v\n", {{"s", {{"k#", "v"}}}}, {}},
      {"[s]\nk x=v\n\nk]=v\nk\n", {}, {equals(2), equals(4), equals(5)}},
      {"k=v\n[s]\n", {}, {homeless(1)}},
      {"[a b]\nk=v\n", {{"a", {{"k", "v"}}}}, {}},
      {" [a=b] x\nk=v\n", {{"a", {{"k", "v"}}}}, {}},
      {"[a\nk=v\n", {}, {closing(1), homeless(2)}},
      {"[a]\n\n[b\nk=v\n", {{"a", {{"k", "v"}}}}, {closing(3)}},
      {"[a]\n[]\n[ b]\nk=v\n", {{"a", {{"k", "v"}}}}, {closing(2), closing(3)}},
      {"[[a]\nk=v\n", {{"[a", {{"k", "v"}}}}, {}},
      {"[s]\nk=1\nK=2\n[S]\nk=3\n[s]\nl=4\nk=5\n",
       {{"S", {{"k", "3"}}}, {"s", {{"K", "2"}, {"k", "5"}, {"l", "4"}}}},
       {}},
      {"[s]\nk=" + long_text + "\nl=v\n", {{"s", {{"k", long_text}, {"l", "v"}}}}, {}},
      {"[s]\nk=a\0b\nl=v\n\0\nm\0=v\n"s, {{"s", {{"k", "a"}, {"l", "v"}}}}, {equals(5)}},
  };
  int number = 0;
  for (const auto& row : rows) {
    start_log("row" + std::to_string(++number));
    const ConfigFile file(ini(row.text));
    EXPECT_TRUE(file.ok()) << row.text.substr(0, 80);
    EXPECT_EQ(file.GetRawData(), row.settings) << row.text.substr(0, 80);
    EXPECT_THAT(logged(), ElementsAreArray(row.log)) << row.text.substr(0, 80);
  }
}

// The sizes around which a reader with a growing buffer could lose or split a last line.
TEST_F(ConfigFileTest, LinesOfEveryLengthAreReadWhole) {
  for (const size_t length : {5116U, 5117U, 5118U, 5119U, 5120U, 10'238U, 10'239U, 10'240U, 50'000'000U}) {
    const std::string value(length - 2, 'v');
    for (const char* const end : {"", "\n", "\r\n"}) {
      const ConfigFile file(ini("[s]\nk=" + value + end));
      const char* const read = file.getparam("s", "k");
      ASSERT_NE(read, nullptr) << length;
      ASSERT_TRUE(read == value) << length;
    }
  }
}

TEST_F(ConfigFileTest, FailedReadIsToldAndTheNextOneStartsAnew) {
  ConfigFile file(ini("[s]\nk=v\n"));
  EXPECT_TRUE(file.ok());
  EXPECT_EQ(file.GetFilename(), path_);

  start_log("missing.log");
  EXPECT_EQ(file.read_config(folder_.file("none").c_str()), -1);
  EXPECT_FALSE(file.ok());
  EXPECT_THAT(file.GetRawData(), IsEmpty());
  EXPECT_EQ(file.GetFileMTime(), 0);
  EXPECT_THAT(logged(true), ElementsAre("DBG Read .ini file " + folder_.file("none"),
                                        "DBG Failed to open " + folder_.file("none")));

  start_log("folder.log");
  EXPECT_EQ(file.read_config(folder_.path().c_str()), -1);
  EXPECT_FALSE(file.ok());
  EXPECT_THAT(logged(), ElementsAre("INF ERROR: Failed to read " + folder_.path()));

  EXPECT_EQ(file.GetFilename(), path_);
  EXPECT_EQ(file.refresh(), 0);
  EXPECT_TRUE(file.ok());
  EXPECT_STREQ(file.getparam("s", "k"), "v");

  ConfigFile nothing;
  EXPECT_FALSE(nothing.ok());
  EXPECT_EQ(nothing.refresh(), -1);
  EXPECT_EQ(nothing.read_config(nullptr), -1);
}

TEST_F(ConfigFileTest, MissingValuesAreNullAndLogged) {
  const ConfigFile file(ini("[s]\nk=v\n"));
  start_log("look.log");
  EXPECT_EQ(file.getparam("S", "k"), nullptr);
  EXPECT_EQ(file.getparam("s", "K"), nullptr);
  EXPECT_EQ(file.getparam(nullptr, nullptr), nullptr);
  EXPECT_EQ(file.getdigitparam("s", "x"), 0U);
  EXPECT_THAT(logged(), ElementsAre("DBG NOT FOUND SECTION: " + path_ + ", [S], k ",
                                    "DBG NOT FOUND KEY: " + path_ + ", [s], K ",
                                    "DBG NOT FOUND SECTION: " + path_ + ", [],  ",
                                    "DBG NOT FOUND KEY: " + path_ + ", [s], x "));
}

TEST_F(ConfigFileTest, NumbersAreThoseOf32Bits) {
  ConfigFile file;
  const auto number = [&](const char* text) {
    file.setparam("s", "k", text);
    return file.getdigitparam("s", "k");
  };
  for (const char* text : {"42", "\t\v42 ", "+42", "42ab", "00000000000000000000000000042"}) {
    EXPECT_EQ(number(text), 42U) << text;
  }
  for (const char* text :
       {"abc", "", "-", "+-1", "0x10", "4294967296", "99999999999999999999999", "-4294967296"}) {
    EXPECT_EQ(number(text), 0U) << text;
  }
  for (const char* text : {"4294967295", "-1"}) EXPECT_EQ(number(text), 4294967295U) << text;
}

TEST_F(ConfigFileTest, DumpIsSortedAndReadsBackTheSame) {
  ConfigFile file(ini("# comment\n[b]\nz=1\na = 2 \n[a]\nk=\n"));
  file.setparam("a", "new", "n");
  file.unsetparam("b", "z");
  file.unsetparam("c", "none");
  EXPECT_EQ(file.Serialize(), "k=\nnew=n\na=2 \n");
  EXPECT_EQ(file.SerializeSection("a"), "k=\nnew=n\n");
  EXPECT_EQ(file.SerializeSection("x"), "");

  const std::string dumped = folder_.file("dumped.ini");
  const mode_t before = umask(0);
  EXPECT_EQ(file.dump(dumped.c_str()), 0);
  umask(before);
  EXPECT_EQ(read_file(dumped), "[a]\nk=\nnew=n\n[b]\na=2 \n[c]\n");
  struct stat status = {};
  ASSERT_EQ(stat(dumped.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640U);
  ConfigFile::SectionMap with_keys = file.GetRawData();
  with_keys.erase("c");  // a bare header reads back as nothing
  EXPECT_EQ(ConfigFile(dumped.c_str()).GetRawData(), with_keys);

  EXPECT_EQ(file.dump(), 0);
  EXPECT_EQ(read_file(path_), read_file(dumped));
  start_log("dump.log");
  EXPECT_EQ(file.dump(folder_.path().c_str()), -1);
  EXPECT_THAT(logged(), ElementsAre("DBG Failed to open " + folder_.path()));
}

TEST_F(ConfigFileTest, ChangeIsSeenUntilTheFileIsReadAgain) {
  ConfigFile file;
  EXPECT_FALSE(file.check_config_file_changed(true));
  ASSERT_EQ(file.read_config(ini("[s]\nk=1\n").c_str()), 0);
  EXPECT_FALSE(file.check_config_file_changed(false));

  ini("[s]\nk=1\nl=2\n");  // another size
  EXPECT_TRUE(file.check_config_file_changed(false));
  EXPECT_TRUE(file.check_config_file_changed(false));
  EXPECT_TRUE(file.check_config_file_changed(true));
  EXPECT_STREQ(file.getparam("s", "l"), "2");
  EXPECT_FALSE(file.check_config_file_changed(true));

  const time_t mtime = file.GetFileMTime();
  std::filesystem::last_write_time(path_, std::filesystem::last_write_time(path_) + std::chrono::seconds(9));
  EXPECT_TRUE(file.check_config_file_changed(true));
  EXPECT_EQ(file.GetFileMTime(), mtime + 9);
  // An older file put back is a change as well.
  std::filesystem::last_write_time(path_, std::filesystem::last_write_time(path_) - std::chrono::seconds(99));
  EXPECT_TRUE(file.check_config_file_changed(false));
  std::filesystem::remove(path_);
  EXPECT_FALSE(file.check_config_file_changed(true));
}

TEST_F(ConfigFileTest, MessageFileIsReadWhole) {
  using namespace std::string_literals;
  const ConfigFile file;
  const std::pair<std::string, std::string> rows[] = {{"", ""},
                                                      {"a\nb\n", "a\nb\n"},
                                                      {"\xEF\xBB\xBF\xEF\xBB\xBFx", "\xEF\xBB\xBFx"},
                                                      {"\xEF\xBB", "\xEF\xBB"}};
  for (const auto& [content, expected] : rows) {
    const std::unique_ptr<char[]> text(file.ReadWarnMsg(ini(content).c_str()));
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(text.get(), expected);
  }
  EXPECT_EQ(file.ReadWarnMsg(folder_.file("none").c_str()), nullptr);
  EXPECT_EQ(file.ReadWarnMsg(folder_.path().c_str()), nullptr);
}

TEST_F(ConfigFileTest, TextsCompareWithoutCaseAndWithNulls) {
  EXPECT_EQ(ConfigFile::strcmpnull(nullptr, nullptr), 0);
  EXPECT_TRUE(ConfigFile::strcmpnull(nullptr, "") == 1 && ConfigFile::strcmpnull("", nullptr) == 1);
  EXPECT_EQ(ConfigFile::strcmpnull("aB", "Ab"), 0);
}

TEST_F(ConfigFileTest, ThreadsShareOneObject) {
  VrLog::setLogVerbose("");
  ConfigFile file(ini("[s]\nk=7\n"));
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 3; ++thread) {
    threads.emplace_back([&file] {
      for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(file.getdigitparam("s", "k"), 7U);
        EXPECT_THAT(file.Serialize(), testing::StartsWith("k=7\n"));
        file.setparam("t", "x", std::to_string(i).c_str());
        EXPECT_EQ(file.refresh(), 0);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
