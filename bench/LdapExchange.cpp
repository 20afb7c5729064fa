#include "bench/LdapExchange.h"

#include <optional>
#include <string_view>

#include "bench/Receive.h"

namespace bench {
namespace {

using velder_client::Connection;
using velder_client::ErrorKind;
using velder_client::fail;
using velder_client::Result;

// Of BER, what these messages need.
constexpr unsigned char kBoolean = 0x01;
constexpr unsigned char kInteger = 0x02;
constexpr unsigned char kText = 0x04;
constexpr unsigned char kEnumeration = 0x0a;
constexpr unsigned char kSequence = 0x30;
constexpr unsigned char kBindRequest = 0x60;
constexpr unsigned char kBindResponse = 0x61;
constexpr unsigned char kSearchRequest = 0x63;
constexpr unsigned char kSearchEntry = 0x64;
constexpr unsigned char kSearchDone = 0x65;
constexpr unsigned char kSimplePassword = 0x80;
constexpr unsigned char kEqualityMatch = 0xa3;

constexpr char kWholeSubtree = 2;
constexpr char kProtocolVersion = 3;

std::string element(unsigned char tag, const std::string& content) {
  std::string bytes(1, static_cast<char>(tag));
  if (content.size() < 0x80) {
    bytes += static_cast<char>(content.size());
  } else {
    bytes += '\x82';
    bytes += static_cast<char>(content.size() >> 8U);
    bytes += static_cast<char>(content.size() & 0xffU);
  }
  return bytes + content;
}

std::string small(unsigned char tag, char value) {
  return element(tag, std::string(1, value));
}

std::string message(const std::string& operation) {
  return element(kSequence, small(kInteger, 1) + operation);
}

struct Element {
  unsigned char tag;
  std::string_view content;
};

// Takes the element at the front; nothing while it is not whole, or when its length has more than four bytes.
std::optional<Element> take(std::string_view& bytes) {
  if (bytes.size() < 2) return std::nullopt;
  const auto at = [&](size_t index) { return static_cast<unsigned char>(bytes[index]); };
  size_t length = at(1);
  size_t header = 2;
  if (length >= 0x80) {
    header += length & 0x7fU;
    if (header > 6 || bytes.size() < header) return std::nullopt;
    length = 0;
    for (size_t i = 2; i < header; ++i) length = length << 8U | at(i);
  }
  if (bytes.size() - header < length) return std::nullopt;
  const Element found{at(0), bytes.substr(header, length)};
  bytes.remove_prefix(header + length);
  return found;
}

// The operation of the message at the front.
std::optional<Element> take_operation(std::string_view& bytes) {
  std::optional<Element> whole = take(bytes);
  if (!whole || whole->tag != kSequence || !take(whole->content)) return std::nullopt;
  return take(whole->content);
}

bool succeeded(Element operation) {
  const auto code = take(operation.content);
  return code && code->tag == kEnumeration && code->content == std::string_view("\0", 1);
}

enum class Verdict { kUnfinished, kRight, kWrong };

Verdict judge(std::string_view bytes, const Subject& subject) {
  int entries = 0;
  while (const auto operation = take_operation(bytes)) {
    switch (operation->tag) {
      case kBindResponse:
        return succeeded(*operation) && entries == 0 && bytes.empty() ? Verdict::kRight : Verdict::kWrong;
      case kSearchEntry:
        if (operation->content.find(subject.user_ln) == std::string_view::npos) return Verdict::kWrong;
        ++entries;
        break;
      case kSearchDone:
        return succeeded(*operation) && entries == 1 && bytes.empty() ? Verdict::kRight : Verdict::kWrong;
      default: return Verdict::kWrong;
    }
  }
  return Verdict::kUnfinished;
}

}  // namespace

std::string ldap_search(const Subject& subject) {
  std::string attributes;
  for (const char* name : {"cn", "sAMAccountName", "userPrincipalName", "memberOf"}) {
    attributes += element(kText, name);
  }
  return message(
      element(kSearchRequest,
              element(kText, "DC=example") + small(kEnumeration, kWholeSubtree) + small(kEnumeration, 0) +
                  small(kInteger, 0) + small(kInteger, 0) + small(kBoolean, 0) +
                  element(kEqualityMatch, element(kText, "sAMAccountName") + element(kText, subject.uid)) +
                  element(kSequence, attributes)));
}

std::string ldap_bind(const std::string& dn, const std::string& password) {
  return message(element(kBindRequest, small(kInteger, kProtocolVersion) + element(kText, dn) +
                                           element(kSimplePassword, password)));
}

Result<std::string> learn_ldap_answer(Connection& connection, const std::string& request,
                                      const Subject& subject) {
  if (auto sent = connection.send_bytes(request, connection.call_deadline()); !sent) {
    return tl::make_unexpected(sent.error());
  }
  std::string got;
  Verdict verdict = Verdict::kUnfinished;
  while ((verdict = judge(got, subject)) == Verdict::kUnfinished) {
    if (!receive_more(connection, got)) {
      return fail(ErrorKind::kAnswerTimeout, "no answer about " + subject.user_ln);
    }
  }
  if (verdict == Verdict::kWrong) {
    return fail(ErrorKind::kMalformedAnswer, "wrong answer about " + subject.user_ln);
  }
  return got;
}

std::string dn_found(const std::string& answer) {
  std::string_view rest = answer;
  std::optional<Element> entry = take_operation(rest);
  const auto dn = entry ? take(entry->content) : std::nullopt;
  return dn ? std::string(dn->content) : std::string();
}

}  // namespace bench
