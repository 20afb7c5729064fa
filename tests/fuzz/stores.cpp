// The two files that the daemon finds in its folders, damaged in every way. A worker may refuse them or
// answer nonsense; it must not crash, hang or grow.
#include <fcntl.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "Fuzz.h"
#include "libtorrin/BindingCache.h"
#include "libtorrin/StoreFile.h"
#include "libvelder/DirectoryQueries.h"
#include "libvelder/SnapshotInternal.h"

using fuzz::require;

namespace {

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string sound_snapshot() {
  velder::SnapshotBuilder builder({}, {.keep_passwords = true});
  const std::string ldif = read_file(AUTHD_EXAMPLE_LDIF);
  velder::LdifReader reader("directory.ldif", ldif);
  velder::LdifRecord record;
  while (reader.next(record).value()) require(builder.add(record).has_value(), "the example is sound");
  velder::SnapshotMeta meta;
  const std::string path = fuzz::scratch_folder() + "/sound.db";
  require(builder.write(path, meta).has_value(), "the example can be written");
  return read_file(path);
}

// Without a right checksum the database engine would never see a damaged file.
void put_checksum(std::string& file) {
  auto* bytes = reinterpret_cast<unsigned char*>(file.data());
  const uint32_t sum = velder::snapshot_checksum(bytes, file.size());
  for (size_t i = 0; i < 4; ++i)
    bytes[velder::kChecksumOffset + i] = static_cast<unsigned char>(sum >> (24 - 8 * i));
}

void ask_everything(velder::SnapshotReader& reader) {
  velder::DirectoryQueries queries(reader, 100);
  std::list<UserMeta> users;
  std::list<GroupMeta> groups;
  std::list<GroupUserMeta> members;
  velder::UserRow row;
  queries.search_users("", velder::Match::kAnywhere, users);
  queries.search_users("ali", velder::Match::kAnywhere, users);
  queries.search_groups("sta", velder::Match::kAnywhere, groups);
  queries.search_groups("", velder::Match::kAnywhere, groups);
  for (const char* name : {"jmueller", "CORP\\jmueller", "jmueller@corp.example.com"}) {
    queries.user_info(name, row);
    queries.user_groups(name, groups);
    queries.check_credential(name, "secret");
  }
  std::list<std::string> names;  // each costs as much as everything else that is asked
  if (!groups.empty()) names.push_back(groups.front().cn);
  queries.all_users(names, false, members);
  queries.group_groups("", velder::Match::kAnywhere, groups);
}

}  // namespace

FUZZ_TARGET(snapshot_file) {
  fuzz::log_into_nothing(false);
  static const std::string sound = sound_snapshot();
  fuzz::Input input(bytes);
  const bool checked = input.byte() % 8 != 0;
  std::string damaged = fuzz::patched(sound, input);
  if (checked && damaged.size() >= velder::kPageSize) put_checksum(damaged);
  const auto file = velder::SnapshotFile::open(fuzz::write_scratch("damaged.db", damaged));
  if (!file) return;
  if (const auto reader = velder::SnapshotReader::open(*file)) ask_everything(**reader);
}

namespace {

constexpr size_t kMapBytes = size_t{4} << 20;
int64_t g_now = 1'800'000'000;

torrin::Surroundings surroundings() {
  return {[] { return g_now; }, fuzz::scratch_folder() + "/boot_id", kMapBytes};
}

std::string store_workdir() {
  return fuzz::scratch_folder() + "/store";
}
std::string store_folder() {
  return store_workdir() + "/ip_user_cache/";
}

// Enough bindings for a tree of two levels and some free pages.
std::string sound_store() {
  std::filesystem::create_directory(store_workdir());
  fuzz::write_scratch("boot_id", "one\n");
  torrin::BindingCache cache(surroundings());
  require(cache.initialize(store_workdir().c_str()) == 0, "a new store opens");
  for (int i = 0; i < 600; ++i) {
    const std::string ip = "10.0." + std::to_string(i / 100) + "." + std::to_string(i % 100);
    require(cache.update(ip.c_str(), "CORP\\user" + std::to_string(i)) == 0, "and takes binds");
    if (i % 7 == 0) cache.remove(ip.c_str());
  }
  return read_file(store_folder() + torrin::kLiveFile);
}

}  // namespace

FUZZ_TARGET(store_file) {
  fuzz::log_into_nothing(false);
  static const std::string sound = sound_store();
  fuzz::Input input(bytes);
  for (const char* name : {torrin::kCompactFile, "bindings.mdb-lock"}) {  // nothing of the run before
    std::filesystem::remove(store_folder() + name);
  }
  fuzz::write_scratch("store/ip_user_cache/bindings.mdb", fuzz::patched(sound, input));
  {
    torrin::BindingCache cache(surroundings());
    require(cache.initialize(store_workdir().c_str()) == 0, "a damaged store does not stop the daemon");
    for (int i = 0; i < 12; ++i) {
      const std::string ip = "10.0." + std::to_string(i % 6) + "." + std::to_string(i * 2 + 1);
      require(cache.update(ip.c_str(), std::string(static_cast<size_t>(i) * 20 + 1, 'u')) == 0,
              "binds go on");
      std::string user;
      long expire = 0;
      require(cache.query(ip.c_str(), user, expire) == 0, "and are found");
      cache.remove(("10.0." + std::to_string(i % 6) + "." + std::to_string(i * 2)).c_str());
    }
    cache.sweep();
  }
  // Its end makes the compact copy. Another one before would take most of the time of a run.
  const UniqueFd copy(open((store_folder() + torrin::kCompactFile).c_str(), O_RDONLY | O_CLOEXEC));
  require(copy.valid() && torrin::check_store_file(copy.get()).has_value(), "a sound compact copy is made");
}

FUZZ_TARGET(store_check) {
  static const std::string sound = sound_store();
  fuzz::Input input(bytes);
  const std::string path = fuzz::write_scratch("check.mdb", fuzz::patched(sound, input));
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  torrin::check_store_file(fd.get());
}
