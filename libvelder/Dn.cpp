#include "libvelder/Dn.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "libvelder/Fold.h"

namespace velder {
namespace {

constexpr std::string_view kHexDigits = "0123456789abcdef";

struct TypeName {
  std::string_view other;
  std::string_view usual;
};

// The types that RFC 4514 wants every implementation to know, in the other forms that they come in.
constexpr std::array<TypeName, 17> kTypeNames = {{{"2.5.4.3", "cn"},
                                                  {"commonname", "cn"},
                                                  {"2.5.4.7", "l"},
                                                  {"localityname", "l"},
                                                  {"2.5.4.8", "st"},
                                                  {"stateorprovincename", "st"},
                                                  {"2.5.4.10", "o"},
                                                  {"organizationname", "o"},
                                                  {"2.5.4.11", "ou"},
                                                  {"organizationalunitname", "ou"},
                                                  {"2.5.4.6", "c"},
                                                  {"countryname", "c"},
                                                  {"2.5.4.9", "street"},
                                                  {"0.9.2342.19200300.100.1.25", "dc"},
                                                  {"domaincomponent", "dc"},
                                                  {"0.9.2342.19200300.100.1.1", "uid"},
                                                  {"userid", "uid"}}};

// One "type=value" as it stands in the text, and what parted it from the next one.
struct Part {
  std::string_view text;
  char separator;  // ',' or '+'; NUL behind the last part
};

tl::unexpected<Error> not_a_dn(const char* reason) {
  return tl::unexpected(Error{1, reason});
}

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

void append_hex(std::string& text, char c) {
  const auto byte = static_cast<unsigned char>(c);
  text += '\\';
  text += kHexDigits[byte >> 4];
  text += kHexDigits[byte & 15];
}

bool is_control(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

// Cuts the next part off the front of `rest`. A backslash hides the character behind it; a quote hides
// separators only when it opens the value.
Part take_part(std::string_view& rest) {
  enum { kType, kValueStart, kValue, kQuoted } where = kType;
  for (size_t i = 0; i < rest.size(); ++i) {
    const char c = rest[i];
    if (c == '\\') {
      ++i;
      if (where == kValueStart) where = kValue;
    } else if (where == kQuoted) {
      if (c == '"') where = kValue;
    } else if (c == ',' || c == ';' || c == '+') {
      const Part part{rest.substr(0, i), c == '+' ? '+' : ','};
      rest.remove_prefix(i + 1);
      return part;
    } else if (where == kType) {
      if (c == '=') where = kValueStart;
    } else if (where == kValueStart && c != ' ') {
      where = c == '"' ? kQuoted : kValue;
    }
  }
  return {std::exchange(rest, {}), '\0'};
}

std::string_view trim_left(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \n\t"), text.size()));
  return text;
}

std::string_view trim(std::string_view text) {
  text = trim_left(text);
  const size_t last = text.find_last_not_of(" \n\t");
  return text.substr(0, last == std::string_view::npos ? 0 : last + 1);
}

bool is_letter(char c) {
  return c >= 'a' && c <= 'z';
}
bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

// Lower case and in the usual form; empty when `text` can be no type.
std::string read_type(std::string_view text) {
  std::string type = ascii_lower(trim(text));
  if (type.starts_with("oid.")) type.erase(0, 4);
  if (type.empty() || !(is_letter(type[0]) || is_digit(type[0]))) return "";
  const bool numeric = is_digit(type[0]);
  for (const char c : type) {
    if (numeric ? !(is_digit(c) || c == '.') : !(is_letter(c) || is_digit(c) || c == '-' || c == '_'))
      return "";
  }
  for (const TypeName& name : kTypeNames) {
    if (type == name.other) return std::string(name.usual);
  }
  return type;
}

bool is_hex_value(std::string_view text) {
  return text.size() >= 3 && text.size() % 2 == 1 &&
         std::all_of(text.begin() + 1, text.end(), [](char c) { return hex_value(c) >= 0; });
}

// Reads the escape behind the backslash at text[at] and moves `at` to its last character.
bool append_escaped(std::string_view text, size_t& at, std::string& value) {
  if (at + 1 >= text.size()) return false;
  const char next = text[at + 1];
  if (std::string_view(" \"#+,;<=>\\").find(next) != std::string_view::npos) {
    value += next;
    at += 1;
    return true;
  }
  if (at + 2 >= text.size()) return false;
  const int high = hex_value(next);
  const int low = hex_value(text[at + 2]);
  if (high < 0 || low < 0) return false;
  value += static_cast<char>(high * 16 + low);
  at += 2;
  return true;
}

std::optional<std::string> read_quoted(std::string_view text) {
  text = trim(text);
  if (text.size() < 2 || text.back() != '"') return std::nullopt;
  text = text.substr(1, text.size() - 2);
  std::string value;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '"' || text[i] == '\0') return std::nullopt;
    if (text[i] != '\\') {
      value += text[i];
    } else if (!append_escaped(text, i, value)) {
      return std::nullopt;
    }
  }
  return value;
}

std::optional<std::string> read_plain(std::string_view text) {
  std::string value;
  size_t keep = 0;  // how much of `value` is not blanks at the end that mean nothing
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\\') {
      if (!append_escaped(text, i, value)) return std::nullopt;
      keep = value.size();
    } else if (c == '\0' || c == '"' || c == '<' || c == '>') {
      return std::nullopt;
    } else {
      value += c;
      if (c != ' ' && c != '\n' && c != '\t') keep = value.size();
    }
  }
  value.resize(keep);
  return value;
}

std::optional<DnAttribute> read_attribute(std::string_view text) {
  const size_t equals = text.find('=');
  if (equals == std::string_view::npos) return std::nullopt;
  DnAttribute attribute;
  attribute.type = read_type(text.substr(0, equals));
  if (attribute.type.empty()) return std::nullopt;
  const std::string_view raw = trim_left(text.substr(equals + 1));
  if (raw.starts_with('#')) {
    const std::string_view hex = trim(raw);
    if (!is_hex_value(hex)) return std::nullopt;
    attribute.value = ascii_lower(hex);
    attribute.is_hex = true;
    return attribute;
  }
  std::optional<std::string> value = raw.starts_with('"') ? read_quoted(raw) : read_plain(raw);
  if (!value) return std::nullopt;
  attribute.value = std::move(*value);
  return attribute;
}

// Blanks at the ends fall away, several become one; a value of blanks only becomes one blank.
std::string squeeze_blanks(std::string_view text) {
  std::string result;
  for (const char c : text) {
    if (c == ' ' && (result.empty() || result.back() == ' ')) continue;
    result += c;
  }
  if (result.ends_with(' ')) result.pop_back();
  if (result.empty() && !text.empty()) result.push_back(' ');
  return result;
}

// Folding can bring forth special characters (a full-width comma), so the escaping comes last.
void append_normal_value(std::string& text, std::string_view raw) {
  const std::string value = squeeze_blanks(fold_text(raw));
  for (size_t i = 0; i < value.size(); ++i) {
    const char c = value[i];
    const bool special = std::string_view("\"+,;<>\\").find(c) != std::string_view::npos;
    if (special || is_control(c) || (c == '#' && i == 0) || value == " ") {
      append_hex(text, c);
    } else {
      text += c;
    }
  }
}

std::string normalize_attribute(const DnAttribute& attribute) {
  std::string text = attribute.type + "=";
  if (attribute.is_hex) {
    text += attribute.value;
  } else {
    append_normal_value(text, attribute.value);
  }
  return text;
}

std::string normalize_rdn(const Rdn& rdn) {
  std::vector<std::string> attributes;
  for (const DnAttribute& attribute : rdn) attributes.push_back(normalize_attribute(attribute));
  std::sort(attributes.begin(), attributes.end());
  std::string text = std::move(attributes.front());
  for (size_t i = 1; i < attributes.size(); ++i) text += "+" + attributes[i];
  return text;
}

// Ends the value that begins at key[start]. `beyond_ascii`: it has bytes that no simple rule folds.
void finish_simple_value(std::string& key, size_t start, bool beyond_ascii) {
  if (key.size() > start && key.back() == ' ') key.pop_back();
  if (!beyond_ascii) return;
  const std::string value = key.substr(start);
  key.resize(start);
  append_normal_value(key, value);
}

// What normalize_dn does for the DNs that make up nearly all of a directory: short types in letters, one in
// each RDN, values without escapes. False: `dn` needs the whole treatment, `key` means nothing.
bool normalize_simple(std::string_view dn, std::string& key) {
  constexpr size_t kShortestLongType = 6;  // "userid"
  key.reserve(dn.size());
  bool in_type = true;
  bool beyond_ascii = false;
  size_t start = 0;  // of the type or value at hand, in `key`
  for (char c : dn) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + ('a' - 'A'));
    if (c == ' ') {
      if (key.size() == start || key.back() == ' ') continue;
    } else if (in_type) {
      if (c == '=') {
        if (key.size() > start && key.back() == ' ') key.pop_back();
        if (key.size() == start || key.size() - start >= kShortestLongType) return false;
        in_type = false;
        start = key.size() + 1;
      } else if (!is_letter(c) || (key.size() > start && key.back() == ' ')) {
        return false;
      }
    } else if (c == ',') {
      finish_simple_value(key, start, std::exchange(beyond_ascii, false));
      in_type = true;
      start = key.size() + 1;
    } else if (static_cast<unsigned char>(c) >= 0x80) {
      beyond_ascii = true;
    } else if (is_control(c) || c == '\\' || c == '"' || c == '+' || c == ';' || c == '<' || c == '>' ||
               c == '#') {
      return false;
    }
    key += c;
  }
  if (in_type) return false;
  finish_simple_value(key, start, beyond_ascii);
  return true;
}

}  // namespace

Result<std::vector<Rdn>> parse_dn(std::string_view dn) {
  std::vector<Rdn> rdns;
  if (trim(dn).empty()) return rdns;
  for (char separator = ','; separator != '\0';) {
    if (separator == ',') rdns.emplace_back();
    const Part part = take_part(dn);
    std::optional<DnAttribute> attribute = read_attribute(part.text);
    if (!attribute)
      return not_a_dn("not a distinguished name, expected type=value parts with commas between");
    rdns.back().push_back(std::move(*attribute));
    separator = part.separator;
  }
  return rdns;
}

std::string normalize_dn(std::string_view dn) {
  std::string key;
  if (normalize_simple(dn, key)) return key;
  key.clear();
  const Result<std::vector<Rdn>> rdns = parse_dn(dn);
  if (!rdns) return key;
  for (const Rdn& rdn : *rdns) {
    if (!key.empty()) key += ',';
    key += normalize_rdn(rdn);
  }
  return key;
}

std::string dns_domain_of(std::string_view dn) {
  std::string domain;
  while (!dn.empty()) {
    const std::optional<DnAttribute> attribute = read_attribute(take_part(dn).text);
    if (!attribute || attribute->type != "dc" || attribute->is_hex || attribute->value.empty()) continue;
    if (!domain.empty()) domain += '.';
    domain += attribute->value;
  }
  return domain;
}

bool is_below(std::string_view dn_key, std::string_view base_key) {
  if (base_key.empty() || dn_key == base_key) return true;
  return dn_key.size() > base_key.size() + 1 && dn_key.ends_with(base_key) &&
         dn_key[dn_key.size() - base_key.size() - 1] == ',';
}

std::string escape_dn_value(std::string_view value) {
  std::string text;
  for (size_t i = 0; i < value.size(); ++i) {
    const char c = value[i];
    const bool blank_at_end = c == ' ' && (i == 0 || i + 1 == value.size());
    if (is_control(c)) {
      append_hex(text, c);
    } else {
      if (blank_at_end || (c == '#' && i == 0) ||
          std::string_view("\"+,;<>\\").find(c) != std::string_view::npos) {
        text += '\\';
      }
      text += c;
    }
  }
  return text;
}

std::string escape_filter_value(std::string_view value) {
  // Bytes beyond ASCII may stand as they are only when they make up UTF-8.
  const bool text_value = is_utf8(value);
  std::string text;
  for (const char c : value) {
    const bool special = c == '*' || c == '(' || c == ')' || c == '\\' || is_control(c);
    if (special || (!text_value && static_cast<unsigned char>(c) >= 0x80)) {
      append_hex(text, c);
    } else {
      text += c;
    }
  }
  return text;
}

}  // namespace velder
