// Who a question is about, in terms of make_ldif's directory.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>

namespace bench {

struct Subject {
  Subject(uint32_t index, uint32_t users)
      : user(index % users),
        uid(format("user%07u", user)),
        domain(user < users - users / 4 ? "corp.example" : "lab.example"),
        user_ln(uid + "@" + domain),
        password(format("Secret-%07u", user)),
        bound_ip(address(10, index)),
        unbound_ip(address(172, index)) {}

  template <class... Arguments>
  static std::string format(const char* text, Arguments... arguments) {
    std::array<char, 64> buffer{};
    std::snprintf(buffer.data(), buffer.size(), text, arguments...);
    return buffer.data();
  }

  static std::string address(uint32_t first, uint32_t index) {
    return format("%u.%u.%u.%u", first, index >> 16U & 255U, index >> 8U & 255U, index & 255U);
  }

  uint32_t user;
  std::string uid;
  std::string domain;
  std::string user_ln;
  std::string password;
  std::string bound_ip;
  std::string unbound_ip;
};

}  // namespace bench
