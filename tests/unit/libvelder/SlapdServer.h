// A slapd of the test's own: temporary files, free ports of the loopback, gone with the object.
#pragma once

#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "libvelder/LdapConnection.h"

namespace slapd {

inline bool installed() {
  return access("/usr/sbin/slapd", X_OK) == 0 && access("/usr/bin/openssl", X_OK) == 0;
}

constexpr int kUsers = 1200;

// Users "uid=userN,ou=people,dc=example,dc=com" with the password "pwN"; more accounts stand in entries().
class Server {
 public:
  Server() {
    std::string pattern = (std::filesystem::temp_directory_path() / "slapdXXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary folder");
    folder_ = pattern;
    make_certificates();
    write("slapd.conf", configuration());
    write("entries.ldif", entries());
    std::filesystem::create_directory(folder_ / "db");
    run("/usr/sbin/slapadd -q -f slapd.conf -l entries.ldif");
    port_ = free_port();
    tls_port_ = free_port();
    start();
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  ~Server() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    std::filesystem::remove_all(folder_);
  }

  std::string url() const { return "ldap://127.0.0.1:" + std::to_string(port_); }
  std::string tls_url(const std::string& host = "127.0.0.1") const {
    return "ldaps://" + host + ":" + std::to_string(tls_port_);
  }
  std::string file(const std::string& name) const { return folder_ / name; }
  void freeze() const { kill(pid_, SIGSTOP); }
  void thaw() const { kill(pid_, SIGCONT); }

  velder::Domain domain() const {
    velder::Domain result;
    result.dns_name = "example.com";
    result.base_dn = "dc=example,dc=com";
    result.servers = {url()};
    result.ca_cert_file = file("ca.pem");
    result.connect_timeout = 2;
    result.operation_timeout = 5;
    return result;
  }

  // Bytes that are no text, more than a TLS record holds.
  static std::string photo() {
    std::string bytes;
    for (uint32_t i = 0, seed = 1; i < 300'000; ++i, seed = seed * 1664525 + 1013904223)
      bytes += static_cast<char>(seed >> 24);
    return bytes;
  }

 private:
  void write(const std::string& name, const std::string& text) const {
    std::ofstream(folder_ / name) << text;
  }

  void run(const std::string& command) const {
    const std::string line = "cd " + folder_.string() + " && { " + command + "; } >>log 2>&1";
    if (std::system(line.c_str()) != 0) throw std::runtime_error("failed: " + line);
  }

  void make_certificates() const {
    const std::string key = "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes ";
    const std::string authority =
        "-addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign";
    for (const std::string name : {"ca", "other-ca"})
      run("openssl req -x509 " + key + "-days 2 -subj /CN=" + name + " " + authority + " -keyout " + name +
          ".key -out " + name + ".pem");
    write("names", "subjectAltName=IP:127.0.0.1,DNS:directory.example.com\n");
    run("openssl req " + key + "-subj /CN=directory.example.com -keyout srv.key -out srv.csr");
    run("openssl x509 -req -in srv.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -out srv.pem "
        "-extfile names");
  }

  std::string configuration() const {
    const std::string in = folder_.string();
    return "include /etc/ldap/schema/core.schema\n"
           "include /etc/ldap/schema/cosine.schema\n"
           "include /etc/ldap/schema/inetorgperson.schema\n"
           "modulepath /usr/lib/ldap\n"
           "moduleload back_mdb\n"
           "moduleload ppolicy\n"
           "TLSCACertificateFile " +
           in +
           "/ca.pem\n"
           "TLSCertificateFile " +
           in +
           "/srv.pem\n"
           "TLSCertificateKeyFile " +
           in +
           "/srv.key\n"
           "sizelimit size.soft=500 size.hard=500 size.prtotal=unlimited\n"
           "database mdb\n"
           "maxsize 104857600\n"
           "suffix \"dc=example,dc=com\"\n"
           "rootdn \"cn=admin,dc=example,dc=com\"\n"  // the overlay writes as this one
           "directory " +
           in +
           "/db\n"
           "limits dn.exact=\"cn=small,dc=example,dc=com\" size.soft=300 size.hard=300 size.prtotal=300\n"
           "limits dn.exact=\"cn=pageless,dc=example,dc=com\" size.soft=unlimited size.hard=unlimited "
           "size.prtotal=disabled\n"
           "overlay ppolicy\n"
           "ppolicy_default \"cn=policy,dc=example,dc=com\"\n"
           "ppolicy_use_lockout\n"
           "access to attrs=userPassword by anonymous auth by * none\n"
           "access to * by * read\n";
  }

  static std::string account(const std::string& dn, const std::string& name, const std::string& password) {
    return "dn: " + dn + "\nobjectClass: inetOrgPerson\ncn: " + name + "\nsn: " + name + "\nuid: " + name +
           "\nuserPassword: " + password + "\n";
  }

  static std::string entries() {
    std::string text =
        "dn: dc=example,dc=com\nobjectClass: dcObject\nobjectClass: organization\no: Example\ndc: example\n\n"
        "dn: ou=people,dc=example,dc=com\nobjectClass: organizationalUnit\nou: people\n\n"
        "dn: cn=policy,dc=example,dc=com\nobjectClass: device\nobjectClass: pwdPolicy\ncn: policy\n"
        "pwdAttribute: userPassword\npwdLockout: TRUE\npwdMaxFailure: 3\npwdMustChange: TRUE\n\n";
    for (const std::string name : {"reader", "small", "pageless", "locked"})
      text += account("cn=" + name + ",dc=example,dc=com", name, "secret") + "\n";
    text += account("cn=reset,dc=example,dc=com", "reset", "secret") + "pwdReset: TRUE\n\n";
    text +=
        account("cn=photo,dc=example,dc=com", "photo", "secret") + "jpegPhoto:: " + base64(photo()) + "\n\n";
    for (int i = 0; i < kUsers; ++i) {
      const std::string name = "user" + std::to_string(i);
      text += account("uid=" + name + ",ou=people,dc=example,dc=com", name, "pw" + std::to_string(i)) + "\n";
    }
    return text;
  }

  static std::string base64(const std::string& bytes) {
    constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (size_t i = 0; i + 2 < bytes.size(); i += 3) {  // whole groups are enough here
      uint32_t group = 0;
      for (size_t k = 0; k < 3; ++k) group = group << 8 | static_cast<unsigned char>(bytes[i + k]);
      for (int shift = 18; shift >= 0; shift -= 6) text += kDigits[group >> shift & 63];
    }
    return text;
  }

  static int free_port() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), size);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    close(fd);
    return ntohs(address.sin_port);
  }

  void start() {
    const std::string urls = url() + "/ " + tls_url() + "/";
    const std::string config = folder_ / "slapd.conf";
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("no process for slapd");
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);  // also when the test is killed
      execl("/usr/sbin/slapd", "slapd", "-f", config.c_str(), "-d", "0", "-h", urls.c_str(), nullptr);
      _exit(127);
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!velder::LdapConnection::open(domain(), url())) {
      if (std::chrono::steady_clock::now() > end) throw std::runtime_error("slapd does not answer");
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }

  std::filesystem::path folder_;
  int port_ = 0;
  int tls_port_ = 0;
  pid_t pid_ = -1;
};

}  // namespace slapd
