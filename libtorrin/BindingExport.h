// Export of the live bindings as CSV, to a path that a client of the daemon named.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <tl/expected.hpp>

#include "libtorrin/Address.h"
#include "libtorrin/BindingRecord.h"

namespace torrin {

class Store;

// First line of every export; an existing file without it is not ours to replace.
constexpr std::string_view kExportHeader = "ip,user,expire_at\r\n";

// One line of the export; the user is quoted where RFC 4180 asks for it.
void append_csv_line(const AddressKey& key, const BindingView& binding, std::string& out);

// What clients may not name.
struct ExportRules {
  std::string only_below;  // absolute; empty: exports may go anywhere
  std::string own_folder;  // where the store lies: nothing may go there
  std::string workdir;     // no new settings may appear there
};

// Writes the bindings that are live at `now`, sorted by address, to the absolute path `path`. The folders of
// the path must exist; no link is followed, neither in the path nor at its end, and only a regular file that
// is an earlier export is replaced. The new file has the mode 0640. Nothing is left behind by a failure; the
// error is its reason. Callable from any thread.
tl::expected<void, std::string> export_bindings(Store& store, const std::string& path,
                                                const ExportRules& rules, int64_t now);

}  // namespace torrin
