#include "tools/wmi_agent_answer.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <utility>

namespace wmi_agent {
namespace {

constexpr std::string_view kBlanks = " \t\r";

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// Cuts `text` behind the first `end` and returns what stood before it.
std::string_view take_until(std::string_view& text, char end) {
  const size_t at = std::min(text.find(end), text.size());
  const std::string_view part = text.substr(0, at);
  text.remove_prefix(std::min(at + 1, text.size()));
  return part;
}

}  // namespace

std::string usual_spelling(std::string_view address) {
  std::string text(address);
  std::array<char, INET6_ADDRSTRLEN> out{};
  in_addr v4{};
  if (inet_pton(AF_INET, text.c_str(), &v4) == 1) {
    return inet_ntop(AF_INET, &v4, out.data(), out.size());
  }
  in6_addr v6{};
  if (inet_pton(AF_INET6, text.c_str(), &v6) != 1) return text;
  if (IN6_IS_ADDR_V4MAPPED(&v6)) return inet_ntop(AF_INET, &v6.s6_addr[12], out.data(), out.size());
  return inet_ntop(AF_INET6, &v6, out.data(), out.size());
}

tl::expected<People, std::string> parse_people(std::string_view text) {
  People people;
  for (int number = 1; !text.empty(); ++number) {
    std::string_view whole = take_until(text, '\n');
    std::string_view line = trimmed(take_until(whole, '#'));
    if (line.empty()) continue;
    const std::string_view address = trimmed(take_until(line, ','));
    const std::string_view name = trimmed(take_until(line, ','));
    const std::string_view domain = trimmed(line);
    if (address.empty() || name.empty() || domain.empty()) {
      return tl::make_unexpected("line " + std::to_string(number) + ": expected address,name,domain");
    }
    people[usual_spelling(address)] = {std::string(name), std::string(domain)};
  }
  return people;
}

std::string_view asked_address(std::string_view question) {
  for (const std::string_view prefix : {"tolva_wmi:", "tolva_wmi_dc:", "tolva_wmi_client:"}) {
    if (question.starts_with(prefix)) return question.substr(prefix.size());
  }
  return {};
}

std::string make_answer(const People& people, std::string_view question, const Shape& shape) {
  const std::string_view address = asked_address(question);
  std::string answer;
  if (address.empty()) {
    answer = "tolva_wmi_fail:unknown request";
  } else if (const auto found = people.find(usual_spelling(address)); found == people.end()) {
    answer = "tolva_wmi_fail:not found";
  } else {
    const auto& [name, domain] = found->second;
    answer = shape.upper_prefix ? "TOLVA_WMI_OK:" : "tolva_wmi_ok:";
    if (shape.backslash) answer += domain + "\\";
    answer += name;
    if (!shape.no_colon) answer += ":" + domain;
  }
  if (shape.newline) answer += "\r\n";
  if (shape.length != 0) answer.resize(shape.length, 'x');
  return answer;
}

}  // namespace wmi_agent
