#include "libvelder/Winbind.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>

#include "daemonbase/Immortal.h"

extern "C" {  // the header does not say so itself
#include <wbclient.h>
}

namespace velder {
namespace {

using Clock = std::chrono::steady_clock;

// Half of the daemon's usual threads.
constexpr size_t kMostQuestions = 5;
// A domain controller far away answers within this time.
constexpr std::chrono::seconds kPatience{2};
// A question that has taken longer is not waited for.
constexpr std::chrono::seconds kStuck{5};
// Where winbind keeps the pipe for whoever may have passwords checked.
constexpr char kPrivilegedFolder[] = "/var/lib/samba/winbindd_privileged";

struct Turns {
  std::mutex mutex;  // guards `begun`
  std::condition_variable freed;
  std::array<std::optional<Clock::time_point>, kMostQuestions> begun;
};

// Never destroyed: threads are still at work when a process ends.
Turns& turns() {
  static Immortal<Turns> the_turns;
  return the_turns.get();
}

int free_place(const Turns& t) {
  const auto place = std::find(t.begun.begin(), t.begun.end(), std::nullopt);
  return place == t.begun.end() ? -1 : static_cast<int>(place - t.begun.begin());
}

bool all_stuck(const Turns& t) {
  const auto limit = Clock::now() - kStuck;
  return std::all_of(t.begun.begin(), t.begun.end(),
                     [&](const auto& begun) { return begun && *begun < limit; });
}

}  // namespace

WinbindTurn::WinbindTurn() {
  Turns& t = turns();
  std::unique_lock lock(t.mutex);
  const auto deadline = Clock::now() + kPatience;
  while ((place_ = free_place(t)) < 0) {
    if (all_stuck(t) || t.freed.wait_until(lock, deadline) == std::cv_status::timeout) break;
  }
  if (place_ < 0) place_ = free_place(t);
  if (place_ >= 0) t.begun[static_cast<size_t>(place_)] = Clock::now();
}

WinbindTurn::~WinbindTurn() {
  if (place_ < 0) return;
  Turns& t = turns();
  const std::lock_guard lock(t.mutex);
  t.begun[static_cast<size_t>(place_)].reset();
  t.freed.notify_one();
}

WinbindState look_at_winbind() {
  WinbindState state;
  wbcContext* context = wbcCtxCreate();
  struct wbcInterfaceDetails* details = nullptr;  // also the name of a function
  const wbcErr code = context == nullptr ? WBC_ERR_NO_MEMORY : wbcCtxInterfaceDetails(context, &details);
  if (WBC_ERROR_IS_OK(code)) {
    state.reachable = true;
    if (details->netbios_domain != nullptr) state.netbios_domain = details->netbios_domain;
    if (access(kPrivilegedFolder, X_OK) != 0 && errno == EACCES) {
      state.why = "winbind answers this account no such question; it has to be in the group winbindd_priv";
    }
  } else {
    state.why = wbcErrorString(code);
  }
  wbcFreeMemory(details);
  wbcCtxFree(context);
  return state;
}

WinbindUser look_up_sid(const std::string& sid) {
  WinbindUser user;
  struct wbcDomainSid binary {};
  if (!WBC_ERROR_IS_OK(wbcStringToSid(sid.c_str(), &binary))) return user;
  wbcContext* context = wbcCtxCreate();
  char* domain = nullptr;
  char* name = nullptr;
  enum wbcSidType type = WBC_SID_NAME_USE_NONE;
  if (context != nullptr && WBC_ERROR_IS_OK(wbcCtxLookupSid(context, &binary, &domain, &name, &type)) &&
      domain != nullptr && name != nullptr) {
    user = {domain, name};
  }
  wbcFreeMemory(domain);
  wbcFreeMemory(name);
  wbcCtxFree(context);
  return user;
}

}  // namespace velder
