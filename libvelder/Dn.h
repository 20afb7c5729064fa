// Distinguished names: parsing (RFC 4514, with the quotes and semicolons of its forerunners), a key for
// comparing, and the escaping of what goes into DNs and filters. Pure functions, safe from every thread;
// nothing throws on bad input.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "libvelder/Error.h"

namespace velder {

struct DnAttribute {
  std::string type;   // lower case; the usual long names and OIDs become the short name ("cn", "dc", ...)
  std::string value;  // unescaped bytes; for a "#..." value the text in lower case, "#" included
  bool is_hex = false;
};

using Rdn = std::vector<DnAttribute>;  // more than one element: a multi-valued RDN ("cn=a+uid=b")

// The RDNs from left to right; the empty text is the empty DN. The error tells what is wrong, without the
// text itself.
Result<std::vector<Rdn>> parse_dn(std::string_view dn);

// Two DNs that a directory takes for the same give the same key: types in lower case, values folded by
// fold_text, blanks that mean nothing removed, the parts of a multi-valued RDN sorted, one way of escaping.
// The key is itself a DN. Empty for the empty DN and for a text that is no DN.
std::string normalize_dn(std::string_view dn);

// The values of the dc components in order, joined by dots, in the letter case of `dn`; "" when there are
// none. Components that cannot be read are passed over.
std::string dns_domain_of(std::string_view dn);

// Whether an entry stands at `base_key` or below it. Both are keys of normalize_dn; everything is below the
// empty one.
bool is_below(std::string_view dn_key, std::string_view base_key);

// `value` as it may stand behind "type=" in a DN (RFC 4514).
std::string escape_dn_value(std::string_view value);

// `value` as it may stand in a search filter (RFC 4515).
std::string escape_filter_value(std::string_view value);

}  // namespace velder
