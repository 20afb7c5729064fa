#include "daemon/LdapSync.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

TEST(LdapSyncTest, LogDateIsLocalAndPaddedWhereNeeded) {
  setenv("TZ", "UTC-2", 1);  // two hours east
  tzset();
  const std::pair<time_t, const char*> rows[] = {
      {1709593200, "20240305.0001"},  // 4 March 23:00 UTC
      {1731412800, "20241112.0001"}, {1733047200, "20241201.0001"},
      {1725696000, "20240907.0001"}, {1728640800, "20241011.0001"},
  };
  for (const auto& [now, expected] : rows) EXPECT_EQ(sync_log_date(now), expected);
}

TEST(LdapSyncTest, CommandKeepsItsOrderOfRedirections) {
  EXPECT_EQ(sync_command("/srv/gw", false, "20240305.0001"),
            "/srv/gw/LdapSyncTool.sh 2>&1 >>/srv/gw/log/LdapSync.log.20240305.0001");
  EXPECT_EQ(sync_command("", true, ""), "/LdapSyncTool.sh verbose 2>&1 >>/log/LdapSync.log.");
}

}  // namespace
