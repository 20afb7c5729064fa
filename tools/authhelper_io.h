// Standard input, output and error of the helper.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>

namespace authhelper {

// Reads lines from a descriptor into one buffer that never moves, and wipes them when the next is asked for.
class LineReader {
 public:
  // The proxy's longest request is a token of 64 KB; names and addresses are far below.
  static constexpr size_t kLongestLine = 262144;

  enum class What {
    kLine,
    kTooLong,  // line() is its beginning; the rest has been passed over
    kEnd,      // also when input breaks off within a line: what was cut must not be taken for a password
  };

  explicit LineReader(int fd);
  ~LineReader();
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  What next();
  std::string_view line() const { return line_; }  // without its end; valid until next()

 private:
  // Enough of an over-long line to know its channel number.
  static constexpr size_t kKeptBytes = 16;

  bool fill();
  void drop_line();
  void keep_beginning();

  int fd_;
  std::string buffer_;
  size_t begin_ = 0;  // what has not been handed out: [begin_, end_)
  size_t end_ = 0;
  size_t scanned_ = 0;   // there is no line end before this
  size_t line_end_ = 0;  // behind the line that is handed out
  bool passing_over_ = false;
  std::string beginning_;
  std::string_view line_;
};

// Whole lines to a descriptor, from any thread. False once nobody reads any more.
class LineWriter {
 public:
  explicit LineWriter(int fd) : fd_(fd) {}
  bool write(std::string line);

 private:
  std::mutex mutex_;
  const int fd_;
  bool broken_ = false;
};

// What goes wrong, one kind a topic: told at once, then at most once in kQuiet with a count of what was held
// back. Goes to standard error, which the proxy writes into its own log.
enum class Topic { kDaemonAway, kBadLine, kBadAnswer, kUnknown, kWrongScheme };

class Complaints {
 public:
  static constexpr std::chrono::seconds kQuiet{30};

  using Clock = std::chrono::steady_clock;

  explicit Complaints(std::string prefix) : prefix_(std::move(prefix)) {}

  void tell(Topic topic, std::string_view text);
  // Says `text` if something of the topic was told since the last time. What goes wrong and right in turns is
  // not told more often for that.
  void settle(Topic topic, std::string_view text);

  // The text to write, or nothing; what tell() does, with the clock as an argument.
  std::string due(Topic topic, std::string_view text, Clock::time_point now);

 private:
  struct State {
    bool told = false;
    Clock::time_point last;
    size_t held_back = 0;
    bool unsettled = false;
  };

  void write(std::string_view text) const;

  std::mutex mutex_;
  const std::string prefix_;
  std::array<State, 5> states_;
};

}  // namespace authhelper
