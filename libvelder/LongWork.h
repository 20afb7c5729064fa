// Tells whoever runs look-ups on a thread that others wait for that this one is about to take long.
#pragma once

namespace velder {

// See LdapModule::call_before_long_work. Written before there are threads, only read after that.
inline void (*g_long_work_hook)() = nullptr;

// Called as often as it may be true: a second call in one look-up costs the hook nothing.
inline void before_long_work() {
  if (g_long_work_hook != nullptr) g_long_work_hook();
}

}  // namespace velder
