// Threads of the library's own, which nobody waits for.
#pragma once

#include <functional>

namespace velder {

// Runs `body` in a detached thread that takes no signals: those belong to the program's threads. The thread
// may still run when the process ends by _exit, so `body` owns what it uses. False: no thread could be made.
bool start_background_thread(std::function<void()> body);

}  // namespace velder
