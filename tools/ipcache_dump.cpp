// ipcache_dump FILE: the bindings in a store file of the IP-user cache, live or compact copy, as text.
//
// Only reads, takes no lock and believes nothing in the file, so that it may be pointed at a file in use as
// well as at one that was put aside as damaged. Exit 0: the file is sound; 1: it is damaged or cannot be
// read, what was found before the damage is printed; 2: usage.
#include <fcntl.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "daemonbase/UniqueFd.h"
#include "libtorrin/BindingRecord.h"
#include "libtorrin/Printable.h"
#include "libtorrin/StoreFile.h"
#include "tools/command_line.h"

namespace {

// While binds come in, pages are used again under the reader's hands; a busy file deserves a second look.
constexpr int kAttempts = 5;

struct Dump {
  std::string lines;
  tl::expected<torrin::FileHeader, std::string> header;
};

std::string format_expiry(int64_t expiry) {
  if (expiry == torrin::kNeverExpires) return "never";
  const auto time = static_cast<time_t>(expiry);
  tm parts{};
  char text[40];
  if (gmtime_r(&time, &parts) == nullptr) return std::to_string(expiry);
  const size_t length = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return {text, length};
}

Dump read_bindings(int fd, int64_t now) {
  Dump dump;
  dump.header = torrin::check_store_file(fd, [&](const torrin::AddressKey& key, std::string_view record) {
    const auto binding = torrin::decode_record(record);
    if (!binding) return;
    std::string line = torrin::format_address(key);
    line.resize(std::max<size_t>(line.size(), 39), ' ');  // the longest IPv6 address
    line += "  " + format_expiry(binding->expiry);
    line += torrin::is_live(binding->expiry, now) ? "  " : "  (expired)  ";
    dump.lines += line + torrin::printable(binding->user) + "\n";
  });
  return dump;
}

int dump_file(const std::string& path, bool summary_only) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0) {
    std::fprintf(stderr, "ipcache_dump: %s: %s\n", path.c_str(), std::strerror(errno));
    return 1;
  }
  if (!S_ISREG(status.st_mode)) {
    std::fprintf(stderr, "ipcache_dump: %s: not a regular file\n", path.c_str());
    return 1;
  }
  Dump dump;
  bool written_meanwhile = false;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const auto before = torrin::read_file_header(fd.get());
    dump = read_bindings(fd.get(), std::time(nullptr));
    const auto after = torrin::read_file_header(fd.get());
    written_meanwhile = before && after && before->transaction != after->transaction;
    if (!written_meanwhile) break;
  }
  if (!summary_only) std::fwrite(dump.lines.data(), 1, dump.lines.size(), stdout);
  if (written_meanwhile) {
    std::fprintf(stderr, "ipcache_dump: the file was written to: the lines are of different moments\n");
  }
  if (!dump.header) {
    std::fprintf(stderr, "ipcache_dump: %s is damaged: %s\n", path.c_str(), dump.header.error().c_str());
    return 1;
  }
  std::fprintf(summary_only ? stdout : stderr,
               "%" PRIu64 " bindings, transaction %" PRIu64 ", %" PRIu64 " pages of %u bytes\n",
               dump.header->bindings.entries, dump.header->transaction, dump.header->last_page + 1,
               dump.header->page_size);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  command_line::fill_standard_descriptors();
  CLI::App app("Prints the bindings in a store file of the IP-user cache", "ipcache_dump");
  std::string path;
  bool summary_only = false;
  app.set_version_flag("--version", "ipcache_dump " AUTHCTL_VERSION);
  app.add_option("file", path, "bindings.mdb or bindings.compact.mdb")->required();
  app.add_flag("--summary", summary_only, "only check the file and count");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return command_line::finish(app, error, 1);
  }
  const int status = dump_file(path, summary_only);
  return command_line::was_printed(app) ? status : 1;
}
