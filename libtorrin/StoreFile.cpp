// Everything is little endian. A page: number (8), pad (2), kind (2), then either the end of the node
// table (2) and the start of the nodes (2), or the page count of an overflow run (4); from byte 16 on the
// node table. A node: low size (2), high size (2), flags (2), key length (2), key, data; in a branch the
// three first fields are the child's page number.
#include "libtorrin/StoreFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

#include "libtorrin/BindingRecord.h"

namespace torrin {
namespace {

static_assert(std::endian::native == std::endian::little, "the file has the byte order of the machine");

constexpr uint32_t kMagic = 0xBEEFC0DE;
constexpr uint32_t kFileVersion = 1;
constexpr size_t kPageHeader = 16;
constexpr size_t kNodeHeader = 8;
constexpr size_t kMetaBytes = 136;  // magic, version, address, map size, two trees of 48, last page, number
constexpr size_t kTreesOffset = 24;
constexpr size_t kTreeBytes = 48;
static_assert(kTreesOffset + 2 * kTreeBytes + 2 * sizeof(uint64_t) == kMetaBytes);
constexpr uint64_t kMetaPages = 2;
constexpr uint64_t kNoPage = UINT64_MAX;  // root of an empty tree
constexpr uint16_t kBranchPage = 1;
constexpr uint16_t kLeafPage = 2;
constexpr uint16_t kOverflowPage = 4;
constexpr uint16_t kMetaPage = 8;
constexpr uint16_t kDataOnOverflowPages = 1;
constexpr uint16_t kIntegerKeys = 8;   // flag of the free-page tree, whose keys are transaction numbers
constexpr uint16_t kOneFile = 0x4000;  // stands beside it: a store that is a file, not a folder
constexpr unsigned kMaxDepth = 31;     // one less than the library's cursors can follow
constexpr uint32_t kMaxPageSize = 32768;
constexpr uint64_t kMaxTransaction = UINT64_MAX / 4;  // no store counts so far; at the end binds crash

using Error = std::optional<std::string>;

template <typename T>
T load(const uint8_t* from) {
  T value;
  std::memcpy(&value, from, sizeof(value));
  return value;
}

bool read_fully(int fd, uint8_t* into, size_t size, uint64_t offset) {
  while (size > 0) {
    const ssize_t got = pread(fd, into, size, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    into += got;
    size -= static_cast<size_t>(got);
    offset += static_cast<uint64_t>(got);
  }
  return true;
}

TreeInfo load_tree(const uint8_t* from) {
  TreeInfo tree;
  tree.depth = load<uint16_t>(from + 6);
  tree.branch_pages = load<uint64_t>(from + 8);
  tree.leaf_pages = load<uint64_t>(from + 16);
  tree.overflow_pages = load<uint64_t>(from + 24);
  tree.entries = load<uint64_t>(from + 32);
  tree.root = load<uint64_t>(from + 40);
  return tree;
}

tl::expected<FileHeader, std::string> read_meta_page(int fd, uint64_t number, uint32_t page_size) {
  std::array<uint8_t, kPageHeader + kMetaBytes> page;
  if (!read_fully(fd, page.data(), page.size(), number * page_size)) {
    return tl::unexpected<std::string>("it is cut off within its first pages");
  }
  const uint8_t* meta = page.data() + kPageHeader;
  if (load<uint64_t>(page.data()) != number || load<uint16_t>(page.data() + 10) != kMetaPage ||
      load<uint32_t>(meta) != kMagic) {
    return tl::unexpected<std::string>("its first pages are not those of a store");
  }
  if (load<uint32_t>(meta + 4) != kFileVersion) {
    return tl::unexpected("its version is " + std::to_string(load<uint32_t>(meta + 4)) + ", expected " +
                          std::to_string(kFileVersion));
  }
  FileHeader header;
  const uint8_t* trees = meta + kTreesOffset;
  header.page_size = load<uint32_t>(trees);
  header.free_pages = load_tree(trees);
  header.bindings = load_tree(trees + kTreeBytes);
  header.last_page = load<uint64_t>(trees + 2 * kTreeBytes);
  header.transaction = load<uint64_t>(trees + 2 * kTreeBytes + 8);
  if ((load<uint16_t>(trees + 4) & ~kOneFile) != kIntegerKeys ||
      load<uint16_t>(trees + kTreeBytes + 4) != 0) {
    return tl::unexpected<std::string>("its trees have flags that a store never has");
  }
  return header;
}

uint64_t pages_in_file(int fd, uint32_t page_size) {
  struct stat status {};
  if (fstat(fd, &status) != 0 || status.st_size < 0) return 0;
  return static_cast<uint64_t>(status.st_size) / page_size;
}

// One tree of the file. Both trees share the map of pages already seen.
class TreeWalk {
 public:
  enum class Kind { kBindings, kFreePages };

  TreeWalk(int fd, const FileHeader& header, Kind kind, std::vector<bool>& seen, const RecordVisitor& visit)
      : fd_(fd), header_(header), kind_(kind), seen_(seen), visit_(visit) {}

  Error run(const TreeInfo& expected) {
    if (expected.root == kNoPage) {
      if (expected.entries != 0 || expected.depth != 0) return "an empty tree counts entries";
      return std::nullopt;
    }
    if (expected.depth == 0 || expected.depth > kMaxDepth) return "a tree has an impossible depth";
    depth_ = expected.depth;
    pages_.assign(depth_, std::vector<uint8_t>(header_.page_size));
    if (Error error = walk(expected.root, 0)) return error;
    if (branches_ != expected.branch_pages || leaves_ != expected.leaf_pages ||
        overflows_ != expected.overflow_pages || entries_ != expected.entries) {
      return "a tree does not hold what its counters say";
    }
    return std::nullopt;
  }

  const std::vector<uint64_t>& free_pages() const { return free_pages_; }

 private:
  struct Node {
    const uint8_t* start;
    size_t key_size;
    uint64_t data_size;  // leaves
    uint64_t child;      // branches
    uint16_t flags;      // leaves

    const uint8_t* key() const { return start + kNodeHeader; }
    const uint8_t* data() const { return key() + key_size; }
  };

  size_t key_size() const { return kind_ == Kind::kBindings ? sizeof(AddressKey) : sizeof(uint64_t); }

  // Keys as the tree orders them.
  int compare(const uint8_t* left, const uint8_t* right) const {
    if (kind_ == Kind::kBindings) return std::memcmp(left, right, sizeof(AddressKey));
    const auto a = load<uint64_t>(left);
    const auto b = load<uint64_t>(right);
    return a < b ? -1 : a > b ? 1 : 0;
  }

  Error damaged(uint64_t number, const char* what) const {
    return "page " + std::to_string(number) + ": " + what;
  }

  Error claim(uint64_t number) {
    if (number < kMetaPages || number > header_.last_page || number >= seen_.size()) {
      return damaged(number, "is outside the file");
    }
    if (seen_[number]) return damaged(number, "is used twice");
    seen_[number] = true;
    return std::nullopt;
  }

  Error walk(uint64_t number, unsigned level) {
    if (Error error = claim(number)) return error;
    std::vector<uint8_t>& page = pages_[level];
    if (!read_fully(fd_, page.data(), page.size(), number * header_.page_size)) {
      return damaged(number, "cannot be read");
    }
    const bool leaf = level + 1 == depth_;
    if (load<uint64_t>(page.data()) != number) return damaged(number, "carries another page's number");
    if (load<uint16_t>(page.data() + 10) != (leaf ? kLeafPage : kBranchPage)) {
      return damaged(number, "is of the wrong kind");
    }
    std::vector<Node> nodes;
    if (Error error = read_nodes(page, number, leaf, nodes)) return error;
    if (leaf) {
      ++leaves_;
      return read_leaf(nodes, number);
    }
    ++branches_;
    return read_branch(nodes, number, level);
  }

  // The node table, with proof that the nodes fill their part of the page without gap or overlap.
  Error read_nodes(const std::vector<uint8_t>& page, uint64_t number, bool leaf,
                   std::vector<Node>& nodes) const {
    const size_t lower = load<uint16_t>(page.data() + 12);
    const size_t upper = load<uint16_t>(page.data() + 14);
    if (lower <= kPageHeader || lower % 2 != 0 || lower > upper || upper > page.size()) {
      return damaged(number, "has impossible bounds");
    }
    std::vector<std::pair<size_t, size_t>> spans;
    for (size_t entry = kPageHeader; entry < lower; entry += 2) {
      const size_t offset = load<uint16_t>(page.data() + entry);
      if (offset < upper || offset % 2 != 0 || offset + kNodeHeader > page.size()) {
        return damaged(number, "has an entry outside the page");
      }
      const uint8_t* start = page.data() + offset;
      const uint64_t low = load<uint32_t>(start);
      const uint64_t flags = load<uint16_t>(start + 4);
      Node node{start, load<uint16_t>(start + 6), low, low | flags << 32, static_cast<uint16_t>(flags)};
      const uint64_t inline_data = !leaf                                ? 0
                                   : node.flags == kDataOnOverflowPages ? sizeof(uint64_t)
                                                                        : node.data_size;
      const uint64_t size = (kNodeHeader + node.key_size + inline_data + 1) & ~uint64_t{1};
      if (offset + size > page.size()) return damaged(number, "has an entry that leaves the page");
      spans.emplace_back(offset, offset + size);
      nodes.push_back(node);
    }
    std::sort(spans.begin(), spans.end());
    size_t filled = upper;
    for (const auto& [from, to] : spans) {
      if (from != filled) return damaged(number, "has entries that overlap or leave gaps");
      filled = to;
    }
    if (filled != page.size()) return damaged(number, "has entries that leave gaps");
    return std::nullopt;
  }

  Error read_branch(const std::vector<Node>& nodes, uint64_t number, unsigned level) {
    // The library stops the process at a branch of one child in the tree of bindings.
    if (kind_ == Kind::kBindings && nodes.size() < 2) return damaged(number, "has a single child");
    for (size_t i = 0; i < nodes.size(); ++i) {
      // The first key of a branch stands for "everything below" and is never compared.
      if (i > 0) {
        if (nodes[i].key_size != key_size()) return damaged(number, "has a key of a wrong length");
        if (has_last_ && compare(nodes[i].key(), last_.data()) <= 0) {
          return damaged(number, "has keys out of order");
        }
        std::memcpy(floor_.data(), nodes[i].key(), key_size());
        has_floor_ = true;
      }
      if (Error error = walk(nodes[i].child, level + 1)) return error;
    }
    return std::nullopt;
  }

  Error read_leaf(const std::vector<Node>& nodes, uint64_t number) {
    for (const Node& node : nodes) {
      if (node.key_size != key_size()) return damaged(number, "has a key of a wrong length");
      if ((has_last_ && compare(node.key(), last_.data()) <= 0) ||
          (has_floor_ && compare(node.key(), floor_.data()) < 0)) {
        return damaged(number, "has keys out of order");
      }
      std::memcpy(last_.data(), node.key(), key_size());
      has_last_ = true;
      ++entries_;
      Error error = kind_ == Kind::kBindings ? read_binding(node, number) : read_free_list(node, number);
      if (error) return error;
    }
    return std::nullopt;
  }

  Error read_binding(const Node& node, uint64_t number) {
    if (node.flags != 0) return damaged(number, "has an entry of a kind that a store never has");
    const std::string_view record(reinterpret_cast<const char*>(node.data()),
                                  static_cast<size_t>(node.data_size));
    if (!decode_record(record)) return damaged(number, "has a record of an unknown format");
    if (visit_) {
      AddressKey key;
      std::copy_n(node.key(), key.size(), key.begin());
      visit_(key, record);
    }
    return std::nullopt;
  }

  // A count and so many page numbers, largest first.
  Error read_free_list(const Node& node, uint64_t number) {
    if (node.flags != 0 && node.flags != kDataOnOverflowPages) {
      return damaged(number, "has a free list of a wrong kind");
    }
    if (load<uint64_t>(node.key()) > header_.transaction) {
      return damaged(number, "has a free list of a transaction that has not been");
    }
    std::vector<uint8_t> run;
    const uint8_t* list = node.data();
    if (node.flags == kDataOnOverflowPages) {
      if (Error error = read_overflow(load<uint64_t>(node.data()), node.data_size, run)) return error;
      list = run.data() + kPageHeader;
    }
    if (node.data_size < sizeof(uint64_t) || node.data_size % sizeof(uint64_t) != 0 ||
        load<uint64_t>(list) != node.data_size / sizeof(uint64_t) - 1) {
      return damaged(number, "has a free list of a wrong length");
    }
    uint64_t before = header_.last_page + 1;
    for (uint64_t i = 1; i < node.data_size / sizeof(uint64_t); ++i) {
      const auto page = load<uint64_t>(list + i * sizeof(uint64_t));
      if (page >= before || page < kMetaPages) return damaged(number, "has a free list out of order");
      free_pages_.push_back(page);
      before = page;
    }
    return std::nullopt;
  }

  Error read_overflow(uint64_t first, uint64_t data_size, std::vector<uint8_t>& run) {
    const uint64_t count = (kPageHeader - 1 + data_size) / header_.page_size + 1;
    // Before anything is added up or allocated: both numbers are the file's own word.
    if (first >= seen_.size() || count > seen_.size() - first)
      return damaged(first, "begins a run that leaves the file");
    for (uint64_t page = first; page < first + count; ++page) {
      if (Error error = claim(page)) return error;
    }
    run.resize(count * header_.page_size);
    if (!read_fully(fd_, run.data(), run.size(), first * header_.page_size)) {
      return damaged(first, "cannot be read");
    }
    if (load<uint64_t>(run.data()) != first || load<uint16_t>(run.data() + 10) != kOverflowPage ||
        load<uint32_t>(run.data() + 12) != count) {
      return damaged(first, "is not the run of pages that is expected here");
    }
    overflows_ += count;
    return std::nullopt;
  }

  const int fd_;
  const FileHeader& header_;
  const Kind kind_;
  std::vector<bool>& seen_;
  const RecordVisitor& visit_;
  unsigned depth_ = 0;
  std::vector<std::vector<uint8_t>> pages_;  // one buffer a level
  std::array<uint8_t, 16> last_{};           // the key before, in the order of the walk
  std::array<uint8_t, 16> floor_{};          // keys from here on are not below this one
  bool has_last_ = false;
  bool has_floor_ = false;
  uint64_t branches_ = 0;
  uint64_t leaves_ = 0;
  uint64_t overflows_ = 0;
  uint64_t entries_ = 0;
  std::vector<uint64_t> free_pages_;
};

}  // namespace

tl::expected<FileHeader, std::string> read_file_header(int fd) {
  const auto page_size = static_cast<uint32_t>(sysconf(_SC_PAGESIZE));
  auto first = read_meta_page(fd, 0, page_size);
  if (!first) return first;
  if (first->page_size != page_size || page_size > kMaxPageSize) {
    return tl::unexpected("its pages have " + std::to_string(first->page_size) + " bytes, expected " +
                          std::to_string(page_size));
  }
  auto second = read_meta_page(fd, 1, page_size);
  if (!second) return second;
  if (second->page_size != page_size) return tl::unexpected<std::string>("its meta pages contradict");
  const bool second_is_newer = second->transaction > first->transaction;
  FileHeader header = second_is_newer ? *second : *first;
  // The library reads the page that the number's last bit names; it must be the one that is examined.
  if (header.transaction > kMaxTransaction || (header.transaction % 2 != 0) != second_is_newer) {
    return tl::unexpected<std::string>("its transaction number is impossible");
  }
  const uint64_t pages = pages_in_file(fd, page_size);
  // Page numbers above 2^47 could not be multiplied with the page size.
  if (header.last_page < kMetaPages - 1 || header.last_page >= uint64_t{1} << 47) {
    return tl::unexpected<std::string>("its last page number is impossible");
  }
  for (const TreeInfo* tree : {&header.free_pages, &header.bindings}) {
    if (tree->root != kNoPage && (tree->root < kMetaPages || tree->root >= pages)) {
      return tl::unexpected<std::string>("it is cut off");
    }
  }
  return header;
}

tl::expected<FileHeader, std::string> check_store_file(int fd, const RecordVisitor& visit) {
  auto header = read_file_header(fd);
  if (!header) return header;
  std::vector<bool> seen(pages_in_file(fd, header->page_size));
  TreeWalk bindings(fd, *header, TreeWalk::Kind::kBindings, seen, visit);
  if (Error error = bindings.run(header->bindings)) return tl::unexpected(std::move(*error));
  TreeWalk free_pages(fd, *header, TreeWalk::Kind::kFreePages, seen, nullptr);
  if (Error error = free_pages.run(header->free_pages)) return tl::unexpected(std::move(*error));
  std::vector<uint64_t> free = free_pages.free_pages();
  std::sort(free.begin(), free.end());
  if (std::adjacent_find(free.begin(), free.end()) != free.end()) {
    return tl::unexpected<std::string>("a page is free twice");
  }
  for (const uint64_t page : free) {
    // Pages at the end that were given back before they were written need not be in the file.
    if (page < seen.size() && seen[page]) {
      return tl::unexpected("page " + std::to_string(page) + " is used and free");
    }
  }
  // A number that is too high would leave no room for any bind.
  if (header->last_page >= seen.size() && (free.empty() || free.back() != header->last_page)) {
    return tl::unexpected<std::string>("its last page is neither there nor free");
  }
  return header;
}

}  // namespace torrin
