#include "libvelder/BindCheck.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <list>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "brellog/VrLog.h"
#include "libvelder/Dn.h"
#include "libvelder/LongWaits.h"
#include "libvelder/ServerPool.h"

namespace velder {
namespace {

using Digest = std::array<unsigned char, 32>;

// How often a thread that waits for another's bind looks whether it may go on waiting.
constexpr std::chrono::milliseconds kSlice{500};

// So many refused passwords of one user are remembered: several devices may have an old one each.
constexpr size_t kPasswordsOfUser = 4;

// A random key; without one (the system has no random numbers) nothing can be remembered.
class KeyedHash {
 public:
  KeyedHash() : usable_(RAND_bytes(key_.data(), static_cast<int>(key_.size())) == 1) {
    if (!usable_) VRLOG(kLogError, "no random numbers: refused passwords are not remembered");
  }
  KeyedHash(const KeyedHash&) = delete;
  KeyedHash& operator=(const KeyedHash&) = delete;
  ~KeyedHash() { OPENSSL_cleanse(key_.data(), key_.size()); }

  bool usable() const { return usable_; }

  // The length goes in, too: no other user and password make the same text.
  Digest operator()(std::string_view user, std::string_view password) const {
    std::string text;
    text.reserve(user.size() + password.size() + 24);
    text.append(std::to_string(user.size())).append(":").append(user).append(password);
    Digest digest{};
    unsigned int size = 0;
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    HMAC(EVP_sha256(), key_.data(), static_cast<int>(key_.size()), bytes, text.size(), digest.data(), &size);
    OPENSSL_cleanse(text.data(), text.size());
    return digest;
  }

 private:
  std::array<unsigned char, 32> key_{};
  const bool usable_;
};

bool same(const Digest& left, const Digest& right) {
  return CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
}

// Equal DNs of different domains are different users; a DN that cannot be normalised stands for itself.
std::string user_key(std::string_view domain, const std::string& dn) {
  const std::string normal = normalize_dn(dn);
  return std::string(domain).append(1, '\0').append(normal.empty() ? dn : normal);
}

}  // namespace

// Invariant: `users` and `order` hold the same users; `order` begins with the one refused longest ago.
struct RefusedPasswords::Table {
  using Time = std::chrono::steady_clock::time_point;
  struct Password {
    Digest digest{};
    Time until;
  };
  struct Entry {
    std::vector<Password> passwords;  // the one refused last at the end
    std::list<Digest>::iterator place;
  };

  Table(std::chrono::seconds how_long, size_t how_many, Clock the_clock)
      : lifetime(how_long), most_users(how_many), clock(std::move(the_clock)) {}

  const std::chrono::seconds lifetime;
  const size_t most_users;
  const Clock clock;
  const KeyedHash hash;
  std::mutex mutex;  // guards the two below
  std::map<Digest, Entry> users;
  std::list<Digest> order;

  bool off() const { return lifetime.count() == 0 || most_users == 0 || !hash.usable(); }

  void drop(std::map<Digest, Entry>::iterator entry) {
    order.erase(entry->second.place);
    users.erase(entry);
  }
};

RefusedPasswords::RefusedPasswords(uint32_t seconds, size_t most_users, Clock clock)
    : table_(std::make_unique<Table>(std::chrono::seconds(seconds), most_users, std::move(clock))) {}
RefusedPasswords::~RefusedPasswords() = default;

bool RefusedPasswords::contains(std::string_view user, std::string_view password) {
  if (table_->off()) return false;
  const Digest who = table_->hash(user, {});
  const Digest what = table_->hash(user, password);
  const std::lock_guard lock(table_->mutex);
  const auto found = table_->users.find(who);
  if (found == table_->users.end()) return false;
  const auto now = table_->clock();
  auto& passwords = found->second.passwords;
  std::erase_if(passwords, [&](const auto& one) { return one.until <= now; });
  const bool known = std::any_of(passwords.begin(), passwords.end(),
                                 [&](const auto& one) { return same(one.digest, what); });
  if (passwords.empty()) table_->drop(found);
  return known;
}

void RefusedPasswords::remember(std::string_view user, std::string_view password) {
  if (table_->off()) return;
  const Digest who = table_->hash(user, {});
  const Digest what = table_->hash(user, password);
  const std::lock_guard lock(table_->mutex);
  std::vector<Table::Password> passwords;
  if (const auto found = table_->users.find(who); found != table_->users.end()) {
    passwords = std::move(found->second.passwords);
    table_->drop(found);
  }
  std::erase_if(passwords, [&](const auto& one) { return same(one.digest, what); });
  if (passwords.size() == kPasswordsOfUser) passwords.erase(passwords.begin());
  passwords.push_back({what, table_->clock() + table_->lifetime});
  if (table_->users.size() >= table_->most_users) table_->drop(table_->users.find(table_->order.front()));
  const auto place = table_->order.insert(table_->order.end(), who);
  table_->users.emplace(who, Table::Entry{std::move(passwords), place});
}

void RefusedPasswords::forget(std::string_view user) {
  if (table_->off()) return;
  const Digest who = table_->hash(user, {});
  const std::lock_guard lock(table_->mutex);
  if (const auto found = table_->users.find(who); found != table_->users.end()) table_->drop(found);
}

// The binds under way. The threads that wait for one hold on to it, so it may leave the table before they
// have read the result.
struct BindCheck::Flights {
  struct Flight {
    const std::chrono::steady_clock::time_point began = std::chrono::steady_clock::now();
    std::condition_variable landed;
    bool done = false;
    BindResult result{BindVerdict::kCannotTell, kDirectoryTimeout, "the server has not answered yet"};
  };

  const KeyedHash hash;
  std::mutex mutex;  // guards the table and what is in it
  std::map<Digest, std::shared_ptr<Flight>> under_way;

  // The flight for this password. True: it is the caller's, who makes the bind and lands. False: it was
  // another thread's, and has landed unless the wait for it had to end.
  std::pair<std::shared_ptr<Flight>, bool> board(const Digest& what) {
    std::unique_lock lock(mutex);
    auto& place = under_way[what];
    if (!place) return {place = std::make_shared<Flight>(), true};
    const auto flight = place;
    LongWait patience(flight->began);
    while (!flight->done && patience.may_go_on()) flight->landed.wait_for(lock, kSlice);
    return {flight, false};
  }

  BindResult result_of(const Flight& flight) {
    const std::lock_guard lock(mutex);
    return flight.result;
  }

  void report(Flight& flight, const BindResult& result) {
    const std::lock_guard lock(mutex);
    flight.result = result;
  }

  void land(const Digest& what) {
    const std::lock_guard lock(mutex);
    const auto found = under_way.find(what);
    found->second->done = true;
    found->second->landed.notify_all();
    under_way.erase(found);
  }
};

BindCheck::BindCheck(uint32_t seconds, size_t most_users, Clock clock)
    : refused_(seconds, most_users, std::move(clock)), flights_(std::make_unique<Flights>()) {}
BindCheck::~BindCheck() = default;

BindResult BindCheck::check(ServerPool& servers, const std::string& dn, std::string_view password) {
  const Bind bind = [&](const std::string& name, std::string_view secret) {
    return servers.check_bind(name, secret);
  };
  return check(bind, servers.domain().dns_name, dn, password);
}

BindResult BindCheck::check(const Bind& bind, std::string_view domain, const std::string& dn,
                            std::string_view password) {
  if (password.empty())
    return {BindVerdict::kWrong, kDirectoryBadCredentials, "an empty password is never sent"};
  const std::string user = user_key(domain, dn);
  const auto remembered = [&] { return refused_.contains(user, password); };
  const BindResult again{BindVerdict::kWrong, kDirectoryBadCredentials,
                         "the same wrong password again, not sent"};
  if (remembered()) return again;
  if (!flights_->hash.usable()) return bind(dn, password);

  const Digest what = flights_->hash(user, password);
  const auto [flight, ours] = flights_->board(what);
  if (!ours) return flights_->result_of(*flight);
  // Lands whatever happens, or the others would wait for ever.
  const auto land = [&](Flights* flights) { flights->land(what); };
  const std::unique_ptr<Flights, decltype(land)> landing(flights_.get(), land);
  if (remembered()) {  // another flight landed between the first look and ours
    flights_->report(*flight, again);
    return again;
  }
  BindResult result = bind(dn, password);
  if (result.verdict == BindVerdict::kWrong) refused_.remember(user, password);
  if (result.verdict == BindVerdict::kProven) refused_.forget(user);
  flights_->report(*flight, result);
  return result;
}

}  // namespace velder
