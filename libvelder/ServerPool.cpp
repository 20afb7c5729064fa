#include "libvelder/ServerPool.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "brellog/VrLog.h"
#include "libvelder/Fold.h"
#include "libvelder/LiveSearch.h"
#include "libvelder/ServerPoolInternal.h"
#include "libvelder/TcpConnect.h"

namespace velder {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// Up to this a failure was fast: trying again costs a caller nothing.
constexpr milliseconds kFast{250};
// How often a server that fails fast is tried by callers while all are aside.
constexpr seconds kTrialPause{1};
// A server that comes and goes is not logged more often than this.
constexpr seconds kLogPause{60};
// How long the reading account's refused password is not tried again, lest we lock our own account.
constexpr uint32_t kReaderMemory = 60;
constexpr size_t kLongestPassword = 4096;

bool is_transport_failure(int code) {
  return code == kDirectoryServerDown || code == kDirectoryTimeout;
}

// Result codes of RFC 4511 with which a server says that it cannot work now.
constexpr int kBusy = 51;
constexpr int kUnavailable = 52;

// Wipes the text of a password.
class Secret {
 public:
  explicit Secret(std::string text) : text_(std::move(text)) {}
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;
  ~Secret() { OPENSSL_cleanse(text_.data(), text_.size()); }
  std::string_view text() const { return text_; }

 private:
  std::string text_;
};

tl::unexpected<Error> bad_password_file(const std::string& file, const std::string& why) {
  return tl::unexpected(Error{kDirectoryOther, "BindPasswordFile " + printable(file, 200) + ": " + why});
}

// Why the open file may not hold a password; empty when it may.
std::string refusal_of(int fd) {
  struct stat status {};
  if (fstat(fd, &status) != 0) return std::system_category().message(errno);
  if (!S_ISREG(status.st_mode)) return "not a plain file";
  if ((status.st_mode & 077) != 0) return "others than its owner have rights to it; chmod 600 it";
  if (status.st_size > static_cast<off_t>(kLongestPassword)) return "longer than a password";
  return {};
}

BindResult no_server() {
  return {BindVerdict::kCannotTell, kDirectoryServerDown, "every server has been put aside; they are probed"};
}

}  // namespace

bool is_at_work(int code) {
  return !is_transport_failure(code) && code != kBusy && code != kUnavailable;
}

Result<std::string> read_password_file(const std::string& file) {
  const FileHandle handle(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (handle.get() < 0) return bad_password_file(file, std::system_category().message(errno));
  if (const std::string why = refusal_of(handle.get()); !why.empty()) return bad_password_file(file, why);
  std::array<char, kLongestPassword> buffer{};
  const ssize_t size = read(handle.get(), buffer.data(), buffer.size());
  const int failure = errno;
  std::string_view text(buffer.data(), size > 0 ? static_cast<size_t>(size) : 0);
  if (text.ends_with('\n')) text.remove_suffix(1);
  if (text.ends_with('\r')) text.remove_suffix(1);
  std::string password(text);
  OPENSSL_cleanse(buffer.data(), buffer.size());
  if (size < 0) return bad_password_file(file, std::system_category().message(failure));
  if (password.empty()) return bad_password_file(file, "empty");
  return password;
}

ServerPool::State::State(const Domain& settings, Probes mode)
    : domain(settings), probes(mode), refused_reader(kReaderMemory, 1, Clock::now) {
  const Time long_ago = Clock::now() - std::chrono::hours(1);
  for (const std::string& url : settings.servers) {
    Server& server = servers.emplace_back();
    server.url = url;
    server.last_trial = server.last_logged = server.next_probe = long_ago;
  }
}

std::optional<ServerPool::State::Attempt> ServerPool::State::choose(const std::vector<bool>& tried) {
  const Time now = Clock::now();
  const std::lock_guard lock(mutex);
  for (size_t i = 0; i < servers.size(); ++i)
    if (!servers[i].aside && !tried[i]) return Attempt{i, servers[i].returns, now};
  return choose_trial(tried, now);
}

std::optional<ServerPool::State::Attempt> ServerPool::State::choose_trial(const std::vector<bool>& tried,
                                                                          Time now) {
  bool ask_prober = false;
  for (size_t i = 0; i < servers.size(); ++i) {
    Server& server = servers[i];
    if (!server.aside || tried[i]) continue;
    const bool due = probes == Probes::kNone && now >= server.next_probe;
    if (due || (server.failed_fast && now - server.last_trial >= kTrialPause)) {
      server.last_trial = now;
      if (due) server.next_probe = now + server.pause;
      return Attempt{i, server.returns, now};
    }
    // Somebody needs it: no reason to wait for the end of a long pause.
    const Time early = server.last_trial + kProbeFirst;
    if (early >= server.next_probe) continue;
    server.next_probe = early;
    ask_prober = probes == Probes::kBackground;
  }
  if (ask_prober) wake_prober(shared_from_this());
  return {};
}

void ServerPool::State::put_aside(const Attempt& attempt, const Error& error) {
  const Time now = Clock::now();
  std::vector<IdleConnection> idle;  // closed without the lock
  const std::lock_guard lock(mutex);
  Server& server = servers[attempt.number];
  if (server.returns != attempt.returns) return;
  server.last_trial = now;
  server.failed_fast = now - attempt.started < kFast;
  if (server.aside) return;
  server.aside = true;
  server.pause = kProbeFirst;
  server.next_probe = now + server.pause;
  idle.swap(server.idle);
  server.aside_logged = now - server.last_logged >= kLogPause;
  if (server.aside_logged) {
    server.last_logged = now;
    VRLOG(kLogError, "domain %s: server put aside: %s", domain.dns_name.c_str(), error.text.c_str());
  }
  if (probes == Probes::kBackground && !closed) wake_prober(shared_from_this());
}

void ServerPool::State::put_back(const Attempt& attempt) {
  const std::lock_guard lock(mutex);
  Server& server = servers[attempt.number];
  if (!server.aside || server.returns != attempt.returns) return;
  server.aside = false;
  ++server.returns;
  if (server.aside_logged)
    VRLOG(kLogInfo, "domain %s: server is back: %s", domain.dns_name.c_str(), server.url.c_str());
}

std::optional<LdapConnection> ServerPool::State::take_idle(size_t number) {
  std::vector<IdleConnection> stale;  // closed without the lock
  std::unique_lock lock(mutex);
  std::vector<IdleConnection>& idle = servers[number].idle;
  const Time now = Clock::now();
  const auto fresh =
      std::find_if(idle.begin(), idle.end(), [&](const auto& one) { return now - one.since < kIdleMost; });
  std::move(idle.begin(), fresh, std::back_inserter(stale));
  idle.erase(idle.begin(), fresh);
  while (!idle.empty()) {
    LdapConnection connection = std::move(idle.back().connection);
    idle.pop_back();
    if (connection.still_open()) return connection;
    stale.push_back({std::move(connection), now});
  }
  lock.unlock();
  return {};
}

void ServerPool::State::give_idle(size_t number, LdapConnection connection) {
  const std::lock_guard lock(mutex);
  if (!closed && connection.bound()) servers[number].idle.push_back({std::move(connection), Clock::now()});
}

void ServerPool::State::close() {
  std::vector<std::vector<IdleConnection>> idle;
  const std::lock_guard lock(mutex);
  closed = true;
  for (Server& server : servers) idle.push_back(std::exchange(server.idle, {}));
}

Result<LdapConnection> ServerPool::State::open_reader(const std::string& url) {
  auto connection = LdapConnection::open(domain, url);
  if (!connection) return connection;
  if (domain.bind_dn.empty()) {
    if (auto bound = connection->bind_anonymously(); !bound) return tl::unexpected(bound.error());
    return connection;
  }
  auto text = read_password_file(domain.bind_password_file);
  if (!text) return tl::unexpected(text.error());
  const Secret password(std::move(*text));
  if (refused_reader.contains(domain.bind_dn, password.text()))
    return tl::unexpected(
        Error{kDirectoryBadCredentials, url + ": the reading account was refused a moment ago"});
  const BindResult bound = connection->bind(domain.bind_dn, password.text());
  if (bound.verdict == BindVerdict::kProven) return connection;
  if (bound.verdict != BindVerdict::kCannotTell) refused_reader.remember(domain.bind_dn, password.text());
  return tl::unexpected(Error{bound.code, "the reading account: " + bound.text});
}

Result<void> ServerPool::State::read_on(const Attempt& attempt,
                                        const std::function<Result<void>(LdapConnection&)>& work) {
  auto idle = take_idle(attempt.number);
  for (;;) {
    const bool reused = idle.has_value();
    auto connection =
        reused ? Result<LdapConnection>(std::move(*idle)) : open_reader(domain.servers[attempt.number]);
    idle.reset();
    if (!connection) return tl::unexpected(connection.error());
    const uint64_t binds = connection->bind_count();
    const auto result = work(*connection);
    // One that was bound as somebody else meanwhile, or is lost, reads for nobody again.
    const bool lost = !result && is_transport_failure(result.error().code);
    if (!lost && connection->bind_count() == binds) give_idle(attempt.number, std::move(*connection));
    // The server may close a session that was idle; that says nothing about the server.
    if (lost && reused && result.error().code == kDirectoryServerDown) continue;
    return result;
  }
}

struct ServerPool::Holder {
  pid_t owner;
  std::shared_ptr<State> state;
};

ServerPool::ServerPool(const Domain& domain, Probes probes)
    : domain_(domain),
      probes_(probes),
      holder_(std::make_unique<Holder>(Holder{getpid(), std::make_shared<State>(domain, probes)}).release()) {
}

ServerPool::~ServerPool() {
  std::unique_ptr<Holder> holder(holder_.load());
  if (holder->owner == getpid()) {
    holder->state->close();
  } else {
    static_cast<void>(holder.release());  // the parent's: its locks may be held for ever here
  }
}

// A child makes a state of its own and never touches the inherited one: it is given up with all it holds.
std::shared_ptr<ServerPool::State> ServerPool::state() {
  Holder* holder = holder_.load(std::memory_order_acquire);
  if (holder->owner == getpid()) return holder->state;
  auto fresh = std::make_unique<Holder>(Holder{getpid(), std::make_shared<State>(domain_, probes_)});
  if (holder_.compare_exchange_strong(holder, fresh.get(), std::memory_order_acq_rel))
    holder = fresh.release();
  return holder->state;
}

Result<void> ServerPool::read(const std::function<Result<void>(LdapConnection&)>& work) {
  const auto own = state();
  std::vector<bool> tried(own->domain.servers.size());
  Error last{kDirectoryServerDown, "domain " + domain_.dns_name + ": " + no_server().text};
  while (const auto attempt = own->choose(tried)) {
    tried[attempt->number] = true;
    const auto result = own->read_on(*attempt, work);
    const int code = result ? kDirectorySuccess : result.error().code;
    if (is_at_work(code)) {
      own->put_back(*attempt);
      return result;
    }
    last = result.error();
    if (!is_transport_failure(code)) last.code = kDirectoryServerDown;  // says itself that it cannot work
    own->put_aside(*attempt, last);
  }
  return tl::unexpected(last);
}

BindResult ServerPool::check_bind(const std::string& dn, std::string_view password) {
  const auto own = state();
  std::vector<bool> tried(own->domain.servers.size());
  BindResult last = no_server();
  while (const auto attempt = own->choose(tried)) {
    tried[attempt->number] = true;
    auto connection = LdapConnection::open(own->domain, own->domain.servers[attempt->number]);
    last = connection
               ? connection->bind(dn, password)
               : BindResult{BindVerdict::kCannotTell, connection.error().code, connection.error().text};
    if (is_at_work(last.code)) {
      own->put_back(*attempt);
      return last;
    }
    own->put_aside(*attempt, {last.code, last.text});
    if (!is_transport_failure(last.code)) return last;  // it got the password, and may count it
  }
  return last;
}

namespace {

// A synchronisation refuses a directory without users. One is enough to see that the settings recognise them.
Result<void> find_a_user(LdapConnection& connection, const Domain& domain, ServerStatus& status) {
  SearchRequest request;
  request.base = domain.base_dn;
  request.filter = user_classes(domain.schema);
  // A server that does not know the class would find nobody.
  if (domain.schema == Schema::kAd) request.filter = all_of(request.filter + "(!(objectClass=computer))");
  request.attributes = {"1.1"};  // no attributes
  request.limits.max_entries = 1;
  request.limits.until =
      std::chrono::steady_clock::now() + seconds(domain.operation_timeout);  // pages are many
  const auto done = connection.search(request, [&](LdifRecord&) -> Result<void> {
    status.users_found = true;
    return {};
  });
  if (status.users_found) return {};
  if (!done) return done;
  return tl::unexpected(Error{kDirectoryNoSuchObject,
                              status.url + ": no users below BaseDN that the reading account may see; is "
                                           "Schema right?"});
}

// Fills `status` up to the first step that fails, whose error comes back.
Result<void> try_server(ServerPool::State& state, ServerStatus& status) {
  OpenStages stages;
  auto connection = LdapConnection::open(state.domain, status.url, &stages);
  status.resolved = stages.resolved;
  status.connected = stages.connected;
  status.tls = stages.tls;
  if (!connection) return tl::unexpected(connection.error());
  connection = state.open_reader(status.url);
  status.account_refused = !connection && connection.error().code == kDirectoryBadCredentials;
  if (!connection) return tl::unexpected(connection.error());
  status.bound = true;
  // Not every server lets everybody read what it says about itself; the base decides.
  if (const auto root = connection->read_root_dse()) {
    status.naming_contexts = root->naming_contexts.size();
    status.offers_paging = root->offers_paging;
  }
  SearchRequest base;
  base.base = state.domain.base_dn;
  base.scope = SearchScope::kBase;
  base.attributes = {"1.1"};  // no attributes
  const auto found = connection->search(base, [&](LdifRecord&) -> Result<void> {
    status.base_found = true;
    return {};
  });
  if (!found) return found;
  if (!status.base_found)
    return tl::unexpected(
        Error{kDirectoryNoSuchObject, status.url + ": BaseDN: nothing there that may be read"});
  return find_a_user(*connection, state.domain, status);
}

}  // namespace

std::vector<ServerStatus> ServerPool::probe_all() const {
  const auto own = std::make_shared<State>(domain_, Probes::kNone);
  std::vector<ServerStatus> result;
  for (const std::string& url : domain_.servers) {
    ServerStatus& status = result.emplace_back();
    status.url = url;
    status.tls_wanted = domain_.start_tls || ascii_iequals(std::string_view(url).substr(0, 6), "ldaps:");
    const auto started = State::Clock::now();
    if (const auto tried = try_server(*own, status); !tried) status.error = tried.error().text;
    status.took = std::chrono::duration_cast<milliseconds>(State::Clock::now() - started);
  }
  return result;
}

}  // namespace velder
