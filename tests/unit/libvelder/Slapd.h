// A real directory server on a free loopback port, with data of the test's own.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

class Slapd {
 public:
  static constexpr char kProgram[] = "/usr/sbin/slapd";
  static bool installed() { return access(kProgram, X_OK) == 0; }

  // `folder` is made, and stays the caller's. `schema` is text for slapd.conf beyond the usual schemas.
  Slapd(const std::string& folder, const std::string& suffix, const std::string& schema,
        const std::string& ldif)
      : folder_(folder), port_(free_port()) {
    std::filesystem::create_directories(folder_ + "/db");
    std::ofstream(folder_ + "/data.ldif") << ldif;
    std::ofstream(folder_ + "/slapd.conf")
        << "include /etc/ldap/schema/core.schema\ninclude /etc/ldap/schema/cosine.schema\n"
           "include /etc/ldap/schema/inetorgperson.schema\ninclude /etc/ldap/schema/nis.schema\n"
        << schema << "\nmodulepath /usr/lib/ldap\nmoduleload back_mdb\nsizelimit unlimited\n"
        << "pidfile " << folder_ << "/pid\nargsfile " << folder_ << "/args\n"
        << "database mdb\nmaxsize 104857600\nsuffix \"" << suffix << "\"\ndirectory " << folder_ << "/db\n"
        << "index objectClass,cn,uid,member eq\n"
        << "access to attrs=userPassword by anonymous auth\naccess to * by * read\n";
    // -s: without a check of the entries against the schema.
    const std::string load = std::string(kProgram) + " -T add -q -s -f " + folder_ + "/slapd.conf -l " +
                             folder_ + "/data.ldif >" + folder_ + "/load.log 2>&1";
    loaded_ = system(load.c_str()) == 0;
  }
  ~Slapd() { stop(); }
  Slapd(const Slapd&) = delete;
  Slapd& operator=(const Slapd&) = delete;

  // True when it answers on its port.
  bool start() {
    if (!loaded_) return false;
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      const int log = open(log_file().c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
      dup2(log, STDERR_FILENO);
      const std::string config = folder_ + "/slapd.conf", address = url();
      execl(kProgram, kProgram, "-f", config.c_str(), "-d", "stats", "-h", address.c_str(), nullptr);
      _exit(127);
    }
    for (int tries = 0; tries < 1000; ++tries) {
      if (answers()) return true;
      if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
        pid_ = -1;
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }
  void stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  void freeze() const { kill(pid_, SIGSTOP); }
  void thaw() const { kill(pid_, SIGCONT); }

  std::string url() const { return "ldap://127.0.0.1:" + std::to_string(port_); }
  std::string load_log() const { return read(folder_ + "/load.log"); }

  // Lines of its log that hold `text`: " BIND dn=", " SRCH base=", ... It writes them before it answers.
  size_t logged(const std::string& text) const {
    std::istringstream lines(read(log_file()));
    size_t count = 0;
    for (std::string line; std::getline(lines, line);) count += line.find(text) != std::string::npos;
    return count;
  }

 private:
  static std::string read(const std::string& file) {
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
  }
  std::string log_file() const { return folder_ + "/log"; }

  static sockaddr_in loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
  }
  static uint16_t free_port() {
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

  std::string folder_;
  uint16_t port_;
  bool loaded_ = false;
  pid_t pid_ = -1;
};
