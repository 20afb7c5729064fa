// Reads the records of an LDIF file (RFC 2849, content records) as directories and their tools export it.
//
// Beyond plain content records the reader takes what real exports hold: a byte-order mark, "version: 1",
// "changetype: add", an empty dn (the root entry), records of a dn only (nothing else was readable), plain
// values with bytes beyond ASCII, and the blocks that ldapsearch prints between and after the entries
// ("search:"/"result:" and "ref:" lines). It refuses, with a line number, what it would otherwise have to
// guess: other change types, controls, values from URLs, an export that the server cut short (a result other
// than 0, or an attribute of which only a ";range=" part is there), UTF-16 text.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "libvelder/Error.h"

namespace velder {

struct LdifAttribute {
  std::string name;   // lower case, without options such as ";binary"
  std::string value;  // decoded bytes, possibly none, possibly no text
};

struct LdifRecord {
  std::string dn;                         // valid UTF-8, not checked to be a DN
  std::vector<LdifAttribute> attributes;  // in the order of the file, one element for each value
  size_t line = 0;                        // of the dn, counted from 1
};

// One thread at a time. `content`, the whole file, must outlive the reader; nothing is copied from it but
// the values. `file_name` is used in error texts only ("directory.ldif:17: ...").
class LdifReader {
 public:
  LdifReader(std::string file_name, std::string_view content);

  // True: `record` holds the next record; the room of its strings is used again, so pass the same one every
  // time. False: the end. After an error, whose contents of `record` mean nothing, the same error comes
  // again.
  Result<bool> next(LdifRecord& record);

 private:
  // Both parts point into the file or into unfolded_, until the next line is read.
  struct Line {
    std::string_view name;   // as written, options included
    std::string_view value;  // as written
    bool is_base64 = false;
  };
  enum class LineKind { kEnd, kBlank, kData };

  Result<bool> read_record(LdifRecord& record);
  Result<bool> begin_record(const Line& line, LdifRecord& record);
  Result<bool> add_attribute(const Line& line, LdifRecord& record, size_t count);
  Result<bool> skip_result_block(const Line& first);
  Result<bool> skip_reference_block(Line line);
  Result<LineKind> next_line(Line& line);
  Result<LineKind> split_line(std::string_view text, Line& line) const;
  Result<bool> check_range(const Line& line) const;
  Result<bool> take_value(const Line& line, std::string& value) const;
  std::string_view physical_line();
  bool continued() const { return position_ < content_.size() && content_[position_] == ' '; }
  void shrink(LdifRecord& record, size_t count);
  tl::unexpected<Error> fail(const std::string& reason) const;

  std::string file_name_;
  std::string_view content_;
  size_t position_ = 0;      // of the first byte not read
  size_t lines_read_ = 0;    // physical lines
  size_t current_line_ = 0;  // where the logical line at hand begins
  std::string unfolded_;
  std::vector<LdifAttribute> spare_;  // elements that the last record did not need, kept for their room
  std::optional<Error> failed_;
};

}  // namespace velder
