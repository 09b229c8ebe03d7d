#pragma once

#include <memory>
#include <string>

class CRefHost;
class CSignDB;

// Loads the module as a plug-in, calls its init with the host and returns the front the module
// handed to the host. Unloads the module on destruction, after the host has let go of the front;
// everything obtained from the module must be released before that.
class CModuleLoader {
 public:
  // Throws std::runtime_error with the loader's reason when the module cannot be loaded, has no
  // init, or hands over no front; the module's own exceptions pass through.
  CModuleLoader(const std::string& module_path, const std::shared_ptr<CRefHost>& host);
  ~CModuleLoader();

  CModuleLoader(const CModuleLoader&) = delete;
  CModuleLoader& operator=(const CModuleLoader&) = delete;

  std::shared_ptr<CSignDB> Front() const;
  const std::string& module_path() const { return module_path_; }

  // $SIGNDB_MODULE when set; the module beside the running program ("libsigndb.so") in a build
  // folder; in an install, the module's folder below the prefix (lib/MULTIARCH/signdb), found
  // relative to the program's own folder.
  static std::string DefaultModulePath();

 private:
  std::string module_path_;
  std::shared_ptr<CRefHost> host_;
  void* handle_ = nullptr;
};
