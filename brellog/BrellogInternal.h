// What the files of this folder share.
#pragma once

#include <cstddef>
#include <string_view>

#include "brellog/VrLog.h"

namespace brellog {

constexpr size_t kTextBytes = 4096;  // of every per-thread text buffer, its NUL included

// The text buffers of one thread, one for each function that returns a pointer into its own.
struct TextBuffers {
  char format_log[kTextBytes];
  char log_str[kTextBytes];
  char log_sys_error[kTextBytes];
  char log_sock_error[kTextBytes];
  char print_errno[kTextBytes];
};

// The calling thread's, its own from the first use to its end.
TextBuffers& thread_buffers();

// Whether a VrLogDisableHelper is alive on the calling thread. Needs no allocation.
bool thread_is_silenced();

// The tag that a line of the calling thread carries: its filter's if that gives one, else the thread's.
uint32_t current_tag(const VrLogContext& context);

// The module that a source file was registered for; empty when none was.
std::string_view module_of(const char* source_file);

// The text after the last "/".
const char* base_name(const char* path);

inline bool is_empty(const char* text) {
  return text == nullptr || *text == '\0';
}

// Appends formatted pieces to a buffer while room is left; what is in it always ends in NUL.
class TextAppender {
 public:
  TextAppender(char* buffer, size_t size) : buffer_(buffer), size_(size) { buffer_[0] = '\0'; }
  void append(const char* format, ...) VRLOG_PRINTF(2, 3);

 private:
  char* buffer_;
  size_t size_;
  size_t length_ = 0;
};

}  // namespace brellog
