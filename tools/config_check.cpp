#include "tools/config_check.h"

#include <fcntl.h>
#include <grp.h>
#include <openssl/crypto.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <iostream>
#include <system_error>
#include <thread>
#include <vector>

#include "daemonbase/BRELConfigFile.h"
#include "daemonbase/UniqueFd.h"
#include "libtorrin/Recovery.h"
#include "libtorrin/Settings.h"
#include "libtorrin/StoreFile.h"
#include "libvelder/GssAcceptor.h"
#include "libvelder/LdifSource.h"
#include "libvelder/ServerPool.h"
#include "libvelder/Settings.h"
#include "libvelder/Snapshot.h"
#include "tools/authctl_commands.h"
#include "tools/authctl_format.h"
#include "tools/status_json.h"
#include "tools/status_log.h"
#include "tools/status_process.h"

namespace authctl {
namespace {

constexpr char kAccount[] = "quarn";
constexpr size_t kLongestWorkdir = 511;  // the daemon cuts what is longer

struct Finding {
  bool error = false;
  std::string file;
  int line = 0;
  std::string text;
};

std::string message_of(int code) {
  return std::generic_category().message(code);
}

// Takes the code first: looking up the account changes errno.
std::string refusal(int code) {
  return message_of(code) + " for " + account_name(geteuid());
}

class Checker {
 public:
  Checker(std::string workdir, bool ask_servers)
      : workdir_(std::move(workdir)), ask_servers_(ask_servers), settings_file_(path("LdapSetting.ini")) {}

  const std::vector<Finding>& findings() const { return findings_; }

  void run() {
    check_fixed_folders();
    if (!check_workdir()) return;
    check_settings();
    check_bindings();
    check_last_sync();
    check_script();
  }

 private:
  std::string path(const std::string& file) const { return velder::path_in(workdir_, file); }

  void error(const std::string& file, int line, std::string text) {
    findings_.push_back({true, file, line, std::move(text)});
  }
  void warn(const std::string& file, int line, std::string text) {
    findings_.push_back({false, file, line, std::move(text)});
  }
  void take(const std::string& file, const std::vector<SettingsProblem>& problems) {
    for (const SettingsProblem& one : problems) findings_.push_back({one.fatal, file, one.line, one.text});
  }

  // The folder is there and the account may do in it what is wanted; an error or a warning otherwise.
  bool check_folder(const std::string& folder, int rights, bool is_error, const std::string& purpose,
                    int line = 0, const std::string& in_file = {}) {
    struct stat status {};
    std::string why;
    if (stat(folder.c_str(), &status) != 0) {
      why = message_of(errno);
    } else if (!S_ISDIR(status.st_mode)) {
      why = "not a folder";
    } else if (access(folder.c_str(), rights | X_OK) != 0) {
      why = refusal(errno);
    }
    if (why.empty()) return true;
    const bool elsewhere = !in_file.empty();
    findings_.push_back({is_error, elsewhere ? in_file : folder, line,
                         (elsewhere ? folder + ": " : "") + why + ", expected a folder " + purpose});
    return false;
  }

  // A file that a key names: plain and readable.
  bool check_named_file(const std::string& file, const std::string& section, const std::string& key) {
    struct stat status {};
    std::string why;
    if (stat(file.c_str(), &status) != 0) {
      why = message_of(errno);
    } else if (!S_ISREG(status.st_mode)) {
      why = "not a plain file";
    } else if (access(file.c_str(), R_OK) != 0) {
      why = refusal(errno);
    }
    if (why.empty()) return true;
    error(settings_file_, line_of(section, key),
          "[" + section + "] " + key + ": " + file + ": " + why + ", expected a readable file");
    return false;
  }

  int line_of(const std::string& section, const std::string& key) const {
    const int line = ini_ ? ini_->line_of(section, key) : 0;
    return line != 0 || !ini_ ? line : ini_->line_of(section, "");
  }

  void check_fixed_folders() {
    const std::string pid_file = kPidFile, folder = pid_file.substr(0, pid_file.rfind('/'));
    if (check_folder(folder, W_OK, true, "that the daemon may write its pid file to") &&
        access(kPidFile, W_OK) != 0 && errno != ENOENT) {
      error(kPidFile, 0, refusal(errno) + ", expected a file that may be replaced");
    }
    const std::string log = log_path(day_text(std::time(nullptr)));
    if (check_folder(kLogFolder, W_OK, true, "for the log; without it nothing is logged") &&
        access(log.c_str(), W_OK) != 0 && errno != ENOENT) {
      error(log, 0, refusal(errno) + ": nothing is logged");
    }
  }

  bool check_workdir() {
    if (workdir_.size() > kLongestWorkdir) {
      error(workdir_, 0,
            "a path of " + std::to_string(workdir_.size()) + " characters, expected at most 511");
    }
    if (!workdir_.starts_with('/') && !workdir_.empty()) {
      warn(workdir_, 0, "not an absolute path: it depends on where the daemon is started");
    }
    const std::string folder = workdir_.empty() ? "/" : workdir_;
    return check_folder(folder, R_OK | W_OK, true, "that the daemon may write to") ||
           access(folder.c_str(), R_OK | X_OK) == 0;
  }

  void check_settings() {
    const velder::SettingsReport report = velder::examine_settings(workdir_);
    take(report.file, report.problems);
    const bool unreadable =
        std::any_of(report.problems.begin(), report.problems.end(),
                    [](const SettingsProblem& one) { return one.fatal && one.line == 0; });
    if (report.missing) {
      warn(report.file, 0, "missing: an LDIF file is the source, everything else has its default");
    } else if (!unreadable) {
      ini_.emplace(report.file);
      if (ini_->getparam("LDAP_Setting", "SyncInterval") == nullptr) {
        warn(report.file, line_of("LDAP_Setting", ""),
             "[LDAP_Setting] SyncInterval is missing: the synchronisation runs about once a minute, expected "
             "minutes such as 1440");
      }
    }
    from_servers_ = report.settings.source == velder::Source::kLdap;
    if (from_servers_) {
      check_domains(report.settings);
    } else if (!unreadable) {
      check_ldif(report.settings);
    }
    check_tokens(report.settings);
    check_snapshot();
  }

  void check_ldif(const velder::Settings& settings) {
    const std::string& file = settings.ldif_file;
    struct stat status {};
    if (stat(file.c_str(), &status) != 0 && errno == ENOENT) {
      const auto snapshot = velder::SnapshotFile::open(path(velder::kSnapshotName));
      if (snapshot && (*snapshot)->meta().source == "ldap") {
        error(file, 0,
              "missing, while directory.db is the snapshot of directory servers; expected the LDIF "
              "file, or no snapshot");
      } else {
        warn(file, 0, "missing: the directory is empty");
      }
      return;
    }
    const auto counts = velder::check_ldif(settings);
    if (!counts) {
      // The text begins with the file, perhaps with a line.
      std::string text = counts.error().text;
      int line = 0;
      if (text.starts_with(file + ":")) text.erase(0, file.size() + 1);
      const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), line);
      if (code == std::errc()) text.erase(0, static_cast<size_t>(end - text.data()) + 1);
      error(file, line, text.substr(std::min(text.find_first_not_of(' '), text.size())));
    } else if ((status.st_mode & S_IROTH) != 0) {
      warn(file, 0, "everybody on this machine may read it, and it can hold passwords; chmod 640 it");
    }
  }

  void check_domains(const velder::Settings& settings) {
    std::vector<velder::Domain> questions;
    for (const velder::Domain& domain : settings.domains) {
      bool usable = true;
      if (!domain.bind_password_file.empty()) {
        auto password = velder::read_password_file(domain.bind_password_file);
        if (!password) {
          usable = false;
          error(settings_file_, line_of(domain.section, "BindPasswordFile"),
                "[" + domain.section + "] " + password.error().text);
        } else {
          OPENSSL_cleanse(password->data(), password->size());
        }
      }
      if (!domain.ca_cert_file.empty()) {
        const bool readable = check_named_file(domain.ca_cert_file, domain.section, "CACertFile");
        const auto text = readable ? read_text(domain.ca_cert_file) : std::nullopt;
        if (text && text->find("-----BEGIN CERTIFICATE-----") == std::string::npos) {
          error(settings_file_, line_of(domain.section, "CACertFile"),
                "[" + domain.section + "] CACertFile: " + domain.ca_cert_file +
                    " holds no certificate, expected PEM text");
        }
        usable = usable && text.has_value();
      }
      // What is wrong with the account or the certificates would be said once more for each server.
      if (!usable || !ask_servers_) continue;
      for (const std::string& url : domain.servers) {
        velder::Domain& one = questions.emplace_back(domain);
        one.servers = {url};
      }
    }
    ask_all(questions);
  }

  // Of one server each, all at once.
  void ask_all(const std::vector<velder::Domain>& questions) {
    std::vector<velder::ServerStatus> answers(questions.size());
    std::vector<std::thread> threads;
    for (size_t i = 0; i < questions.size(); ++i) {
      threads.emplace_back([&questions, &answers, i] {
        const velder::ServerPool pool(questions[i], velder::ServerPool::Probes::kNone);
        for (velder::ServerStatus& answer : pool.probe_all()) answers[i] = std::move(answer);
      });
    }
    for (std::thread& thread : threads) thread.join();
    for (size_t i = 0; i < questions.size(); ++i) {
      if (answers[i].works()) continue;
      const std::string& url = questions[i].servers.front();
      error(settings_file_, line_of(questions[i].section, "Servers"),
            "[" + questions[i].section +
                "] Servers: " + (answers[i].error.starts_with(url) ? "" : url + ": ") + answers[i].error);
    }
  }

  // Each file apart, as the start would meet only the first that is wrong.
  void check_tokens(const velder::Settings& settings) {
    velder::Settings users, keytab;
    users.ntlm_user_file = settings.ntlm_user_file;
    keytab.negotiate_keytab = settings.negotiate_keytab;
    keytab.negotiate_service = settings.negotiate_service;
    check_acceptor_file(users, settings.ntlm_user_file, "NTLM", "UserFile");
    check_acceptor_file(keytab, settings.negotiate_keytab, "Negotiate", "Keytab");
  }

  void check_acceptor_file(const velder::Settings& only, const std::string& file, const std::string& section,
                           const std::string& key) {
    if (file.empty()) return;
    const int line = line_of(section, key);
    const auto checked = velder::check_acceptor_files(only);
    struct stat status {};
    if (!checked) {
      error(settings_file_, line, "[" + section + "] " + checked.error().text);
    } else if (stat(file.c_str(), &status) == 0 && (status.st_mode & S_IRWXO) != 0) {
      warn(settings_file_, line,
           "[" + section + "] " + key + ": " + file +
               ": everybody on this machine has rights to it, and it holds keys; chmod 640 it");
    }
  }

  void check_snapshot() {
    const std::string lock = path(velder::kSnapshotLockName);
    if (access(lock.c_str(), R_OK | W_OK) != 0 && errno != ENOENT) {
      error(lock, 0, refusal(errno) + ": no new snapshot can be made; remove it");
    }
    struct stat status {};
    const std::string file = path(velder::kSnapshotName);
    if (lstat(file.c_str(), &status) != 0) return;
    const auto snapshot = velder::SnapshotFile::open(file);
    if (snapshot) return;
    std::string text = snapshot.error().text;
    if (text.starts_with(file + ": ")) text.erase(0, file.size() + 2);
    warn(file, 0,
         text + (from_servers_ ? ": look-ups go to the servers until the next synchronisation"
                               : ": it is built anew at the start"));
  }

  void check_bindings() {
    const torrin::SettingsReport report = torrin::examine_settings(workdir_);
    take(report.file, report.problems);
    if (!report.settings.export_directory.empty()) {
      const ConfigFile file(report.file);
      check_folder(report.settings.export_directory, W_OK, false, "for exports",
                   file.line_of(torrin::kSettingsSection, "ExportDirectory"), report.file);
    }
    const std::string folder = path(report.settings.directory);
    struct stat status {};
    if (stat(folder.c_str(), &status) != 0 && errno == ENOENT) return;  // the start makes it
    if (!check_folder(folder, R_OK | W_OK, true, "for the bindings, of the daemon's account")) return;
    const std::string live = folder + "/" + torrin::kLiveFile;
    const UniqueFd fd(open(live.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!fd.valid() && errno == ENOENT) return;
    if (!fd.valid() || access(live.c_str(), W_OK) != 0) {
      error(live, 0, refusal(errno) + ", expected a file of its own");
      return;
    }
    if (const auto header = torrin::read_file_header(fd.get()); !header) {
      warn(live, 0, "damaged (" + header.error() + "): the start puts it aside and takes the compact copy");
    }
  }

  void check_last_sync() {
    const std::string file = path(".LastSyncTime.ini");
    struct stat status {};
    if (stat(file.c_str(), &status) != 0) return;
    if (!S_ISREG(status.st_mode)) {
      error(file, 0, "not a plain file, expected one that the script writes");
      return;
    }
    const ConfigFile record(file);
    if (!record.ok()) {
      warn(file, 0, "cannot be read: a synchronisation runs a minute after each start");
      return;
    }
    for (const ConfigFile::Remark& wrong : record.syntax_errors()) {
      warn(file, wrong.line, wrong.text + ", expected [LdapSync] and LastSyncTime=<seconds>");
    }
    const uint32_t last = record.getdigitparam("LdapSync", "LastSyncTime");
    const int line = record.line_of("LdapSync", "LastSyncTime");
    if (last == 0) {
      warn(file, line, "no time in [LdapSync] LastSyncTime, expected seconds since 1970");
    } else if (int64_t{last} > int64_t{std::time(nullptr)}) {
      warn(file, line, "[LdapSync] LastSyncTime lies in the future and is ignored");
    }
  }

  // With an LDIF file alone nobody misses the script: workers can be told to reload in other ways.
  void check_script() {
    const std::string script = path("LdapSyncTool.sh");
    struct stat status {};
    std::string why;
    if (stat(script.c_str(), &status) != 0) {
      why = message_of(errno);
    } else if (access(script.c_str(), R_OK | X_OK) != 0) {
      why = refusal(errno);
    }
    if (!why.empty()) {
      findings_.push_back(
          {from_servers_, script, 0,
           why + ", expected the script that " +
               (from_servers_ ? "fetches the directory" : "the daemon runs on its schedule")});
      return;
    }
    // The shell does not run a command whose output it cannot open.
    check_folder(path("log"), W_OK, from_servers_,
                 "for the output of LdapSyncTool.sh, which does not run without it");
  }

  const std::string workdir_;
  const bool ask_servers_;
  const std::string settings_file_;
  std::optional<ConfigFile> ini_;
  bool from_servers_ = false;
  std::vector<Finding> findings_;
};

// As whom the daemon would run, by its own rule; false with a complaint when that cannot be had.
bool become_daemon(std::vector<Finding>& findings) {
  const passwd* account = getpwnam(kAccount);
  if (geteuid() != 0) {
    if (account != nullptr && account->pw_uid != geteuid()) {
      findings.push_back({false, "", 0,
                          std::string("checked with the rights of ") + account_name(geteuid()) +
                              ", the daemon runs as " + kAccount});
    }
    return true;
  }
  if (account == nullptr) {
    findings.push_back(
        {false, "", 0,
         std::string("there is no account ") + kAccount + ": started by root, the daemon stays root"});
    return true;
  }
  const gid_t group = account->pw_gid;
  const uid_t user = account->pw_uid;
  if (initgroups(kAccount, group) == 0 && setgid(group) == 0 && setuid(user) == 0) return true;
  std::cerr << "authctl: cannot take the account " << kAccount << ": " << message_of(errno) << '\n';
  return false;
}

// File by file in the order in which they were looked at, each from its first line to its last.
void sort_findings(std::vector<Finding>& findings) {
  std::vector<std::string> files;
  for (const Finding& one : findings) {
    if (std::find(files.begin(), files.end(), one.file) == files.end()) files.push_back(one.file);
  }
  const auto place = [&files](const Finding& one) {
    return std::pair(std::find(files.begin(), files.end(), one.file) - files.begin(), one.line);
  };
  std::stable_sort(findings.begin(), findings.end(),
                   [&place](const Finding& one, const Finding& other) { return place(one) < place(other); });
}

void print_text(const std::string& workdir, const std::vector<Finding>& findings, long errors) {
  for (const Finding& one : findings) {
    std::string line = one.file;
    if (one.line != 0) line += ":" + std::to_string(one.line);
    if (!line.empty()) line += ": ";
    std::cout << printable(line + (one.error ? "error: " : "warning: ") + one.text) << '\n';
  }
  const auto counted = [](long number, const char* what) {
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
  };
  std::cout << printable(workdir.empty() ? "/" : workdir) << ": " << counted(errors, "error") << ", "
            << counted(static_cast<long>(findings.size()) - errors, "warning") << '\n';
}

void print_json(const std::string& workdir, const std::vector<Finding>& findings, long errors) {
  JsonWriter json;
  json.begin('{').text("workdir", workdir).number("errors", errors).begin('[', "findings");
  for (const Finding& one : findings) {
    json.begin('{').text("kind", one.error ? "error" : "warning").text("file", one.file);
    json.number("line", one.line).text("text", one.text).end('}');
  }
  std::cout << json.end(']').end('}').str() << '\n';
}

}  // namespace

int check_config(const CheckOptions& options) {
  const auto workdir = options.workdir ? options.workdir : find_daemon().workdir;
  if (!workdir) {
    std::cerr
        << "authctl: no daemon is running here that says what to check; name its folder with --workdir\n";
    return kExitUsage;
  }
  std::vector<Finding> findings;
  if (!become_daemon(findings)) return kExitUsage;
  Checker checker(*workdir, options.ask_servers);
  checker.run();
  findings.insert(findings.end(), checker.findings().begin(), checker.findings().end());
  sort_findings(findings);
  const long errors =
      std::count_if(findings.begin(), findings.end(), [](const Finding& one) { return one.error; });
  if (options.json) {
    print_json(*workdir, findings, errors);
  } else {
    print_text(*workdir, findings, errors);
  }
  if (!std::cout.flush()) {
    std::cerr << "authctl: cannot write to standard output\n";
    return kExitNoAnswer;
  }
  return errors == 0 ? kExitSuccess : kExitOtherResult;
}

}  // namespace authctl
