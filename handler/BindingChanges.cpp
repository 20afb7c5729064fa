// A thread that has the lead gathers changes until the event loop has nothing else ready, and makes them with
// the lead. What would wait goes into a line instead, served by a thread that does nothing else: each of its
// transactions holds what came during the one before, and no number of clients that bind takes the threads
// away from those who only look something up.
#include "handler/BindingChanges.h"

#include <pthread.h>

#include <iterator>
#include <utility>
#include <vector>

#include "brellog/VrLog.h"
#include "cache/Cache.h"
#include "daemonbase/BRELSync.h"
#include "daemonbase/Immortal.h"
#include "handler/QuickWork.h"
#include "wrapper/CacheWrapper.h"

namespace {

using Batch = std::vector<BindingChange>;

// Of one transaction of the line: other processes wait for no more, and one flush of the disk serves so many.
constexpr size_t kMostTogether = 256;
// More than there are clients that wait. What nobody waits for comes from clients that were answered already
// and can ask for more without end: beyond that they wait for the store themselves.
constexpr size_t kLongestLine = 100'000;
constexpr uint32_t kLineWaitMilliseconds = 30000;  // any: a change wakes the thread

QuickWork g_pace;

struct Line {
  BRELMutex mutex{false};
  BRELEvent changed;
  Batch waiting GUARDED_BY(mutex);
  // From the first change that joins to the end of the last transaction.
  bool is_busy GUARDED_BY(mutex) = false;
  bool has_thread GUARDED_BY(mutex) = false;
};
// Never destroyed: its thread uses it until the process is gone.
const Immortal<Line> g_line;

thread_local Batch t_gathered;

void answer(const BindingChange& change, int result) {
  if (change.fd < 0) return;
  if (change.exchange != nullptr) {
    // In a thread of the pool, as soon as one is free: a look-up may wait for a server.
    wait_for(change.fd, EVENT_WRITE, transparent_auth_handler, change.exchange);
    return;
  }
  VrLogContext::setCurrentThreadTag(change.fd);
  Velder::update_reply_cache(Velder::IP_USER_QUERY_REQUEST, whole_text(change.ip), nullptr, 0);
  int sent = 0;
  if (change.type == Velder::IP_USER_BIND_REQUEST) {
    VRLOG(kLogDebug, "IP_USER_BIND_REQUEST, ip(%s)->user(%s), rc(%d)", change.ip.c_str(), change.user.c_str(),
          result);
    Velder::IPUserBindResponse response;
    response.set_result(result);
    sent = reply_request(change.fd, change.type + 1, &response);
  } else {
    VRLOG(kLogDebug, "IP_USER_UNBIND_REQUEST, ip(%s), rc(%d)", change.ip.c_str(), result);
    Velder::IPUserUnBindResponse response;
    response.set_result(result);
    sent = reply_request(change.fd, change.type + 1, &response);
  }
  if (sent == -1) {
    close_connection(change.fd);
  } else {
    wait_for(change.fd, EVENT_READ, tcp_read_socket_handler, nullptr);
  }
}

using Results = std::vector<IPUserChange>;

Results make(const Batch& batch) {
  Results changes;
  changes.reserve(batch.size());
  for (const BindingChange& change : batch) {
    const bool binds = change.type == Velder::IP_USER_BIND_REQUEST;
    changes.push_back({whole_text(change.ip), binds ? &change.user : nullptr});
  }
  g_pace.run([&] {
    CacheWrapper::change_cache_items(changes);
    return 0;
  });
  return changes;
}

void answer_all(const Batch& batch, const Results& results) {
  for (size_t i = 0; i < batch.size(); ++i) answer(batch[i], results[i].result);
}

// The first of the line, once there are any.
Batch next_in_line(Line& line) {
  BRELLock guard(line.mutex);
  while (line.waiting.empty()) line.changed.Wait(guard, kLineWaitMilliseconds);
  if (line.waiting.size() <= kMostTogether) return std::exchange(line.waiting, {});
  const auto end = line.waiting.begin() + kMostTogether;
  Batch batch(std::make_move_iterator(line.waiting.begin()), std::make_move_iterator(end));
  line.waiting.erase(line.waiting.begin(), end);
  return batch;
}

void* serve_line(void* /*none*/) {
  Line& line = g_line.get();
  for (;;) {
    const Batch batch = next_in_line(line);
    const Results results = make(batch);
    {
      const BRELLock guard(line.mutex);
      line.is_busy = !line.waiting.empty();
    }
    answer_all(batch, results);
  }
}

// The thread is started when it is first needed.
bool ensure_thread(Line& line) REQUIRES(line.mutex) {
  if (line.has_thread) return true;
  pthread_t thread;
  if (pthread_create(&thread, nullptr, serve_line, nullptr) != 0) return false;
  pthread_detach(thread);
  line.has_thread = true;
  return true;
}

// Whether changes that are made now would wait, for the line or for what it is there for.
bool would_wait(Line& line) {
  {
    const BRELLock guard(line.mutex);
    if (line.is_busy) return true;
  }
  return g_pace.waited() || CacheWrapper::change_would_wait();
}

// False, and nothing done, when there is no thread to be had or the line is too long.
bool join(Line& line, Batch& batch) {
  const BRELLock guard(line.mutex);
  if (line.waiting.size() >= kLongestLine || !ensure_thread(line)) return false;
  event_let_go();  // before the thread may answer
  line.waiting.insert(line.waiting.end(), std::make_move_iterator(batch.begin()),
                      std::make_move_iterator(batch.end()));
  line.is_busy = true;
  line.changed.Signal();
  return true;
}

// Runs with the lead, possibly in the middle of another callback, or in a thread that does not have it.
void make_gathered() {
  Batch batch = std::exchange(t_gathered, {});
  if (batch.empty()) return;
  if (would_wait(g_line.get())) {
    if (join(g_line.get(), batch)) return;
    event_release_lead();
  }
  const int tag = VrLogContext::getCurrentLogContext()->getThreadTag();
  answer_all(batch, make(batch));
  VrLogContext::setCurrentThreadTag(tag);
}

}  // namespace

Outcome change_binding(BindingChange change) {
  t_gathered.push_back(std::move(change));
  if (!event_finish_later(make_gathered)) make_gathered();
  return Outcome::kHandedOver;
}
