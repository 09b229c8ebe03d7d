#include "tool/session/system_profile.h"

#include <Poco/JSON/Object.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

// One rule over the whole system: an absolute glob and what to do there. In order: the last
// rule that matches decides.
struct CSystemRule {
  const char* path;
  const char* check;              // null: excluded
  const char* content = nullptr;  // "diff" or "redact": the accepted content is kept
};

const std::vector<CSystemRule>& SystemRules() {
  static const std::vector<CSystemRule> kRules = {
      // Directories change their times whenever an entry comes or goes: noise, not tampering.
      {"/**", "ignore directory times"},
      // The kernel's state, devices, runtime state, scratch space, users' files, removable media.
      {"/proc", nullptr},
      {"/sys", nullptr},
      {"/dev", nullptr},
      {"/run", nullptr},
      {"/tmp", nullptr},
      // Users' files stay out, but for where an intruder leaves a way back in: SSH keys, shell
      // start files, user systemd units and autostart entries (of root and of every home).
      {"/root/*", nullptr},
      {"/home/*/*", nullptr},
      {"/root/.ssh", "read-only"},
      {"/root/.ssh/**", "read-only"},
      {"/home/*/.ssh", "read-only"},
      {"/home/*/.ssh/**", "read-only"},
      {"/root/.bashrc", "read-only"},
      {"/root/.profile", "read-only"},
      {"/root/.bash_profile", "read-only"},
      {"/root/.bash_login", "read-only"},
      {"/root/.bash_logout", "read-only"},
      {"/root/.zshrc", "read-only"},
      {"/home/*/.bashrc", "read-only"},
      {"/home/*/.profile", "read-only"},
      {"/home/*/.bash_profile", "read-only"},
      {"/home/*/.bash_login", "read-only"},
      {"/home/*/.bash_logout", "read-only"},
      {"/home/*/.zshrc", "read-only"},
      {"/root/.config", "permissions"},
      {"/home/*/.config", "permissions"},
      {"/root/.config/*", nullptr},
      {"/home/*/.config/*", nullptr},
      {"/root/.config/systemd/**", "read-only"},
      {"/root/.config/systemd", "read-only"},
      {"/home/*/.config/systemd", "read-only"},
      {"/home/*/.config/systemd/**", "read-only"},
      {"/home/*/.config/autostart", "read-only"},
      {"/home/*/.config/autostart/**", "read-only"},
      {"/mnt", nullptr},
      {"/media", nullptr},
      {"/lost+found", nullptr},
      {"/swapfile", nullptr},
      // What the system runs and boots: nothing there changes but through packages.
      {"/usr/**", "read-only"},
      {"/bin/**", "read-only"},
      {"/sbin/**", "read-only"},
      {"/lib/**", "read-only"},
      {"/lib32/**", "read-only"},
      {"/lib64/**", "read-only"},
      {"/libx32/**", "read-only"},
      {"/boot/**", "read-only"},
      {"/opt/**", "read-only"},
      {"/srv/**", "read-only"},
      // Configuration: every change matters, but its times say nothing a hash does not.
      // Its text files are kept, to show what changed inside them; the secrets only by the first
      // field of each line that changed.
      {"/etc/**", "read-only", "diff"},
      {"/etc/shadow", "read-only", "redact"},
      {"/etc/shadow-", "read-only", "redact"},
      {"/etc/gshadow", "read-only", "redact"},
      {"/etc/gshadow-", "read-only", "redact"},
      {"/etc/ssh/ssh_host_*_key", "read-only", "redact"},
      {"/etc/ssl/private/**", "read-only", "redact"},
      {"/etc/ld.so.cache", "permissions"},
      {"/etc/adjtime", "permissions"},
      // State that programs rewrite all the time: who may touch it, not what it holds.
      {"/var/**", "permissions"},
      // Logs grow and rotate; a shrink or a rewrite of what was logged is reported.
      {"/var/log/**", "log"},
      {"/var/log/journal", nullptr},                // binary, rewritten in place by journald
      {"/var/log/apt/eipp.log.xz", "permissions"},  // rewritten whole by every apt run
      // Caches and spools hold what is downloaded, queued or regenerated.
      {"/var/tmp", nullptr},
      {"/var/cache", nullptr},
      {"/var/spool/*", nullptr},
      // ... but users' crontabs and at jobs, where an intruder schedules a way back in.
      {"/var/spool/cron", "read-only"},
      {"/var/spool/cron/**", "read-only"},
      {"/var/lib/apt/lists", nullptr},
      {"/var/backups", nullptr},
      {"/var/lib/systemd/timers", nullptr},
      {"/var/lib/systemd/random-seed", nullptr},
      {"/var/lib/dhcp", nullptr},
      {"/var/lib/logrotate", nullptr},
      {"/var/mail", nullptr},
      // The package database: every install changes it; the packages' files are checked instead.
      {"/var/lib/dpkg/**", "permissions"},
      {"/usr/share/man/index.db", nullptr},
      {"/usr/lib/python3*/**/__pycache__", nullptr},
      {"/etc/signdb", nullptr},
  };
  return kRules;
}

bool OwnFileSystem(const char* path) {
  struct stat root {};
  struct stat here {};
  return ::stat("/", &root) == 0 && ::lstat(path, &here) == 0 && S_ISDIR(here.st_mode) &&
         here.st_dev != root.st_dev;
}

// The rules of a policy rooted at "root" ("/" or "/var", say): those under it, re-rooted.
Poco::JSON::Array::Ptr RulesUnder(const std::string& root) {
  Poco::JSON::Array::Ptr rules = new Poco::JSON::Array;
  std::string prefix = root == "/" ? "/" : root + "/";
  for (const CSystemRule& rule : SystemRules()) {
    std::string path = rule.path;
    std::string relative;
    if (path == "/**") {
      relative = "**";
    } else if (path.compare(0, prefix.size(), prefix) == 0) {
      relative = path.substr(prefix.size());
    } else {
      continue;
    }
    Poco::JSON::Object::Ptr entry = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
    entry->set("path", relative);
    std::string check = rule.check == nullptr ? std::string() : rule.check;
    if (rule.check == nullptr) {
      entry->set("exclude", true);
    } else if (check == "read-only" || check == "permissions") {
      // Directory times stay ignored under the narrower rules too.
      Poco::JSON::Array::Ptr words = new Poco::JSON::Array;
      words->add(check);
      words->add(std::string("ignore directory times"));
      entry->set("check", words);
    } else {
      entry->set("check", check);
    }
    if (rule.content != nullptr) entry->set("content", std::string(rule.content));
    rules->add(entry);
  }
  return rules;
}

}  // namespace

Poco::JSON::Array::Ptr SystemPolicies() {
  Poco::JSON::Array::Ptr policies = new Poco::JSON::Array;
  bool dpkg = ::access("/var/lib/dpkg/status", R_OK) == 0;
  auto add = [&](const std::string& name, const std::string& root) {
    Poco::JSON::Object::Ptr policy = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
    policy->set("name", name);
    policy->set("root", root);
    if (dpkg) policy->set("dpkg", "/");
    policy->set("rules", RulesUnder(root));
    policies->add(policy);
  };
  add("system", "/");
  for (const char* separate : {"/boot", "/usr", "/var", "/opt"}) {
    if (OwnFileSystem(separate)) add(std::string(separate).substr(1), separate);
  }
  return policies;
}
