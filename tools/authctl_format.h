// What authctl prints: pure functions from messages to text. Everything that came from the daemon goes
// through printable() before it reaches a terminal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "handler/Velder.pb.h"

namespace authctl {

// The text with whatever could drive a terminal or hide itself made visible: control characters, invisible
// and direction-changing format characters and bytes that are not UTF-8 become \n, \x1b, \u202e and the like.
// A backslash stays as it is, since every DOMAIN\user has one.
std::string printable(std::string_view text);

// Terminal columns that UTF-8 text takes: two for a wide character, none for a combining one.
size_t display_width(std::string_view text);

// Rows under headings, columns two blanks apart. Cells are made printable.
class Table {
 public:
  explicit Table(std::vector<std::string> headings);
  void add_row(const std::vector<std::string_view>& cells);  // as many cells as headings
  void print(std::ostream& out) const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

enum class Columns { kUsual, kAll };
void print_users(std::ostream& out, const google::protobuf::RepeatedPtrField<Velder::UserInfo>& users,
                 Columns columns);
void print_groups(std::ostream& out, const google::protobuf::RepeatedPtrField<Velder::GroupInfo>& groups);
void print_group_users(std::ostream& out,
                       const google::protobuf::RepeatedPtrField<Velder::GroupUsers>& records);
void print_user_info(std::ostream& out, const Velder::UserInfo& user);
// One "name: value" line, the values of several lines below each other.
void print_field(std::ostream& out, std::string_view name, std::string_view value);

// Local time, its offset and the number itself: "2026-11-21 09:30:00 +0000 (1795253400)"; "never (0)" for 0.
std::string time_text(uint32_t seconds_since_epoch);

// What a result code can mean depends on who gave it.
enum class Family { kDirectory, kPassword, kBinding, kAgent, kExport, kToken };
// A few words for a result other than 0; empty for a code without a known meaning.
std::string_view result_words(Family family, int result);

// The message in the JSON mapping of Protocol Buffers on one line, field names as in the schema. Bytes that
// are not UTF-8 are written as \xNN inside the text, so that every message has a JSON form.
std::string to_json(const google::protobuf::Message& message);

}  // namespace authctl
