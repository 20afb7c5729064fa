// Tells whether somebody writes to the store, without waiting for it: the database library can only wait for
// its writer lock. That is a robust mutex in the lock file, whose word names the thread that holds it, so a
// look at the word is enough.
//
// A hint: a writer may begin or end the moment after. Where the word lies is the library's own affair;
// whoever holds the lock therefore checks once that the word names it. If it does not, nobody is ever seen to
// write.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace torrin {

class WriterWatch {
 public:
  WriterWatch() = default;
  WriterWatch(const WriterWatch&) = delete;
  WriterWatch& operator=(const WriterWatch&) = delete;
  ~WriterWatch() { close(); }

  // Called before the library opens the file and after it gave up an earlier one: closing any descriptor of
  // the lock file drops the locks that this process has on it. May fail; then nobody is seen.
  void open(const std::string& lock_file, mode_t mode);
  void close();

  // Not before the library has opened the file: until then it may be empty.
  [[nodiscard]] bool sees_writer() const;
  // Called by a thread that holds the writer lock.
  void confirm();

 private:
  [[nodiscard]] uint32_t holder() const;

  void* page_ = nullptr;  // the beginning of the lock file, read-only
  std::atomic<bool> confirmed_{false};
  std::atomic<bool> wrong_{false};
};

}  // namespace torrin
