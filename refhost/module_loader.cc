#include "refhost/module_loader.h"

#ifdef _WIN32
#include "host/windows_api.h"
#endif

#include <cstdlib>
#include <stdexcept>

#include <boost/filesystem/operations.hpp>

#include "front/sign_db.h"
#include "host/host.h"
#include "refhost/ref_host.h"
#include "refhost/shared_library.h"
#include "util/text_conversion.h"

namespace {
using InitFunction = void (*)(const std::shared_ptr<CHost>&);

#ifdef _WIN32
constexpr const char* kModuleFileName = "signdb.dll";
#else
constexpr const char* kModuleFileName = "libsigndb.so";
#endif

// A path as UTF-8 text.
std::string PathText(const boost::filesystem::path& path) {
#ifdef _WIN32
  return WideToUtf8(path.wstring());
#else
  return path.string();
#endif
}

// The running program's own file.
boost::filesystem::path SelfPath() {
#ifdef _WIN32
  std::wstring path(32768, L'\0');
  path.resize(::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
  return boost::filesystem::path(path);
#else
  boost::system::error_code error;
  return boost::filesystem::read_symlink("/proc/self/exe", error);
#endif
}
}  // namespace

CModuleLoader::CModuleLoader(const std::string& module_path, const std::shared_ptr<CRefHost>& host)
    : module_path_(module_path), host_(host) {
  handle_ = OpenSharedLibrary(module_path_);
  if (handle_ == nullptr) {
    throw std::runtime_error("cannot load the module " + module_path_ + ": " + SharedLibraryError());
  }
  auto init = reinterpret_cast<InitFunction>(FindSharedLibrarySymbol(handle_, "init"));
  if (init == nullptr) {
    CloseSharedLibrary(handle_);
    throw std::runtime_error("the module " + module_path_ + " has no init");
  }
  try {
    std::shared_ptr<CHost> as_host = host_;
    init(as_host);
  } catch (...) {
    host_->ReleaseFront();
    CloseSharedLibrary(handle_);
    throw;
  }
  if (!host_->Front()) {
    CloseSharedLibrary(handle_);
    throw std::runtime_error("the module " + module_path_ + " handed over no front");
  }
}

CModuleLoader::~CModuleLoader() {
  host_->ReleaseFront();
  // A worker may still be releasing a task that the module made; its code must stay mapped.
  host_->WaitForIdlePool();
  CloseSharedLibrary(handle_);
}

std::shared_ptr<CSignDB> CModuleLoader::Front() const { return host_->Front(); }

std::string CModuleLoader::DefaultModulePath() {
  if (const char* path = std::getenv("SIGNDB_MODULE"); path != nullptr && *path) return path;
  boost::system::error_code error;
  boost::filesystem::path self = SelfPath();
  boost::filesystem::path beside = self.parent_path() / kModuleFileName;
  if (boost::filesystem::exists(beside, error)) return PathText(beside);  // a build folder
  // An install: the module's folder, found from the program's own (so a prefix moves whole).
  return PathText((self.parent_path() / SIGNDB_MODULE_FROM_BINDIR / kModuleFileName).lexically_normal());
}
