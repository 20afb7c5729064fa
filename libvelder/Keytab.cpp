#include "libvelder/Keytab.h"

#include <krb5/krb5.h>

#include <optional>
#include <string_view>

#include "libvelder/Fold.h"
#include "libvelder/LdapModule.h"

namespace velder {
namespace {

tl::unexpected<Error> failed(const std::string& file, const std::string& why) {
  return tl::make_unexpected(Error{kDirectoryOther, "Keytab " + printable(file, 200) + ": " + why});
}

// The library's handles and the entry in hand.
class Reading {
 public:
  ~Reading() {
    if (cursor_open_) krb5_kt_end_seq_get(context_, keytab_, &cursor_);
    if (keytab_ != nullptr) krb5_kt_close(context_, keytab_);
    if (context_ != nullptr) krb5_free_context(context_);
  }
  Reading() = default;
  Reading(const Reading&) = delete;
  Reading& operator=(const Reading&) = delete;

  krb5_error_code open(const std::string& file) {
    krb5_error_code code = krb5_init_context(&context_);
    if (code == 0) code = krb5_kt_resolve(context_, ("FILE:" + file).c_str(), &keytab_);
    if (code == 0) code = krb5_kt_start_seq_get(context_, keytab_, &cursor_);
    cursor_open_ = code == 0;
    return code;
  }

  // The next key's principal when it is one of the service.
  krb5_error_code next(std::string_view service, std::optional<std::string>& principal) {
    krb5_keytab_entry entry{};
    const krb5_error_code code = krb5_kt_next_entry(context_, keytab_, &entry, &cursor_);
    if (code != 0) return code;
    if (matches(entry.principal, service)) {
      char* text = nullptr;
      if (krb5_unparse_name(context_, entry.principal, &text) == 0) principal = text;
      krb5_free_unparsed_name(context_, text);
    }
    krb5_free_keytab_entry_contents(context_, &entry);
    return 0;
  }

  std::string reason_of(krb5_error_code code) const {
    if (context_ == nullptr) return "Kerberos cannot be initialised, is its configuration readable?";
    const char* text = krb5_get_error_message(context_, code);
    std::string reason = text == nullptr ? "" : text;
    krb5_free_error_message(context_, text);
    return reason;
  }

 private:
  static std::string_view part(krb5_const_principal principal, krb5_int32 index) {
    return {principal->data[index].data, principal->data[index].length};
  }
  static bool matches(krb5_const_principal principal, std::string_view service) {
    if (service.empty()) return true;
    const size_t at = service.find('@');
    return principal->length == 2 && part(principal, 0) == service.substr(0, at) &&
           ascii_iequals(part(principal, 1), service.substr(at + 1));
  }

  krb5_context context_ = nullptr;
  krb5_keytab keytab_ = nullptr;
  krb5_kt_cursor cursor_{};
  bool cursor_open_ = false;
};

}  // namespace

Result<std::string> find_in_keytab(const std::string& file, const std::string& service) {
  Reading reading;
  if (const krb5_error_code code = reading.open(file); code != 0) {
    return failed(file, "cannot be read: " + printable(reading.reason_of(code), 300));
  }
  std::optional<std::string> principal;
  size_t keys = 0;
  krb5_error_code code = 0;
  while (!principal && (code = reading.next(service, principal)) == 0) ++keys;
  if (principal) return *principal;
  if (code != KRB5_KT_END) return failed(file, "cannot be read: " + printable(reading.reason_of(code), 300));
  if (keys == 0) return failed(file, "holds no key");
  return failed(file, "holds no key of the Service " + printable(service));
}

}  // namespace velder
