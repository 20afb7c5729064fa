#include "libvelder/LdifReader.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "libvelder/Base64.h"
#include "libvelder/Fold.h"

namespace velder {
namespace {

// Room kept from one record to the next: a photo or a group of a million members must not stay in memory.
constexpr size_t kMostSpareAttributes = 4096;
constexpr size_t kMostSpareBytes = 64 * 1024;

constexpr unsigned char kNameLetter = 1;  // may stand in an attribute's name
constexpr unsigned char kOptionLetter =
    2;  // may stand in an option, ";range=0-1499" and ";range=1500-*" included

constexpr std::array<unsigned char, 256> make_letters() {
  std::array<unsigned char, 256> letters{};
  for (unsigned int c = 0; c < 128; ++c) {
    const bool alphanumeric = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    // The underscore is not in the standard but in the schemas of some servers.
    if (alphanumeric || c == '-' || c == '.' || c == '_') letters[c] = kNameLetter | kOptionLetter;
    if (c == ';' || c == '=' || c == '*') letters[c] = kOptionLetter;
  }
  return letters;
}

constexpr std::array<unsigned char, 256> kLetters = make_letters();

bool all_of(std::string_view text, unsigned char letter) {
  return std::all_of(text.begin(), text.end(),
                     [letter](char c) { return (kLetters[static_cast<unsigned char>(c)] & letter) != 0; });
}

std::string_view without_options(std::string_view name) {
  return name.substr(0, name.find(';'));
}

bool contains(std::string_view text, char c) {
  return std::memchr(text.data(), c, text.size()) != nullptr;
}

bool is_number(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

void assign_lower(std::string& to, std::string_view from) {
  to.assign(from);
  for (char& c : to) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + ('a' - 'A'));
  }
}

std::string quoted(std::string_view text) {
  return "\"" + printable(text) + "\"";
}

}  // namespace

LdifReader::LdifReader(std::string file_name, std::string_view content)
    : file_name_(std::move(file_name)), content_(content) {
  constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
  if (content_.starts_with(kByteOrderMark)) position_ = kByteOrderMark.size();
  if (content_.starts_with("\xff\xfe") || content_.starts_with("\xfe\xff")) {
    current_line_ = 1;
    failed_ = fail("the file is UTF-16, expected UTF-8").value();
  }
}

Result<bool> LdifReader::next(LdifRecord& record) {
  if (failed_) return tl::unexpected(*failed_);
  Result<bool> result = read_record(record);
  if (!result) failed_ = result.error();
  return result;
}

Result<bool> LdifReader::read_record(LdifRecord& record) {
  Line line;
  for (;;) {
    const Result<LineKind> kind = next_line(line);
    if (!kind) return tl::unexpected(kind.error());
    if (*kind == LineKind::kEnd) return false;
    if (*kind == LineKind::kBlank) continue;
    Result<bool> skipped = false;
    if (ascii_iequals(line.name, "version")) {
      // At every record, because exports of several domains are put behind one another.
      if (line.value != "1") return fail("version " + quoted(line.value) + ", expected 1");
      skipped = true;
    } else if (line.name == "search") {
      skipped = skip_result_block(line);
    } else if (line.name == "ref") {
      skipped = skip_reference_block(line);
    }
    if (!skipped) return skipped;
    if (!*skipped) break;
  }
  if (Result<bool> begun = begin_record(line, record); !begun) return begun;

  size_t count = 0;
  for (;;) {
    const Result<LineKind> kind = next_line(line);
    if (!kind) return tl::unexpected(kind.error());
    if (*kind != LineKind::kData) break;
    const Result<bool> added = add_attribute(line, record, count);
    if (!added) return added;
    if (*added) ++count;
  }
  shrink(record, count);
  return true;
}

Result<bool> LdifReader::begin_record(const Line& line, LdifRecord& record) {
  if (!ascii_iequals(line.name, "dn")) {
    return fail("a record begins with " + quoted(line.name) + ", expected dn");
  }
  record.line = current_line_;
  if (Result<bool> taken = take_value(line, record.dn); !taken) return taken;
  if (!is_utf8(record.dn)) return fail("the dn " + quoted(record.dn) + " is not valid UTF-8");
  return true;
}

// True: the line became element `count` of the record. False: it only had to be there.
Result<bool> LdifReader::add_attribute(const Line& line, LdifRecord& record, size_t count) {
  if (ascii_iequals(line.name, "dn")) {
    return fail("a second dn in the record of line " + std::to_string(record.line) +
                ", expected a blank line before it");
  }
  if (ascii_iequals(line.name, "control")) return fail("a control, expected content records only");
  if (ascii_iequals(line.name, "changetype")) {
    if (!ascii_iequals(line.value, "add")) {
      return fail("changetype " + quoted(line.value) + ", expected add or content records only");
    }
    if (count > 0) return fail("changetype behind attributes, expected it right after the dn");
    return false;
  }
  const std::string_view name = without_options(line.name);
  if (name.size() != line.name.size()) {
    if (Result<bool> complete = check_range(line); !complete) return complete;
  }
  if (count == record.attributes.size()) {
    if (spare_.empty()) {
      record.attributes.emplace_back();
    } else {
      record.attributes.push_back(std::move(spare_.back()));
      spare_.pop_back();
    }
  }
  assign_lower(record.attributes[count].name, name);
  return take_value(line, record.attributes[count].value);
}

// A server that limits the values of one answer marks the part: "member;range=0-1499". A group read from a
// part would silently lose members.
Result<bool> LdifReader::check_range(const Line& line) const {
  std::string_view options = line.name;
  while (true) {
    const size_t semicolon = options.find(';');
    if (semicolon == std::string_view::npos) return true;
    options.remove_prefix(semicolon + 1);
    const std::string_view option = options.substr(0, options.find(';'));
    if (ascii_iequals(option.substr(0, 6), "range=") && option != "range=0-*") {
      return fail(quoted(line.name) + " is a part of the values only, expected an export with all of them");
    }
  }
}

// The block with which ldapsearch ends its output, or each page of it: "search: 2", "result: 0 Success",
// then details. A result other than 0 says that entries are missing.
Result<bool> LdifReader::skip_result_block(const Line& first) {
  if (!is_number(first.value)) return false;
  constexpr std::array<std::string_view, 7> kDetails = {"matchedDN",    "text",       "ref",      "control",
                                                        "pagedresults", "sortResult", "vlvResult"};
  Line line;
  Result<LineKind> kind = next_line(line);
  if (!kind) return tl::unexpected(kind.error());
  const std::string_view code = line.value.substr(0, line.value.find(' '));
  if (*kind != LineKind::kData || line.name != "result" || !is_number(code)) {
    return fail("a record begins with \"search\", expected dn (or the result lines of a search behind it)");
  }
  if (code != "0") {
    return fail("the search that wrote this export ended with " + quoted(line.value) +
                ", expected 0 Success");
  }
  for (;;) {
    kind = next_line(line);
    if (!kind) return tl::unexpected(kind.error());
    if (*kind != LineKind::kData) return true;
    if (std::find(kDetails.begin(), kDetails.end(), line.name) == kDetails.end()) {
      return fail(quoted(line.name) + " in the result lines of a search, expected a blank line behind them");
    }
  }
}

// What ldapsearch prints for a part of the tree that another server holds: lines "ref: ldap://...".
Result<bool> LdifReader::skip_reference_block(Line line) {
  for (;;) {
    if (line.name != "ref" || line.is_base64 ||
        !(line.value.starts_with("ldap://") || line.value.starts_with("ldaps://"))) {
      return fail("a record begins with \"ref\", expected dn (or lines ref: ldap://... only)");
    }
    const Result<LineKind> kind = next_line(line);
    if (!kind) return tl::unexpected(kind.error());
    if (*kind != LineKind::kData) return true;
  }
}

// The next logical line that is no comment, continuation lines joined to it.
Result<LdifReader::LineKind> LdifReader::next_line(Line& line) {
  while (position_ < content_.size()) {
    current_line_ = lines_read_ + 1;
    std::string_view text = physical_line();
    if (text.empty()) return LineKind::kBlank;
    if (text.front() == ' ') return fail("a continuation line, expected a line before it that it continues");
    if (text.front() == '#') {
      while (continued()) physical_line();
      continue;
    }
    if (continued()) {
      unfolded_.assign(text);
      while (continued()) unfolded_.append(physical_line().substr(1));
      text = unfolded_;
    }
    return split_line(text, line);
  }
  return LineKind::kEnd;
}

Result<LdifReader::LineKind> LdifReader::split_line(std::string_view text, Line& line) const {
  if (contains(text, '\0')) return fail("a NUL byte, expected text (binary values in base64)");
  if (contains(text, '\r')) return fail("a carriage return inside a line, expected LF or CR LF line ends");
  const size_t colon = text.find(':');
  // Not quoted: it may be the rest of a password that lost the blank of its folding.
  if (colon == std::string_view::npos) return fail("no colon in the line, expected name: value");
  line.name = text.substr(0, colon);
  const std::string_view name = without_options(line.name);
  if (name.empty() || !all_of(name, kNameLetter) || !all_of(line.name.substr(name.size()), kOptionLetter)) {
    return fail("no attribute name before the colon");
  }
  std::string_view value = text.substr(colon + 1);
  if (value.starts_with('<')) return fail("a value from a URL, expected the value itself");
  line.is_base64 = value.starts_with(':');
  if (line.is_base64) value.remove_prefix(1);
  value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));
  line.value = value;
  return LineKind::kData;
}

Result<bool> LdifReader::take_value(const Line& line, std::string& value) const {
  if (!line.is_base64) {
    value.assign(line.value);
    return true;
  }
  if (!decode_base64(line.value, value))
    return fail("the value of " + quoted(line.name) + " is no valid base64");
  return true;
}

// Without its line end. There must be bytes left.
std::string_view LdifReader::physical_line() {
  const std::string_view rest = content_.substr(position_);
  const size_t end = rest.find('\n');
  std::string_view line = rest.substr(0, end);
  position_ += end == std::string_view::npos ? rest.size() : end + 1;
  ++lines_read_;
  if (line.ends_with('\r')) line.remove_suffix(1);
  return line;
}

void LdifReader::shrink(LdifRecord& record, size_t count) {
  while (record.attributes.size() > count) {
    LdifAttribute& last = record.attributes.back();
    if (spare_.size() < kMostSpareAttributes && last.value.capacity() <= kMostSpareBytes) {
      spare_.push_back(std::move(last));
    }
    record.attributes.pop_back();
  }
}

tl::unexpected<Error> LdifReader::fail(const std::string& reason) const {
  return tl::unexpected(Error{1, file_name_ + ":" + std::to_string(current_line_) + ": " + reason});
}

}  // namespace velder
