// Settings and LDIF files.
#include <filesystem>

#include "Fuzz.h"
#include "daemonbase/BRELConfigFile.h"
#include "libtorrin/Settings.h"
#include "libvelder/DirectoryQueries.h"
#include "libvelder/LdifReader.h"
#include "libvelder/Settings.h"
#include "libvelder/Snapshot.h"

using fuzz::require;

FUZZ_TARGET(ini) {
  fuzz::log_into_nothing(true);
  const ConfigFile file(fuzz::write_scratch("any.ini", bytes));
  require(file.ok(), "a file that is there is read");
  bool comes_back = true;
  for (const auto& [section, keys] : file.GetRawData()) {
    for (const auto& [key, value] : keys) {
      comes_back &= !value.ends_with('\r');  // read back it belongs to the line end
      require(file.getparam(section.c_str(), key.c_str()) == value, "every key has its value");
      file.getdigitparam(section.c_str(), key.c_str());
    }
    file.SerializeSection(section.c_str());
  }
  const std::string copy = fuzz::scratch_folder() + "/copy.ini";
  require(file.dump(copy.c_str()) == 0, "settings are written");
  require(!comes_back || ConfigFile(copy).GetRawData() == file.GetRawData(),
          "settings come back as they were written");
}

FUZZ_TARGET(settings) {
  fuzz::log_into_nothing(true);
  fuzz::write_scratch("LdapSetting.ini", bytes);
  const auto directory = velder::load_settings(fuzz::scratch_folder());
  if (directory) {
    for (const velder::Domain& domain : directory->domains) {
      require(!domain.dns_name.empty() && !domain.base_dn.empty(), "a domain has its names");
    }
  } else {
    require(!directory.error().text.empty(), "an error says something");
  }
  fuzz::write_scratch("IPUserCache.ini", bytes);
  const auto cache = torrin::read_settings(fuzz::scratch_folder());
  if (cache) require(cache->lifetime_minutes >= 0, "a lifetime is not negative");
}

namespace {

// The entries up to the first that is refused.
size_t add_records(std::string_view content, velder::SnapshotBuilder& builder) {
  velder::LdifReader reader("directory.ldif", content);
  velder::LdifRecord record;
  for (size_t count = 0;; ++count) {
    const auto more = reader.next(record);
    if (!more) require(reader.next(record).error().text == more.error().text, "an error comes again");
    if (!more || !*more || !builder.add(record)) return count;
  }
}

}  // namespace

FUZZ_TARGET(ldif) {
  velder::SnapshotBuilder builder({}, {.keep_passwords = true});
  require(builder.user_count() + builder.group_count() <= add_records(bytes, builder),
          "no entry counts twice");
}

FUZZ_TARGET(ldif_snapshot) {
  const velder::Settings settings;
  velder::SnapshotBuilder builder(settings, {.keep_passwords = true});
  add_records(bytes, builder);
  velder::SnapshotMeta meta;
  meta.source = "ldif";
  const std::string path = fuzz::scratch_folder() + "/directory.db";
  require(builder.write(path, meta).has_value(), "a snapshot is written");
  const auto file = velder::SnapshotFile::open(path);
  require(file.has_value(), "a snapshot that we wrote is opened");
  const auto reader = velder::SnapshotReader::open(*file);
  require(reader.has_value(), "and read");
  velder::DirectoryQueries queries(**reader, 0);
  std::list<UserMeta> users;
  require(queries.search_users("", velder::Match::kAnywhere, users) == kDirectorySuccess, "it answers");
  require(users.size() == static_cast<size_t>((*file)->meta().users), "every user is found");
  for (const UserMeta& user : users) {
    velder::UserRow row;
    require(queries.user_info(user.dn, row) == kDirectorySuccess && row.meta.dn == user.dn, "by its DN, too");
    std::list<GroupMeta> groups;
    queries.user_groups(user.dn, groups);
    queries.check_credential(user.dn, "secret");
  }
}
