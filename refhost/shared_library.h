#pragma once

#include <string>

// The dynamic loader's calls, the same on every platform: dlopen and its kin on POSIX,
// LoadLibraryW (the path as UTF-16) and its kin on Windows. A handle is nullptr when loading failed.
void* OpenSharedLibrary(const std::string& path);
void* FindSharedLibrarySymbol(void* handle, const char* name);
void CloseSharedLibrary(void* handle);
// Why the last OpenSharedLibrary failed, as the loader says it.
std::string SharedLibraryError();
