#include "tool/packages/package_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <vector>

#include "refhost/file_descriptor.h"
#include "refhost/file_io.h"
#include "util/text_conversion.h"

namespace {

std::string ReadAll(const std::string& path) {
  std::vector<uint8_t> bytes = ReadWholeFile(path);
  return std::string(bytes.begin(), bytes.end());
}

// Calls "line" for each line of "text", without its newline.
template <typename CLine>
void ForEachLine(std::string_view text, const CLine& line) {
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    line(text.substr(start, end - start));
    start = end + 1;
  }
}

std::string_view Trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r'))
    text.remove_suffix(1);
  return text;
}

struct CInstalled {
  std::string version;
  std::vector<std::pair<std::string, std::string>> conffiles;  // path, md5
};

bool EndsWith(const std::string& text, std::string_view suffix) {
  return text.size() > suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The installed packages of a status file's text, by name.
std::unordered_map<std::string, CInstalled> ParseStatus(const std::string& text) {
  std::unordered_map<std::string, CInstalled> installed;
  std::string name;
  CInstalled current;
  bool is_installed = false;
  bool in_conffiles = false;
  auto finish = [&] {
    if (!name.empty() && is_installed) installed[name] = std::move(current);
    name.clear();
    current = CInstalled();
    is_installed = false;
    in_conffiles = false;
  };
  ForEachLine(text, [&](std::string_view line) {
    if (Trimmed(line).empty()) {
      finish();
      return;
    }
    if (line.front() == ' ' || line.front() == '\t') {
      if (!in_conffiles) return;
      std::string_view entry = Trimmed(line);  // "/etc/x.conf 0123abcd..." [obsolete]
      size_t space = entry.find(' ');
      if (space == std::string_view::npos) return;
      std::string_view md5 = Trimmed(entry.substr(space + 1));
      md5 = md5.substr(0, md5.find(' '));
      current.conffiles.emplace_back(std::string(entry.substr(0, space)), std::string(md5));
      return;
    }
    in_conffiles = false;
    size_t colon = line.find(':');
    if (colon == std::string_view::npos) return;
    std::string_view field = line.substr(0, colon);
    std::string_view value = Trimmed(line.substr(colon + 1));
    if (field == "Package") {
      name = std::string(value);
    } else if (field == "Version") {
      current.version = std::string(value);
    } else if (field == "Status") {
      is_installed = value.size() >= 9 && value.substr(value.size() - 9) == "installed" &&
                     value.find("not-installed") == std::string_view::npos;
    } else if (field == "Conffiles") {
      in_conffiles = true;
    }
  });
  finish();
  return installed;
}

}  // namespace

std::unique_ptr<CPackageFiles> CPackageFiles::Load(const std::string& root) {
  std::string system_root = root.empty() || root == "/" ? std::string() : root;
  while (!system_root.empty() && system_root.back() == '/') system_root.pop_back();
  std::string admin = system_root + "/var/lib/dpkg";
  std::string status = ReadAll(admin + "/status");
  std::string info = admin + "/info";
  std::vector<std::pair<std::string, std::string>> lists;
  std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(info.c_str()), ::closedir);
  if (!listing) throw std::runtime_error("cannot list " + info);
  while (const struct dirent* entry = ::readdir(listing.get())) {
    std::string file = entry->d_name;
    if (EndsWith(file, ".md5sums") || EndsWith(file, ".list"))
      lists.emplace_back(file, ReadAll(info + "/" + file));
  }
  return FromTexts(status, lists);
}

std::unique_ptr<CPackageFiles> CPackageFiles::FromTexts(
    const std::string& status, const std::vector<std::pair<std::string, std::string>>& lists) {
  auto files = std::make_unique<CPackageFiles>();
  std::unordered_map<std::string, CInstalled> installed = ParseStatus(status);
  auto package_text = [&](const std::string& name, const CInstalled& package) {
    std::unique_ptr<std::string>& text = files->packages_[name];
    if (!text) text = std::make_unique<std::string>(name + " " + package.version);
    return text.get();
  };
  for (const auto& [name, package] : installed) package_text(name, package);
  // The package of a list file: "libc6:amd64.md5sums" is libc6's.
  auto owner = [&](const std::string& file, size_t suffix) -> const std::string* {
    std::string name = file.substr(0, file.size() - suffix);
    name = name.substr(0, name.find(':'));
    auto package = installed.find(name);
    return package == installed.end() ? nullptr : package_text(name, package->second);
  };
  for (const auto& [file, text] : lists) {
    if (!EndsWith(file, ".md5sums")) continue;
    const std::string* package = owner(file, 8);
    if (package == nullptr) continue;
    ForEachLine(text, [&](std::string_view line) {
      // "d41d8cd98f00b204e9800998ecf8427e  usr/share/doc/x/copyright"
      if (line.size() < 34 || line[32] != ' ') return;
      std::string path = "/" + std::string(Trimmed(line.substr(33)));
      CEntry& entry = files->files_[path];
      entry.package = package;
      entry.md5 = std::string(line.substr(0, 32));
    });
  }
  // What each package lists besides: its directories (a file there without a checksum stays
  // without one, and is never taken for the package's).
  for (const auto& [file, text] : lists) {
    if (!EndsWith(file, ".list")) continue;
    const std::string* package = owner(file, 5);
    if (package == nullptr) continue;
    ForEachLine(text, [&](std::string_view line) {
      if (line.empty() || line.front() != '/' || line == "/.") return;
      auto [entry, made] = files->files_.try_emplace(std::string(line));
      if (made) entry->second.package = package;
    });
  }
  // Configuration files: the checksum of what was installed, and the mark that the administrator
  // may edit them.
  for (const auto& [name, package] : installed) {
    for (const auto& [path, md5] : package.conffiles) {
      CEntry& entry = files->files_[path];
      entry.package = package_text(name, package);
      if (md5.size() == 32) entry.md5 = md5;
      entry.conffile = true;
    }
  }
  return files;
}

const CPackageFiles::CEntry* CPackageFiles::Find(std::string_view system_path) const {
  auto found = files_.find(std::string(system_path));
  return found == files_.end() ? nullptr : &found->second;
}

const std::string* CPackageFiles::Installed(const std::string& name) const {
  auto found = packages_.find(name);
  return found == packages_.end() ? nullptr : found->second.get();
}

std::string Md5OfFile(const std::string& path) {
  CFileDescriptor fd(
      ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd.valid()) return std::string();
  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  if (!context || EVP_DigestInit_ex(context.get(), EVP_md5(), nullptr) != 1) return std::string();
  std::vector<unsigned char> block(1 << 16);
  for (;;) {
    ssize_t n = ::read(fd.get(), block.data(), block.size());
    if (n < 0) return std::string();
    if (n == 0) break;
    EVP_DigestUpdate(context.get(), block.data(), static_cast<size_t>(n));
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(context.get(), digest, &length) != 1) return std::string();
  return HexText(digest, length);
}
