// What the sample agent answers: text in, text out.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <tl/expected.hpp>

namespace wmi_agent {

struct Person {
  std::string name;
  std::string domain;
};

// Addresses in their usual spelling, see usual_spelling().
using People = std::map<std::string, Person>;

// Two spellings of one address compare equal afterwards, also an IPv4 address and its IPv6-mapped form. Text
// that is no address stays as it is.
std::string usual_spelling(std::string_view address);

// Reads "address,name,domain" lines; '#' begins a comment, blanks around the parts do not count. The last
// line of an address holds. An error names the line.
tl::expected<People, std::string> parse_people(std::string_view text);

// The address of "tolva_wmi:IP", "tolva_wmi_dc:IP" or "tolva_wmi_client:IP"; empty for any other text.
std::string_view asked_address(std::string_view question);

// How an answer is spoilt on purpose.
struct Shape {
  size_t length = 0;       // not 0: padded or cut to so many bytes
  bool no_colon = false;   // the name alone, without colon and domain
  bool backslash = false;  // the name as DOMAIN\name
  bool newline = false;    // a line end behind it
  bool upper_prefix = false;
};

std::string make_answer(const People& people, std::string_view question, const Shape& shape);

}  // namespace wmi_agent
