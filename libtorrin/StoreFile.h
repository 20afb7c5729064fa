// A store file read byte by byte, without mapping it and without trusting it.
//
// The database library maps its file and believes what stands there: a cut file ends the process with
// SIGBUS, a wrong page number or length with worse. So every file that nobody has open is walked here
// before the library gets it; also the dumper reads files this way. Layout: docs/ip-user-cache.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <tl/expected.hpp>

#include "libtorrin/Address.h"

namespace torrin {

struct TreeInfo {
  uint16_t depth = 0;
  uint64_t branch_pages = 0;
  uint64_t leaf_pages = 0;
  uint64_t overflow_pages = 0;
  uint64_t entries = 0;
  uint64_t root = 0;
};

// What the newer of the two meta pages says.
struct FileHeader {
  uint32_t page_size = 0;
  uint64_t last_page = 0;
  uint64_t transaction = 0;
  TreeInfo free_pages;
  TreeInfo bindings;
};

// Called for each binding in key order; `record` is not valid after the call.
using RecordVisitor = std::function<void(const AddressKey& key, std::string_view record)>;

// Both meta pages are sound and the file holds the roots. Cheap; may be called while others write.
// The errors of both functions say what is wrong with the file.
tl::expected<FileHeader, std::string> read_file_header(int fd);

// Walks everything that is reachable: page kinds, bounds, order of keys, records, counts, free pages.
// While others write, a sound file may be called damaged. `visit` sees each binding before the rest of the
// file is known to be sound.
tl::expected<FileHeader, std::string> check_store_file(int fd, const RecordVisitor& visit = nullptr);

}  // namespace torrin
