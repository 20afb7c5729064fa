// JSON text on one line, written piece by piece. Keys are ours; values may be anything.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "tools/authctl_format.h"

namespace authctl {

class JsonWriter {
 public:
  JsonWriter& begin(char bracket, std::string_view key = {}) {
    name(key);
    text_ += bracket;
    fresh_ = true;
    return *this;
  }
  JsonWriter& end(char bracket) {
    text_ += bracket;
    fresh_ = false;
    return *this;
  }
  JsonWriter& text(std::string_view key, std::string_view value) {
    name(key);
    quote(value);
    return *this;
  }
  JsonWriter& number(std::string_view key, int64_t value) { return raw(key, std::to_string(value)); }
  JsonWriter& decimal(std::string_view key, double value) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.3f", value);
    return raw(key, buffer);
  }
  JsonWriter& boolean(std::string_view key, bool value) { return raw(key, value ? "true" : "false"); }
  JsonWriter& null(std::string_view key) { return raw(key, "null"); }

  const std::string& str() const { return text_; }

 private:
  JsonWriter& raw(std::string_view key, std::string_view value) {
    name(key);
    text_ += value;
    return *this;
  }
  void name(std::string_view key) {
    if (!fresh_) text_ += ',';
    fresh_ = false;
    if (key.empty()) return;
    quote(key);
    text_ += ':';
  }
  // Nothing that drives a terminal is left in a printable text, only the two that JSON itself escapes.
  void quote(std::string_view value) {
    text_ += '"';
    for (const char c : printable(value)) {
      if (c == '"' || c == '\\') text_ += '\\';
      text_ += c;
    }
    text_ += '"';
  }

  std::string text_;
  bool fresh_ = true;
};

}  // namespace authctl
