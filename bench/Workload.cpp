#include "bench/Workload.h"

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <optional>
#include <random>

#include "bench/EchoAnswer.h"
#include "bench/LdapExchange.h"
#include "bench/Receive.h"
#include "bench/Subject.h"
#include "handler/Velder.pb.h"

namespace bench {
namespace {

using velder_client::Connection;
using velder_client::ErrorKind;
using velder_client::fail;
using velder_client::Result;

// Long enough that neighbours in the schedule do not repeat, short enough to stay in the processor's cache.
constexpr size_t kScheduleLength = 16384;

struct Question {
  int32_t type;
  std::string frame;
};

Result<Question> encode(int32_t type, const google::protobuf::Message& request) {
  Question question{type, {}};
  if (auto encoded = velder_client::encode_request(type, request, question.frame); !encoded) {
    return tl::make_unexpected(encoded.error());
  }
  return question;
}

Result<Question> question_about(RequestKind kind, const Subject& subject) {
  const auto query = [](const std::string& ip) {
    Velder::IPUserQueryRequest request;
    request.set_ip(ip);
    return encode(Velder::IP_USER_QUERY_REQUEST, request);
  };
  switch (kind) {
    case RequestKind::kUserInfo: {
      Velder::UserInfoQueryRequest request;
      request.set_user_ln(subject.user_ln);
      return encode(Velder::USER_INFO_QUERY_REQUEST, request);
    }
    case RequestKind::kValidate: {
      Velder::UserValidateRequest request;
      request.set_user_ln(subject.user_ln);
      request.set_password(subject.password);
      return encode(Velder::USER_VALIDATE_REQUEST, request);
    }
    case RequestKind::kBind: {
      Velder::IPUserBindRequest request;
      request.set_ip(subject.bound_ip);
      request.set_user_ln(subject.user_ln);
      return encode(Velder::IP_USER_BIND_REQUEST, request);
    }
    case RequestKind::kIpQueryHit: return query(subject.bound_ip);
    case RequestKind::kIpQueryMiss: return query(subject.unbound_ip);
  }
  return fail(ErrorKind::kInvalidRequest, "unknown kind of request");
}

bool is_about(const Velder::UserInfo& info, const Subject& subject) {
  return info.user_ln() == subject.user_ln && info.uid() == subject.uid &&
         info.domain_dns() == subject.domain && info.cn().ends_with(Subject::format("%07u", subject.user)) &&
         info.dn().starts_with("CN=" + info.cn()) && info.grouplist_size() > 0;
}

template <class Answer>
std::optional<Answer> parsed(std::string_view body) {
  Answer answer;
  if (!velder_client::parse_answer(body, answer)) return std::nullopt;
  return answer;
}

bool is_right(RequestKind kind, const Subject& subject, std::string_view body) {
  switch (kind) {
    case RequestKind::kUserInfo: {
      const auto answer = parsed<Velder::UserInfoQueryResponse>(body);
      return answer && answer->result() == 0 && is_about(answer->userinfo(), subject);
    }
    case RequestKind::kValidate: {
      const auto answer = parsed<Velder::UserValidateResponse>(body);
      return answer && answer->result() == 0;
    }
    case RequestKind::kBind: {
      const auto answer = parsed<Velder::IPUserBindResponse>(body);
      return answer && answer->result() == 0;
    }
    case RequestKind::kIpQueryHit: {
      const auto answer = parsed<Velder::IPUserQueryResponse>(body);
      return answer && answer->result() == 0 && is_about(answer->userinfo(), subject);
    }
    case RequestKind::kIpQueryMiss: {
      const auto answer = parsed<Velder::IPUserQueryResponse>(body);
      return answer && answer->result() != 0 && !answer->has_userinfo();
    }
  }
  return false;
}

Result<std::string> learn_answer(Connection& connection, RequestKind kind, const Subject& subject,
                                 const Question& question) {
  const auto deadline = connection.call_deadline();
  if (auto sent = connection.send_bytes(question.frame, deadline); !sent) {
    return tl::make_unexpected(sent.error());
  }
  const auto answer = connection.receive_frame(deadline);
  if (!answer) return tl::make_unexpected(answer.error());
  if (answer->type != velder_client::answer_type(question.type) || !is_right(kind, subject, answer->body)) {
    return fail(ErrorKind::kMalformedAnswer, "wrong answer about " + subject.user_ln + " (" +
                                                 subject.bound_ip + "), type " +
                                                 std::to_string(answer->type));
  }
  const auto header = velder_client::encode_header({static_cast<int32_t>(answer->body.size()), answer->type});
  return std::string(header.data(), header.size()).append(answer->body);
}

Result<Exchange> daemon_exchange(Connection& connection, RequestKind kind, const Subject& subject) {
  if (kind == RequestKind::kIpQueryHit) {
    const auto bind = question_about(RequestKind::kBind, subject);
    if (!bind) return tl::make_unexpected(bind.error());
    if (auto bound = learn_answer(connection, RequestKind::kBind, subject, *bind); !bound) {
      return tl::make_unexpected(bound.error());
    }
  }
  auto question = question_about(kind, subject);
  if (!question) return tl::make_unexpected(question.error());
  auto answer = learn_answer(connection, kind, subject, *question);
  if (!answer) return tl::make_unexpected(answer.error());
  return Exchange{std::move(question->frame), std::move(*answer)};
}

Result<Exchange> echo_exchange(RequestKind kind, const Subject& subject, size_t answer_bytes) {
  auto question = question_about(kind, subject);
  if (!question) return tl::make_unexpected(question.error());
  return Exchange{std::move(question->frame), echo_answer(question->type, answer_bytes)};
}

// The two text protocols differ in nothing but these four texts.
struct TextProtocol {
  std::string (*get)(const std::string& key);
  std::string (*set)(const std::string& key, const std::string& value);
  std::string (*hit)(const std::string& key, const std::string& value);
  const char* miss;
  const char* stored;
};

std::string bulk(const std::string& text) {
  return "$" + std::to_string(text.size()) + "\r\n" + text + "\r\n";
}

const TextProtocol kMemcachedTexts = {
    [](const std::string& key) { return "get " + key + "\r\n"; },
    [](const std::string& key, const std::string& value) {
      return "set " + key + " 0 0 " + std::to_string(value.size()) + "\r\n" + value + "\r\n";
    },
    [](const std::string& key, const std::string& value) {
      return "VALUE " + key + " 0 " + std::to_string(value.size()) + "\r\n" + value + "\r\nEND\r\n";
    },
    "END\r\n", "STORED\r\n"};

const TextProtocol kRedisTexts = {
    [](const std::string& key) { return "*2\r\n" + bulk("GET") + bulk(key); },
    [](const std::string& key, const std::string& value) {
      return "*3\r\n" + bulk("SET") + bulk(key) + bulk(value);
    },
    [](const std::string& /*key*/, const std::string& value) { return bulk(value); }, "$-1\r\n", "+OK\r\n"};

// Filler that differs from key to key.
std::string value_for(const TextProtocol& texts, const std::string& key, size_t answer_bytes) {
  const size_t frame_bytes = texts.hit(key, std::string(100, '.')).size() - 100;
  std::string value;
  while (value.size() + frame_bytes < answer_bytes) value += key + ".";
  value.resize(std::max<size_t>(answer_bytes, frame_bytes + 1) - frame_bytes, '.');
  return value;
}

// One exchange in lockstep; false when the answer is another one or does not come.
bool confirm(Connection& connection, const Exchange& exchange) {
  if (!connection.send_bytes(exchange.request, connection.call_deadline())) return false;
  std::string got;
  while (got.size() < exchange.answer.size()) {
    if (!receive_more(connection, got)) return false;
  }
  return got == exchange.answer;
}

Result<Exchange> text_exchange(Connection& connection, const TextProtocol& texts, RequestKind kind,
                               const Subject& subject, size_t answer_bytes) {
  Exchange exchange;
  std::optional<Exchange> preparation;
  const auto get_hit = [&](const std::string& key) {
    const std::string value = value_for(texts, key, answer_bytes);
    preparation = Exchange{texts.set(key, value), texts.stored};
    exchange = {texts.get(key), texts.hit(key, value)};
  };
  switch (kind) {
    case RequestKind::kUserInfo: get_hit(subject.user_ln); break;
    case RequestKind::kIpQueryHit: get_hit("ip:" + subject.bound_ip); break;
    case RequestKind::kIpQueryMiss: exchange = {texts.get(subject.unbound_ip), texts.miss}; break;
    case RequestKind::kBind: exchange = {texts.set(subject.bound_ip, subject.user_ln), texts.stored}; break;
    case RequestKind::kValidate:
      return fail(ErrorKind::kInvalidRequest, "this protocol knows no passwords of users");
  }
  if ((preparation && !confirm(connection, *preparation)) || !confirm(connection, exchange)) {
    return fail(ErrorKind::kMalformedAnswer, "wrong answer about " + subject.user_ln);
  }
  return exchange;
}

Result<Exchange> ldap_exchange(Connection& connection, RequestKind kind, const Subject& subject) {
  if (kind != RequestKind::kUserInfo && kind != RequestKind::kValidate) {
    return fail(ErrorKind::kInvalidRequest, "a directory server knows no addresses of users");
  }
  std::string search = ldap_search(subject);
  auto found = learn_ldap_answer(connection, search, subject);
  if (!found) return tl::make_unexpected(found.error());
  if (kind == RequestKind::kUserInfo) return Exchange{std::move(search), std::move(*found)};
  std::string bind = ldap_bind(dn_found(*found), subject.password);
  auto bound = learn_ldap_answer(connection, bind, subject);
  if (!bound) return tl::make_unexpected(bound.error());
  return Exchange{std::move(bind), std::move(*bound)};
}

Result<Exchange> make_exchange(const WorkloadSettings& settings, std::optional<Connection>& connection,
                               RequestKind kind, const Subject& subject) {
  switch (settings.protocol) {
    case Protocol::kDaemon: return daemon_exchange(*connection, kind, subject);
    case Protocol::kEcho: return echo_exchange(kind, subject, settings.answer_bytes);
    case Protocol::kMemcached:
      return text_exchange(*connection, kMemcachedTexts, kind, subject, settings.answer_bytes);
    case Protocol::kRedis:
      return text_exchange(*connection, kRedisTexts, kind, subject, settings.answer_bytes);
    case Protocol::kLdap: return ldap_exchange(*connection, kind, subject);
  }
  return fail(ErrorKind::kInvalidRequest, "unknown protocol");
}

std::vector<uint32_t> draw_schedule(const std::vector<Share>& shares, uint32_t keys) {
  std::mt19937 random(1);  // the same schedule in every run
  std::vector<unsigned> weights;
  for (const Share& share : shares) weights.push_back(share.weight);
  std::discrete_distribution<uint32_t> draw_kind(weights.begin(), weights.end());
  std::vector<uint32_t> next_key(shares.size());
  std::vector<uint32_t> schedule(kScheduleLength);
  for (uint32_t& index : schedule) {
    const uint32_t kind = draw_kind(random);
    index = kind * keys + next_key[kind]++ % keys;
  }
  std::shuffle(schedule.begin(), schedule.end(), random);
  return schedule;
}

}  // namespace

double Workload::mean_answer_bytes() const {
  const double sum =
      std::accumulate(schedule.begin(), schedule.end(), 0.0, [this](double total, uint32_t index) {
        return total + static_cast<double>(exchanges[index].answer.size());
      });
  return schedule.empty() ? 0 : sum / static_cast<double>(schedule.size());
}

Result<Workload> prepare_workload(const WorkloadSettings& settings) {
  std::optional<Connection> connection;
  if (settings.protocol != Protocol::kEcho) {
    auto opened = Connection::open(settings.server);
    if (!opened) return tl::make_unexpected(opened.error());
    connection.emplace(std::move(*opened));
  }
  Workload workload;
  for (const Share& share : settings.shares) {
    for (uint32_t index = 0; index < settings.keys; ++index) {
      auto exchange =
          make_exchange(settings, connection, share.kind, Subject(index * settings.step, settings.users));
      if (!exchange) return tl::make_unexpected(exchange.error());
      workload.exchanges.push_back(std::move(*exchange));
    }
  }
  workload.schedule = draw_schedule(settings.shares, settings.keys);
  return workload;
}

}  // namespace bench
