// The plug-in's entry points: init, exported unmangled, and on Windows the load hook.

#include <memory>

#include "entry/init.h"

#ifdef _WIN32
#include "host/windows_api.h"

// The load hook only turns off thread attach and detach notifications; it builds and logs nothing.
BOOL APIENTRY DllMain(HMODULE module, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) DisableThreadLibraryCalls(module);
  return TRUE;
}
#define SIGNDB_EXPORT extern "C" __declspec(dllexport)
#else
#define SIGNDB_EXPORT extern "C" __attribute__((visibility("default")))
#endif

// The host's only entry into the module. "host" stays the caller's; the module keeps a copy.
SIGNDB_EXPORT void init(const std::shared_ptr<CHost>& host) { InitModule(host); }
