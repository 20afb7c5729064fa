// Per-thread state of logging, and what is put on a thread or a source file to mark its lines.

#include <pthread.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <string>

#include "brellog/BrellogInternal.h"
#include "daemonbase/BRELSync.h"
#include "daemonbase/Immortal.h"

namespace {

struct ThreadState {
  VrLogContext own_context;
  VrLogContext* context = &own_context;
  brellog::TextBuffers buffers;
  ThreadState* next = nullptr;
  std::atomic<bool> has_thread{true};
};

// The states of all threads, also of those that have ended. Nothing is ever freed, but a new thread takes the
// state of an ended one: threads that come and go and log a line each do not add up.
std::atomic<ThreadState*> g_thread_states{nullptr};
thread_local ThreadState* t_state = nullptr;
thread_local int t_disable_count = 0;

ThreadState* find_free_state() {
  ThreadState* state = g_thread_states.load(std::memory_order_acquire);
  for (; state != nullptr; state = state->next) {
    bool taken = false;
    if (state->has_thread.compare_exchange_strong(taken, true, std::memory_order_acq_rel)) break;
  }
  return state;
}

ThreadState* make_thread_state() noexcept {
  ThreadState* const state = std::make_unique<ThreadState>().release();
  state->next = g_thread_states.load(std::memory_order_relaxed);
  while (!g_thread_states.compare_exchange_weak(state->next, state, std::memory_order_release,
                                                std::memory_order_relaxed)) {
  }
  return state;
}

void give_back(void* argument) {
  auto* const state = static_cast<ThreadState*>(argument);
  t_state = nullptr;
  state->own_context = VrLogContext();
  state->context = &state->own_context;
  state->has_thread.store(false, std::memory_order_release);
}

// Calls give_back() at the end of a thread: after its thread_local objects, which may log, and once more
// should somebody log after it.
void give_back_at_thread_end(ThreadState* state) {
  static const auto key = [] {
    pthread_key_t made = 0;
    return pthread_key_create(&made, give_back) == 0 ? std::optional(made) : std::nullopt;
  }();
  if (key) pthread_setspecific(*key, state);
}

ThreadState& thread_state() {
  if (t_state == nullptr) {
    t_state = find_free_state();
    if (t_state == nullptr) t_state = make_thread_state();
    give_back_at_thread_end(t_state);
  }
  return *t_state;
}

struct ModuleMap {
  BRELRWLock lock;
  std::map<std::string, std::string, std::less<>> modules GUARDED_BY(lock);  // source file path -> module
};

std::atomic<ModuleMap*> g_module_map{nullptr};  // null until the first registration

ModuleMap& module_map() {
  static const Immortal<ModuleMap> map;
  return map.get();
}

}  // namespace

namespace brellog {

TextBuffers& thread_buffers() {
  return thread_state().buffers;
}

bool thread_is_silenced() {
  return t_disable_count != 0;
}

uint32_t current_tag(const VrLogContext& context) {
  VrLogFilter* const filter = context.getLogFilter();
  const uint32_t tag = filter == nullptr ? 0 : filter->getGlobalSessionTag();
  return tag != 0 ? tag : static_cast<uint32_t>(context.getThreadTag());
}

std::string_view module_of(const char* source_file) {
  ModuleMap* const map = g_module_map.load(std::memory_order_acquire);
  if (map == nullptr) return {};
  BRELRLock guard(map->lock);
  const auto found = map->modules.find(std::string_view(source_file));
  // Entries are never removed and a name changes only at a second registration of the same file, while
  // static objects are constructed: the text outlives the lock.
  return found == map->modules.end() ? std::string_view() : std::string_view(found->second);
}

const char* base_name(const char* path) {
  const char* const slash = strrchr(path, '/');
  return slash == nullptr ? path : slash + 1;
}

void TextAppender::append(const char* format, ...) {
  const size_t room = size_ - length_;
  va_list arguments;
  va_start(arguments, format);
  const int written = vsnprintf(buffer_ + length_, room, format, arguments);
  va_end(arguments);
  if (written < 0) {
    buffer_[length_] = '\0';
  } else {
    length_ += static_cast<size_t>(written) < room ? static_cast<size_t>(written) : room - 1;
  }
}

}  // namespace brellog

VrLogContext* VrLogContext::getCurrentLogContext() {
  return thread_state().context;
}

void VrLogContext::setCurrentLogContext(VrLogContext* context) {
  ThreadState& state = thread_state();
  state.context = context == nullptr ? &state.own_context : context;
}

void VrLogContext::setCurrentLogFilter(VrLogFilter* filter) {
  getCurrentLogContext()->filter_ = filter;
}

void VrLogContext::setCurrentThreadTag(int tag) {
  getCurrentLogContext()->thread_tag_ = tag;
}

char* VrLogContext::GetLogPrefixBuffer(size_t* size) {
  *size = sizeof prefix_;
  return prefix_;
}

bool VrLogFilter::canLog(enumLogMsgType /*level*/, BRELIPList* /*list*/) {
  return true;
}
int VrLogFilter::getClientSock() {
  return 0;
}
int VrLogFilter::getServerSock() {
  return 0;
}
uint32_t VrLogFilter::getSessionTag() {
  return 0;
}
uint32_t VrLogFilter::getTransTag() {
  return 0;
}
uint32_t VrLogFilter::getLogFilerTag() {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(this));
}
uint32_t VrLogFilter::getGlobalSessionTag() {
  return 0;
}
VrLogFilter::~VrLogFilter() = default;

VrLogDisableHelper::VrLogDisableHelper() {
  ++t_disable_count;
}
VrLogDisableHelper::~VrLogDisableHelper() {
  --t_disable_count;
}

VrLogPrefixHelper::VrLogPrefixHelper(const char* source_file, const char* function, const char* format, ...) {
  const VrErrnoRestoreHelper keep_errno;
  size_t size = 0;
  char* const prefix = VrLogContext::getCurrentLogContext()->GetLogPrefixBuffer(&size);
  static_assert(sizeof saved_ >= VrLogContext::kPrefixBytes);
  memcpy(saved_, prefix, size);

  char text[brellog::kTextBytes] = "";
  if (format != nullptr) {
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
  }
  brellog::TextAppender line(prefix, size);
  if (!brellog::is_empty(source_file)) line.append("%s, ", brellog::base_name(source_file));
  if (!brellog::is_empty(function)) line.append("%s, ", function);
  if (text[0] != '\0') line.append("%s", text);
}

VrLogPrefixHelper::~VrLogPrefixHelper() {
  const VrErrnoRestoreHelper keep_errno;
  size_t size = 0;
  char* const prefix = VrLogContext::getCurrentLogContext()->GetLogPrefixBuffer(&size);
  memcpy(prefix, saved_, size);
}

char* VrLogPrefixHelper::getCurrPrefix() {
  size_t size = 0;
  return VrLogContext::getCurrentLogContext()->GetLogPrefixBuffer(&size);
}

VrLogModuleInfo::VrLogModuleInfo(const char* module_name, const char* source_file) {
  if (brellog::is_empty(module_name) || brellog::is_empty(source_file)) return;
  InitModuleInfo();
  ModuleMap& map = module_map();
  BRELWLock guard(map.lock);
  map.modules.insert_or_assign(source_file, module_name);
}

void InitModuleInfo() {
  g_module_map.store(&module_map(), std::memory_order_release);
}
