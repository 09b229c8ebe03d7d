#include "refhost/cfg_service.h"

#include <optional>
#include <string_view>
#include <vector>

#include <Poco/UTF8String.h>

#include "hashdb/wide_path.h"

#include "refhost/settings.h"
#include "util/text_conversion.h"

namespace {

struct CComponents {
  bool absolute = false;
  std::vector<std::wstring> names;
};

CComponents Split(const std::wstring& path) {
  CComponents result;
  result.absolute = HasRootDirectory(path);
  for (const CPathComponent& part : PathComponents(path)) {
    std::wstring name(part.name);
    if (name.empty() || name == L"." || IsPathSeparator(name[0])) continue;
    if (name == L".." && !result.names.empty() && result.names.back() != L"..") {
      result.names.pop_back();
      continue;
    }
    result.names.push_back(name);
  }
  return result;
}

// True when "base" is a prefix of "path", component by component.
bool IsPrefix(const CComponents& base, const CComponents& path) {
  if (base.absolute != path.absolute || base.names.size() > path.names.size()) return false;
  for (size_t i = 0; i < base.names.size(); ++i) {
    if (base.names[i] != path.names[i]) return false;
  }
  return true;
}

// The usual case, without taking both paths apart: "full" is "root", a separator, then plain
// names (none empty, "." or "..") joined by the preferred separator. Empty when it is not.
std::optional<std::wstring> PlainRelative(const std::wstring& root, const std::wstring& full) {
  size_t base = root.size();
  while (base > 1 && IsPathSeparator(root[base - 1])) --base;
  if (base == 0 || full.size() <= base || full.compare(0, base, root, 0, base) != 0) return std::nullopt;
  size_t start = base;
  if (!IsPathSeparator(root[base - 1])) {  // the root is not "/" itself: a separator must follow it
    if (full[base] != kPreferredSeparator) return std::nullopt;
    ++start;
  }
  std::wstring_view rest = std::wstring_view(full).substr(start);
  size_t name_start = 0;
  for (size_t i = 0; i <= rest.size(); ++i) {
    if (i < rest.size() && !IsPathSeparator(rest[i])) continue;
    std::wstring_view name = rest.substr(name_start, i - name_start);
    if (name.empty() || name == L"." || name == L"..") return std::nullopt;
    if (i < rest.size() && rest[i] != kPreferredSeparator) return std::nullopt;
    name_start = i + 1;
  }
  return std::wstring(rest);
}

}  // namespace

CRefCfgService::CRefCfgService(const CRefSettings& settings)
    : certificate_(Utf8ToWide(settings.signer_certificate)),
      key_(Utf8ToWide(settings.signer_key)),
      chain_(Utf8ToWide(settings.signer_chain)),
      description_factory_(std::make_shared<CRefDescriptionFactory>()) {}

std::wstring CRefCfgService::SignerCertificate() { return certificate_; }
std::wstring CRefCfgService::SignerKey() { return key_; }
std::wstring CRefCfgService::SignerChain() { return chain_; }

std::string CRefCfgService::NormaliseName(const std::string& name, bool fold_case) {
  return fold_case ? Poco::UTF8::toLower(name) : name;
}

std::wstring CRefCfgService::RelativePath(const std::wstring& root, const std::wstring& full) {
  if (std::optional<std::wstring> plain = PlainRelative(root, full)) return *plain;
  CComponents base = Split(root);
  CComponents path = Split(full);
  if (!IsPrefix(base, path)) return full;
  std::wstring relative;
  for (size_t i = base.names.size(); i < path.names.size(); ++i) {
    relative = JoinPath(relative, path.names[i]);
  }
  return relative;
}

bool CRefCfgService::SamePath(const std::wstring& a, const std::wstring& b) {
  CComponents first = Split(a);
  CComponents second = Split(b);
  return first.absolute == second.absolute && first.names == second.names;
}

bool CRefCfgService::PathAtOrBelow(const std::wstring& base, const std::wstring& path) {
  return IsPrefix(Split(base), Split(path));
}

const std::shared_ptr<CDescriptionFactory>& CRefCfgService::DescriptionFactory() {
  return description_factory_;
}
