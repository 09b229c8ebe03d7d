#include "util/account_names.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <mutex>
#include <vector>

namespace {

// Names are kept for a minute: a long-running service sees accounts made or renamed after it
// started, and a burst of changes asks the system's account database once per owner.
constexpr std::chrono::seconds kKeepName{60};

struct CKnownName {
  std::string name;  // empty: no such account
  std::chrono::steady_clock::time_point asked;
};

std::mutex names_lock;
std::map<uint32_t, CKnownName> user_names;   // guarded by names_lock
std::map<uint32_t, CKnownName> group_names;  // guarded by names_lock

template <typename Entry, typename Lookup>
std::string LookUp(uint32_t id, std::map<uint32_t, CKnownName>& cache, Lookup lookup,
                   char* Entry::*name_field) {
  std::lock_guard<std::mutex> guard(names_lock);
  auto now = std::chrono::steady_clock::now();
  auto known = cache.find(id);
  if (known != cache.end() && now - known->second.asked < kKeepName) return known->second.name;
  std::vector<char> buffer(16384);
  Entry entry{};
  Entry* found = nullptr;
  std::string name;
  if (lookup(id, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) {
    name = found->*name_field;
  }
  cache.insert_or_assign(id, CKnownName{name, now});
  return name;
}

}  // namespace

std::string UserName(uint32_t uid) {
  return LookUp<struct passwd>(uid, user_names, ::getpwuid_r, &passwd::pw_name);
}

std::string GroupName(uint32_t gid) {
  return LookUp<struct group>(gid, group_names, ::getgrgid_r, &group::gr_name);
}

namespace {

bool ParseId(const std::string& text, uint32_t& id) {
  if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos)
    return false;
  unsigned long long value = std::stoull(text);
  if (value > 0xFFFFFFFFull) return false;
  id = static_cast<uint32_t>(value);
  return true;
}

}  // namespace

std::string UserNameOf(const std::string& uid) {
  uint32_t id = 0;
  return ParseId(uid, id) ? UserName(id) : std::string();
}

std::string GroupNameOf(const std::string& gid) {
  uint32_t id = 0;
  return ParseId(gid, id) ? GroupName(id) : std::string();
}
