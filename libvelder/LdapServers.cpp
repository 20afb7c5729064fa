#include "libvelder/LdapServers.h"

#include <algorithm>
#include <string>

#include "brellog/VrLog.h"

namespace velder {

LdapServers::LdapServers(const Settings& settings, const LdapServers* before) : settings_(settings) {
  for (const Domain& domain : settings_.domains) {
    std::shared_ptr<ServerPool> pool;
    if (before != nullptr) {
      const auto same = std::find_if(before->pools_.begin(), before->pools_.end(),
                                     [&](const auto& old) { return old->domain() == domain; });
      if (same != before->pools_.end()) pool = *same;
    }
    if (!pool) pool = std::make_shared<ServerPool>(domain);
    pools_.push_back(std::move(pool));
  }
  const uint32_t memory = settings_.refused_password_memory;
  const bool keep = before != nullptr && before->settings_.refused_password_memory == memory;
  bind_check_ = keep ? before->bind_check_ : std::make_shared<BindCheck>(memory);
}

void LdapServers::complain(const Error& error) const {
  std::string more;
  if (!complaints_.lets_through(more)) return;
  VRLOG(kLogError, "Directory: a look-up at the servers failed (%d): %s%s", error.code,
        printable(error.text, 1000).c_str(), more.c_str());
}

}  // namespace velder
