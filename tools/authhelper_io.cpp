#include "tools/authhelper_io.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "client/RawFrames.h"
#include "tools/authctl_format.h"

namespace authhelper {
namespace {

// Whoever started us may have left a descriptor non-blocking.
bool wait_for(int fd, short events) {
  pollfd item{fd, events, 0};
  return poll(&item, 1, -1) > 0 || errno == EINTR;
}

bool worth_waiting(int error_number) {
  return error_number == EAGAIN || error_number == EWOULDBLOCK;
}

bool write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<size_t>(written));
      continue;
    }
    if (errno == EINTR) continue;
    if (!worth_waiting(errno) || !wait_for(fd, POLLOUT)) return false;
  }
  return true;
}

}  // namespace

LineReader::LineReader(int fd) : fd_(fd), buffer_(kLongestLine + 1, '\0') {}

LineReader::~LineReader() {
  explicit_bzero(buffer_.data(), buffer_.size());
}

LineReader::What LineReader::next() {
  drop_line();
  for (;;) {
    const void* found = scanned_ < end_ ? memchr(&buffer_[scanned_], '\n', end_ - scanned_) : nullptr;
    if (found != nullptr) {
      const auto at = static_cast<size_t>(static_cast<const char*>(found) - buffer_.data());
      line_end_ = at + 1;
      line_ = std::string_view(buffer_).substr(begin_, at - begin_);
      if (!passing_over_) return What::kLine;
      passing_over_ = false;
      line_ = beginning_;
      return What::kTooLong;
    }
    scanned_ = end_;
    if (end_ - begin_ > kLongestLine) keep_beginning();
    if (!fill()) return What::kEnd;
  }
}

void LineReader::drop_line() {
  line_ = {};
  velder_client::wipe(beginning_);
  if (line_end_ == 0) return;
  explicit_bzero(&buffer_[begin_], line_end_ - begin_);
  begin_ = scanned_ = line_end_;
  line_end_ = 0;
  if (begin_ == end_) begin_ = end_ = scanned_ = 0;
}

// The first part of the line that is passed over gives its beginning.
void LineReader::keep_beginning() {
  if (!passing_over_) beginning_.assign(buffer_, begin_, kKeptBytes);
  passing_over_ = true;
  explicit_bzero(buffer_.data(), end_);
  begin_ = end_ = scanned_ = 0;
}

bool LineReader::fill() {
  if (end_ == buffer_.size()) {
    const size_t left = end_ - begin_;
    memmove(buffer_.data(), &buffer_[begin_], left);
    explicit_bzero(&buffer_[left], end_ - left);
    begin_ = 0;
    end_ = scanned_ = left;
  }
  for (;;) {
    const ssize_t got = read(fd_, &buffer_[end_], buffer_.size() - end_);
    if (got > 0) {
      end_ += static_cast<size_t>(got);
      return true;
    }
    if (got == 0) return false;
    if (errno == EINTR) continue;
    if (!worth_waiting(errno) || !wait_for(fd_, POLLIN)) return false;
  }
}

bool LineWriter::write(std::string line) {
  line += '\n';
  const std::lock_guard lock(mutex_);
  if (!broken_) broken_ = !write_all(fd_, line);
  return !broken_;
}

void Complaints::tell(Topic topic, std::string_view text) {
  std::string line;
  {
    const std::lock_guard lock(mutex_);
    line = due(topic, text, Clock::now());
  }
  if (!line.empty()) write(line);
}

void Complaints::settle(Topic topic, std::string_view text) {
  {
    const std::lock_guard lock(mutex_);
    State& state = states_[static_cast<size_t>(topic)];
    if (!std::exchange(state.unsettled, false)) return;
  }
  write(text);
}

std::string Complaints::due(Topic topic, std::string_view text, Clock::time_point now) {
  State& state = states_[static_cast<size_t>(topic)];
  if (state.told && now - state.last < kQuiet) {
    ++state.held_back;
    return {};
  }
  std::string line(text);
  if (state.held_back > 0) line += " (and " + std::to_string(state.held_back) + " times before)";
  state.told = state.unsettled = true;
  state.last = now;
  state.held_back = 0;
  return line;
}

void Complaints::write(std::string_view text) const {
  // The texts may quote what a resolver or a configuration said.
  (void)write_all(STDERR_FILENO, prefix_ + authctl::printable(text) + "\n");
}

}  // namespace authhelper
