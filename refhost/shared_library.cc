#include "refhost/shared_library.h"

#ifdef _WIN32
#include "host/windows_api.h"
#include "util/text_conversion.h"
#else
#include <dlfcn.h>
#endif

#ifdef _WIN32
void* OpenSharedLibrary(const std::string& path) { return ::LoadLibraryW(Utf8ToWide(path).c_str()); }

void* FindSharedLibrarySymbol(void* handle, const char* name) {
  return reinterpret_cast<void*>(::GetProcAddress(static_cast<HMODULE>(handle), name));
}

void CloseSharedLibrary(void* handle) { ::FreeLibrary(static_cast<HMODULE>(handle)); }

std::string SharedLibraryError() { return "Windows error " + std::to_string(::GetLastError()); }
#else
void* OpenSharedLibrary(const std::string& path) { return ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL); }

void* FindSharedLibrarySymbol(void* handle, const char* name) { return ::dlsym(handle, name); }

void CloseSharedLibrary(void* handle) { ::dlclose(handle); }

std::string SharedLibraryError() {
  const char* reason = ::dlerror();
  return reason ? reason : "unknown reason";
}
#endif
