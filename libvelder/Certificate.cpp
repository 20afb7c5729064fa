#include "libvelder/Certificate.h"

#include <openssl/bio.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

#include "libvelder/Error.h"

namespace velder {
namespace {

// How much of what a certificate says goes into the log.
constexpr size_t kTextLimit = 200;

using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;
using Memory = std::unique_ptr<BIO, decltype(&BIO_free)>;

Certificate read_certificate(std::string_view der) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(der.data());
  return {d2i_X509(nullptr, &bytes, static_cast<long>(der.size())), X509_free};
}

// What `print` writes.
template <class Print>
std::string printed(Print print) {
  const Memory memory(BIO_new(BIO_s_mem()), BIO_free);
  if (memory == nullptr) return "?";
  print(memory.get());
  char* text = nullptr;
  const long size = BIO_get_mem_data(memory.get(), &text);
  return size > 0 ? printable(std::string_view(text, static_cast<size_t>(size)), kTextLimit) : "?";
}

std::string time_text(const ASN1_TIME* time) {
  return printed([&](BIO* out) { ASN1_TIME_print(out, time); });
}

bool is_for(X509* certificate, const std::string& host) {
  return X509_check_host(certificate, host.c_str(), host.size(), 0, nullptr) == 1 ||
         X509_check_ip_asc(certificate, host.c_str(), 0) == 1;
}

// The alternative names, or the subject of a certificate without any.
std::string names_of(const X509* certificate) {
  const int place = X509_get_ext_by_NID(certificate, NID_subject_alt_name, -1);
  return printed([&](BIO* out) {
    if (place >= 0) {
      X509V3_EXT_print(out, X509_get_ext(certificate, place), 0, 0);
    } else {
      X509_NAME_print_ex(out, X509_get_subject_name(certificate), 0, XN_FLAG_RFC2253);
    }
  });
}

}  // namespace

std::string certificate_fault(std::string_view der, const std::string& host, time_t now) {
  const Certificate certificate = read_certificate(der);
  if (certificate == nullptr) return "cannot be read";
  std::string fault;
  const ASN1_TIME* from = X509_get0_notBefore(certificate.get());
  const ASN1_TIME* until = X509_get0_notAfter(certificate.get());
  if (X509_cmp_time(until, &now) < 0) {
    fault = "has expired, " + time_text(until);
  } else if (X509_cmp_time(from, &now) > 0) {
    fault = "is not valid yet (or the clock here is slow), from " + time_text(from);
  }
  if (is_for(certificate.get(), host)) return fault;
  fault += (fault.empty() ? "" : ", and ") + ("is not for the name " + host + " but for ");
  return fault + names_of(certificate.get());
}

std::string certificate_issuer(std::string_view der) {
  const Certificate certificate = read_certificate(der);
  if (certificate == nullptr) return "?";
  return printed([&](BIO* out) {
    X509_NAME_print_ex(out, X509_get_issuer_name(certificate.get()), 0, XN_FLAG_RFC2253);
  });
}

}  // namespace velder
