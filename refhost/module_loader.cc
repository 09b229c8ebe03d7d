#include "refhost/module_loader.h"

#include <dlfcn.h>

#include <cstdlib>
#include <stdexcept>

#include <boost/filesystem/operations.hpp>

#include "front/sign_db.h"
#include "host/host.h"
#include "refhost/ref_host.h"

namespace {
using InitFunction = void (*)(const std::shared_ptr<CHost>&);
}

CModuleLoader::CModuleLoader(const std::string& module_path, const std::shared_ptr<CRefHost>& host)
    : module_path_(module_path), host_(host) {
  handle_ = ::dlopen(module_path_.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle_ == nullptr) {
    const char* reason = ::dlerror();
    throw std::runtime_error("cannot load the module " + module_path_ + ": " +
                             (reason ? reason : "unknown reason"));
  }
  auto init = reinterpret_cast<InitFunction>(::dlsym(handle_, "init"));
  if (init == nullptr) {
    ::dlclose(handle_);
    throw std::runtime_error("the module " + module_path_ + " has no init");
  }
  try {
    std::shared_ptr<CHost> as_host = host_;
    init(as_host);
  } catch (...) {
    host_->ReleaseFront();
    ::dlclose(handle_);
    throw;
  }
  if (!host_->Front()) {
    ::dlclose(handle_);
    throw std::runtime_error("the module " + module_path_ + " handed over no front");
  }
}

CModuleLoader::~CModuleLoader() {
  host_->ReleaseFront();
  // A worker may still be releasing a task that the module made; its code must stay mapped.
  host_->WaitForIdlePool();
  ::dlclose(handle_);
}

std::shared_ptr<CSignDB> CModuleLoader::Front() const { return host_->Front(); }

std::string CModuleLoader::DefaultModulePath() {
  if (const char* path = std::getenv("SIGNDB_MODULE"); path != nullptr && *path) return path;
  boost::system::error_code error;
  boost::filesystem::path self = boost::filesystem::read_symlink("/proc/self/exe", error);
  boost::filesystem::path beside = self.parent_path() / "libsigndb.so";
  if (boost::filesystem::exists(beside, error)) return beside.string();  // a build folder
  // An install: the module's folder, found from the program's own (so a prefix moves whole).
  return (self.parent_path() / SIGNDB_MODULE_FROM_BINDIR / "libsigndb.so").lexically_normal().string();
}
