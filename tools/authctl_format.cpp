#include "tools/authctl_format.h"

#include <google/protobuf/message.h>
#include <google/protobuf/util/json_util.h>
#include <utf8proc.h>

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <memory>
#include <ostream>

namespace authctl {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using google::protobuf::RepeatedPtrField;

// The longest name of print_field with its colon, and two blanks.
constexpr size_t kNameColumns = 12;

struct Character {
  utf8proc_int32_t code;  // -1: the byte is not part of valid UTF-8
  size_t bytes;
};

Character first_character(std::string_view text) {
  Character character{-1, 1};
  const utf8proc_ssize_t used = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                                                 static_cast<utf8proc_ssize_t>(text.size()), &character.code);
  if (used <= 0) return {-1, 1};
  character.bytes = static_cast<size_t>(used);
  return character;
}

bool drives_the_terminal(utf8proc_int32_t code) {
  // The joiners belong to the spelling of names in several scripts.
  constexpr utf8proc_int32_t kZeroWidthNonJoiner = 0x200C;
  constexpr utf8proc_int32_t kZeroWidthJoiner = 0x200D;
  if (code == kZeroWidthNonJoiner || code == kZeroWidthJoiner) return false;
  switch (utf8proc_category(code)) {
    case UTF8PROC_CATEGORY_CC:
    case UTF8PROC_CATEGORY_CF:
    case UTF8PROC_CATEGORY_ZL:
    case UTF8PROC_CATEGORY_ZP: return true;
    default: return false;
  }
}

std::string escaped_byte(char byte) {
  char text[8];
  std::snprintf(text, sizeof(text), "\\x%02x", static_cast<unsigned char>(byte));
  return text;
}

std::string escaped_code(utf8proc_int32_t code) {
  switch (code) {
    case '\n': return "\\n";
    case '\r': return "\\r";
    case '\t': return "\\t";
    default: break;
  }
  char text[16];
  const char* format = code < 0x80 ? "\\x%02x" : "\\u%04x";
  std::snprintf(text, sizeof(text), format, static_cast<unsigned>(code));
  return text;
}

std::string valid_utf8(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const Character character = first_character(text);
    if (character.code < 0) {
      out += escaped_byte(text.front());
    } else {
      out.append(text.substr(0, character.bytes));
    }
    text.remove_prefix(character.bytes);
  }
  return out;
}

// Rewrites every text field, also of the messages inside.
void make_utf8(Message& message) {
  const Reflection* reflection = message.GetReflection();
  std::vector<const FieldDescriptor*> fields;
  reflection->ListFields(message, &fields);
  for (const FieldDescriptor* field : fields) {
    const bool is_text = field->cpp_type() == FieldDescriptor::CPPTYPE_STRING;
    const bool is_message = field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE;
    if (!field->is_repeated()) {
      if (is_text) reflection->SetString(&message, field, valid_utf8(reflection->GetString(message, field)));
      if (is_message) make_utf8(*reflection->MutableMessage(&message, field));
      continue;
    }
    for (int i = 0; i < reflection->FieldSize(message, field); ++i) {
      if (is_text) {
        const std::string text = reflection->GetRepeatedString(message, field, i);
        reflection->SetRepeatedString(&message, field, i, valid_utf8(text));
      }
      if (is_message) make_utf8(*reflection->MutableRepeatedMessage(&message, field, i));
    }
  }
}

}  // namespace

std::string printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const Character character = first_character(text);
    if (character.code < 0) {
      out += escaped_byte(text.front());
    } else if (drives_the_terminal(character.code)) {
      out += escaped_code(character.code);
    } else {
      out.append(text.substr(0, character.bytes));
    }
    text.remove_prefix(character.bytes);
  }
  return out;
}

size_t display_width(std::string_view text) {
  size_t width = 0;
  while (!text.empty()) {
    const Character character = first_character(text);
    width += character.code < 0 ? 1 : static_cast<size_t>(std::max(0, utf8proc_charwidth(character.code)));
    text.remove_prefix(character.bytes);
  }
  return width;
}

Table::Table(std::vector<std::string> headings) {
  rows_.push_back(std::move(headings));
}

void Table::add_row(const std::vector<std::string_view>& cells) {
  assert(cells.size() == rows_.front().size());
  std::vector<std::string>& row = rows_.emplace_back();
  for (const std::string_view cell : cells) row.push_back(printable(cell));
}

void Table::print(std::ostream& out) const {
  const size_t columns = rows_.front().size();
  std::vector<size_t> widths(columns, 0);
  for (const auto& row : rows_) {
    for (size_t i = 0; i < columns; ++i) widths[i] = std::max(widths[i], display_width(row[i]));
  }
  for (const auto& row : rows_) {
    for (size_t i = 0; i + 1 < columns; ++i) {
      out << row[i] << std::string(widths[i] - display_width(row[i]) + 2, ' ');
    }
    out << row.back() << '\n';
  }
}

void print_users(std::ostream& out, const RepeatedPtrField<Velder::UserInfo>& users, Columns columns) {
  if (users.empty()) return;
  std::vector<std::string> headings = {"UID", "CN", "UPN", "DOMAIN"};
  if (columns == Columns::kAll) headings.insert(headings.end(), {"USER", "DN"});
  Table table(std::move(headings));
  for (const Velder::UserInfo& user : users) {
    std::vector<std::string_view> cells = {user.uid(), user.cn(), user.upn(), user.domain_dns()};
    if (columns == Columns::kAll) cells.insert(cells.end(), {user.user_ln(), user.dn()});
    table.add_row(cells);
  }
  table.print(out);
}

void print_groups(std::ostream& out, const RepeatedPtrField<Velder::GroupInfo>& groups) {
  if (groups.empty()) return;
  Table table({"CN", "DN"});
  for (const Velder::GroupInfo& group : groups) table.add_row({group.cn(), group.dn()});
  table.print(out);
}

void print_group_users(std::ostream& out, const RepeatedPtrField<Velder::GroupUsers>& records) {
  for (const Velder::GroupUsers& record : records) {
    out << printable(record.group_dn()) << " (" << record.userlist_size() << ")\n";
    for (const std::string& user : record.userlist()) out << "  " << printable(user) << '\n';
  }
}

void print_field(std::ostream& out, std::string_view name, std::string_view value) {
  std::string line = std::string(name) + ":";
  line.resize(std::max(line.size() + 1, kNameColumns), ' ');
  line += printable(value);
  line.erase(line.find_last_not_of(' ') + 1);
  out << line << '\n';
}

void print_user_info(std::ostream& out, const Velder::UserInfo& user) {
  print_field(out, "user", user.user_ln());
  print_field(out, "uid", user.uid());
  print_field(out, "cn", user.cn());
  print_field(out, "upn", user.upn());
  print_field(out, "domain", user.domain_dns());
  print_field(out, "dn", user.dn());
  print_field(out, "groups", std::to_string(user.grouplist_size()));
  if (user.grouplist_size() == 0) return;
  out << '\n';
  print_groups(out, user.grouplist());
}

std::string time_text(uint32_t seconds_since_epoch) {
  const std::string number = " (" + std::to_string(seconds_since_epoch) + ")";
  if (seconds_since_epoch == 0) return "never" + number;
  const std::time_t moment = static_cast<std::time_t>(seconds_since_epoch);
  std::tm local{};
  char text[64];
  if (localtime_r(&moment, &local) == nullptr ||
      std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S %z", &local) == 0) {
    return std::to_string(seconds_since_epoch);
  }
  return text + number;
}

std::string_view result_words(Family family, int result) {
  switch (family) {
    case Family::kBinding:
      if (result == 1) return "no binding for this address";
      if (result == -1) return "refused: not an IP address, or no usable user name";
      if (result == -2) return "the store of the bindings failed";
      return "";
    case Family::kExport: return result == -1 ? "the export was refused or failed; see the daemon's log" : "";
    case Family::kToken: return result == -1 ? "the token was not accepted" : "";
    case Family::kPassword:
      if (result == -1) return "the password was not proven right";
      break;
    case Family::kAgent:
      if (result == -1) return "the agent knows no user at this address, or did not answer";
      break;
    case Family::kDirectory: break;
  }
  switch (result) {
    case 1: return "the directory look-up failed";
    case 4: return "size limit exceeded, the list is not complete";
    case 32: return "no such entry";
    case 49: return "wrong password";
    case 81: return "no directory server can be reached";
    case 85: return "the directory server did not answer in time";
    case -1: return "refused";
    case -2: return "the store failed";
    default: return "";
  }
}

std::string to_json(const Message& message) {
  const std::unique_ptr<Message> copy(message.New());
  copy->CopyFrom(message);
  make_utf8(*copy);
  google::protobuf::util::JsonPrintOptions options;
  options.preserve_proto_field_names = true;
  options.always_print_primitive_fields = true;
  std::string json;
  const auto status = google::protobuf::util::MessageToJsonString(*copy, &json, options);
  assert(status.ok());  // only text that is not UTF-8 could fail, and there is none left
  return json;
}

}  // namespace authctl
