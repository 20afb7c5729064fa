#include "handler/Reply.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "handler/Velder.pb.h"

namespace {

std::vector<std::string> g_given;  // what the sends were given
std::vector<int> g_takes;          // what the next sends take; negative: fail with that errno
std::vector<event> g_registered;

}  // namespace

extern "C" ssize_t __real_send(int fd, const void* bytes, size_t size, int flags);

extern "C" ssize_t __wrap_send(int fd, const void* bytes, size_t size, int flags) {
  const int take = g_takes.empty() ? static_cast<int>(size) : g_takes.front();
  if (!g_takes.empty()) g_takes.erase(g_takes.begin());
  g_given.emplace_back(static_cast<const char*>(bytes), size);
  if (take > 0) __real_send(fd, bytes, static_cast<size_t>(take), flags | MSG_NOSIGNAL);
  if (take >= 0) return take;
  errno = -take;
  return -1;
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
  void start(const std::string& data, const std::vector<int>& takes) {
    g_takes = takes;
    send_data_handler(fd_, EVENT_WRITE, new SendDataTask{fd_, data, 0, EVENT_READ, after_reply, nullptr});
  }

  int fd_ = -1;
};

TEST_F(ReplyTest, ImmediateReplyGoesOnAfterShortSendsAndFailsOnAnyError) {
  Velder::IPUserBindResponse response;
  response.set_result(0);
  g_takes = {3, 1};
  EXPECT_EQ(reply_request(fd_, 13, &response), 10);
  const std::string frame("\x02\0\0\0\x0D\0\0\0\x08\0", 10);
  EXPECT_EQ(g_given, (std::vector<std::string>{frame, frame.substr(3), frame.substr(4)}));
  for (int failure : {-EAGAIN, -EPIPE, 0}) {
    g_takes = {4, failure};
    EXPECT_EQ(reply_request(fd_, 13, &response), -1) << failure;
  }
}

TEST_F(ReplyTest, DeferredReplyWaitsForTheSocketAndThenReadsAgain) {
  // The second send of one call begins where the first did; only the next call goes on behind it.
  start("0123456789", {4, -EAGAIN});
  ASSERT_EQ(g_registered.size(), 1U);
  EXPECT_EQ(g_registered[0].callback, send_data_handler);
  EXPECT_EQ(g_registered[0].events, EVENT_WRITE);
  send_data_handler(fd_, EVENT_WRITE, g_registered[0].arg);
  EXPECT_EQ(g_given, (std::vector<std::string>{"0123456789", "012345", "456789"}));
  ASSERT_EQ(g_registered.size(), 2U);
  EXPECT_EQ(g_registered[1].callback, after_reply);
  EXPECT_EQ(g_registered[1].events, EVENT_READ);
}

TEST_F(ReplyTest, LongRepliesAskForRoomInTheSocket) {
  const auto room = [&] {
    int bytes = 0;
    socklen_t length = sizeof(bytes);
    getsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &bytes, &length);
    return bytes / 2;  // the system keeps half for itself
  };
  const int small = 8192;
  setsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
  Velder::IPUserBindResponse response;
  reply_request(fd_, 13, &response);
  EXPECT_EQ(room(), small);
  const std::string frame(100'000, 'x');  // within what a system allows that nobody changed
  reply_request(fd_, frame);
  EXPECT_EQ(room(), 100'000);
  start(frame + frame, {});
  EXPECT_EQ(room(), 200'000);
  start(frame, {});
  EXPECT_EQ(room(), 200'000);
  // One that is larger than may be asked for, as TCP makes them, stays as it is. Only root can make it.
  const int huge = 64 << 20;
  if (setsockopt(fd_, SOL_SOCKET, SO_SNDBUFFORCE, &huge, sizeof(huge)) != 0) return;
  start(std::string(huge + 1, 'x'), {});
  EXPECT_EQ(room(), huge);
}

}  // namespace
