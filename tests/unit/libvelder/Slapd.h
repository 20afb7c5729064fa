// A real directory server of the test's own, on free ports of the loopback, gone with the object.
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
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

class Slapd {
 public:
  static bool installed() {
    return access("/usr/sbin/slapd", X_OK) == 0 && access("/usr/bin/openssl", X_OK) == 0;
  }

  struct Content {
    std::string suffix;
    std::string ldif;
    std::string general = {};   // lines for slapd.conf before its database
    std::string database = {};  // and in it
    bool tls = false;           // with the certificates ca.pem and, of another authority, other-ca.pem
  };

  // `folder` is made, and stays the caller's.
  Slapd(const std::string& folder, const Content& content) : folder_(folder), port_(free_port()) {
    std::filesystem::create_directories(file("db"));
    write("slapd.conf",
          "include /etc/ldap/schema/core.schema\ninclude /etc/ldap/schema/cosine.schema\n"
          "include /etc/ldap/schema/inetorgperson.schema\ninclude /etc/ldap/schema/nis.schema\n"
          "modulepath /usr/lib/ldap\nmoduleload back_mdb\nsizelimit unlimited\n" +
              content.general + (content.tls ? make_certificates() : "") +
              "database mdb\nmaxsize 104857600\nsuffix \"" + content.suffix + "\"\nrootdn \"cn=admin," +
              content.suffix + "\"\ndirectory " + file("db") + "\nindex objectClass,cn,uid,member eq\n" +
              content.database + "access to attrs=userPassword by anonymous auth\naccess to * by * read\n");
    write("data.ldif", content.ldif);
    run("/usr/sbin/slapd -T add -q -s -f slapd.conf -l data.ldif");  // -s: whatever the schema says
  }
  ~Slapd() { stop(); }
  Slapd(const Slapd&) = delete;
  Slapd& operator=(const Slapd&) = delete;

  // Until it answers.
  Slapd& start() {
    const std::string urls = url() + (tls_port_ != 0 ? " " + tls_url() : "");
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);  // also when the test is killed
      if (freopen(file("log").c_str(), "a", stderr) == nullptr) _exit(126);
      execl("/usr/sbin/slapd", "slapd", "-f", file("slapd.conf").c_str(), "-d", "stats", "-h", urls.c_str(),
            nullptr);
      _exit(127);
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!answers()) {
      if (std::chrono::steady_clock::now() > end) throw std::runtime_error("slapd does not answer");
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return *this;
  }
  void stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

  std::string url() const { return "ldap://127.0.0.1:" + std::to_string(port_); }
  std::string tls_url() const { return "ldaps://127.0.0.1:" + std::to_string(tls_port_); }
  std::string file(const std::string& name) const { return folder_ + "/" + name; }

  // Lines of its log that hold `text`: " BIND dn=", " SRCH base=", ... It writes them before it answers.
  size_t logged(const std::string& text) const {
    std::ifstream log(file("log"));
    size_t count = 0;
    for (std::string line; std::getline(log, line);) count += line.find(text) != std::string::npos;
    return count;
  }

 private:
  void write(const std::string& name, const std::string& text) const { std::ofstream(file(name)) << text; }
  void run(const std::string& command) const {
    const std::string line = "cd " + folder_ + " && { " + command + "; } >>log 2>&1";
    if (std::system(line.c_str()) != 0) throw std::runtime_error("failed: " + line);
  }

  // The lines of slapd.conf that name them.
  std::string make_certificates() {
    tls_port_ = free_port();
    const std::string key = "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes ";
    for (const std::string name : {"ca", "other-ca"})
      run("openssl req -x509 " + key + "-days 2 -subj /CN=" + name +
          " -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign "
          "-keyout " +
          name + ".key -out " + name + ".pem");
    write("names", "subjectAltName=IP:127.0.0.1\n");
    run("openssl req " + key +
        "-subj /CN=directory -keyout srv.key -out srv.csr && openssl x509 -req "
        "-in srv.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -out srv.pem -extfile names");
    return "TLSCACertificateFile " + file("ca.pem") + "\nTLSCertificateFile " + file("srv.pem") +
           "\nTLSCertificateKeyFile " + file("srv.key") + "\n";
  }

  static sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
  }
  static int free_port() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), size);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    close(fd);
    return ntohs(address.sin_port);
  }
  bool answers() const {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port_);
    const bool connected = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return connected;
  }

  const std::string folder_;
  const int port_;
  int tls_port_ = 0;
  pid_t pid_ = -1;
};
