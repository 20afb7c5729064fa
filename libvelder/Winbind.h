// Samba's winbind beside the mechanism that asks it: whether it is there, what its own domain is, and how
// many questions it gets at once.
#pragma once

#include <string>

namespace velder {

struct WinbindState {
  bool reachable = false;
  std::string netbios_domain;
  std::string why;  // not reachable, or what will keep it from answering; may be empty
};

WinbindState look_at_winbind();

// Whose a SID is; `name` is empty when winbind does not say.
struct WinbindUser {
  std::string netbios_domain;
  std::string name;
};

WinbindUser look_up_sid(const std::string& sid);

// The turn to ask one question; ends with the object. A winbind that has stopped answering holds the threads
// that asked it for minutes. A few may be held; the others refuse their clients and go on.
class WinbindTurn {
 public:
  WinbindTurn();
  ~WinbindTurn();
  WinbindTurn(const WinbindTurn&) = delete;
  WinbindTurn& operator=(const WinbindTurn&) = delete;
  bool granted() const { return place_ >= 0; }

 private:
  int place_;
};

}  // namespace velder
