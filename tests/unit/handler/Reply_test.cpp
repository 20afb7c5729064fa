#include "handler/Reply.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "handler/Velder.pb.h"

namespace {

std::vector<std::string> g_given;  // what the sends were given
// What the next sends take; negative: fail with that errno.
std::vector<int> g_takes;
std::vector<event> g_registered;

}  // namespace

extern "C" ssize_t __wrap_send(int /*fd*/, const void* bytes, size_t size, int /*flags*/) {
  const int take = g_takes.empty() ? static_cast<int>(size) : g_takes.front();
  if (!g_takes.empty()) g_takes.erase(g_takes.begin());
  if (take < 0) {
    errno = -take;
    return -1;
  }
  g_given.emplace_back(static_cast<const char*>(bytes), size);
  return take;
}

extern "C" int __wrap__Z9event_addP5events(event* ev, short persist) {
  EXPECT_EQ(persist, 0);
  g_registered.push_back(*ev);
  return 4;
}

namespace {

void after_reply(int /*fd*/, short /*events*/, void* /*arg*/) {}

class ReplyTest : public testing::Test {
 protected:
  void SetUp() override {
    g_takes.clear();
    g_given.clear();
    g_registered.clear();
    fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
  }
  void TearDown() override { close(fd_); }
  [[nodiscard]] bool is_open() const { return fcntl(fd_) >= 0; }
  SendDataTask* task(const std::string& data) {
    return new SendDataTask{fd_, data, 0, EVENT_READ, after_reply, nullptr};
  }

  int fd_ = -1;

 private:
  static int fcntl(int fd) { return dup(fd) < 0 ? -1 : 0; }
};

TEST_F(ReplyTest, ImmediateReplyGoesOnAfterShortSendsAndFailsOnAnyError) {
  Velder::IPUserBindResponse response;
  response.set_result(0);
  g_takes = {3, 1};
  EXPECT_EQ(reply_request(fd_, 13, &response), 10);
  EXPECT_EQ(g_given, (std::vector<std::string>{std::string("\x02\0\0\0\x0D\0\0\0\x08\0", 10),
                                               std::string("\0\x0D\0\0\0\x08\0", 7),
                                               std::string("\x0D\0\0\0\x08\0", 6)}));
  for (int failure : {-EAGAIN, -EPIPE, 0}) {
    g_takes = {4, failure};
    EXPECT_EQ(reply_request(fd_, 13, &response), -1) << failure;
  }
}

TEST_F(ReplyTest, DeferredReplyWaitsForTheSocketAndThenReadsAgain) {
  g_takes = {4, -EAGAIN};
  send_data_handler(fd_, EVENT_WRITE, task("0123456789"));
  ASSERT_EQ(g_registered.size(), 1U);
  EXPECT_EQ(g_registered[0].callback, send_data_handler);
  EXPECT_EQ(g_registered[0].events, EVENT_WRITE);

  g_given.clear();
  send_data_handler(fd_, EVENT_WRITE, g_registered[0].arg);
  EXPECT_EQ(g_given, std::vector<std::string>{"456789"});
  ASSERT_EQ(g_registered.size(), 2U);
  EXPECT_EQ(g_registered[1].callback, after_reply);
  EXPECT_EQ(g_registered[1].events, EVENT_READ);
  EXPECT_EQ(g_registered[1].arg, nullptr);
}

TEST_F(ReplyTest, SecondSendOfOneCallBeginsWhereTheFirstDid) {
  g_takes = {4};
  send_data_handler(fd_, EVENT_WRITE, task("0123456789"));
  EXPECT_EQ(g_given, (std::vector<std::string>{"0123456789", "012345"}));
  EXPECT_EQ(g_registered.size(), 1U);
}

TEST_F(ReplyTest, DeferredReplyThatCannotGoOnClosesTheConnection) {
  for (int failure : {-EPIPE, 0}) {
    g_takes = {4, failure};
    send_data_handler(fd_, EVENT_WRITE, task("0123456789"));
    EXPECT_FALSE(is_open()) << failure;
    SetUp();
  }
  send_data_handler(fd_, EVENT_WRITE, nullptr);
  EXPECT_FALSE(is_open());
  SetUp();
  send_data_handler(fd_, EVENT_WRITE, task(""));
  EXPECT_FALSE(is_open());
  EXPECT_TRUE(g_registered.empty());
}

}  // namespace
