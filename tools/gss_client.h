// The client's side of an NTLM or Kerberos exchange, through the machine's GSSAPI.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <tl/expected.hpp>

namespace gss_client {

// One exchange. An error is a text for the user, without secrets.
class Client {
 public:
  using Result = tl::expected<std::string, std::string>;

  // `user` as it is to stand in the messages: "DOMAIN\user", "user", or a principal name, which is sent whole
  // and without a domain. `password` is UTF-8.
  static tl::expected<Client, std::string> ntlm(std::string_view user, const std::string& password);
  // A ticket for `service` (HTTP@host) from the caller's credential cache.
  static tl::expected<Client, std::string> kerberos(const std::string& service);

  Client(Client&& other) noexcept;
  Client& operator=(Client&& other) noexcept;
  ~Client();

  // The token to send after `received`, which is empty for the first one.
  Result next(std::string_view received);
  // Whether the peer has proven itself, too, where the mechanism provides for that.
  bool done() const;

 private:
  struct State;
  explicit Client(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

}  // namespace gss_client
