#pragma once

// The Windows API for code that also sees the host's interfaces. <windows.h> turns DeleteFile and
// MoveFile into their wide (W) forms by macro, which would rename the host operations of those
// names in whatever follows; the macros go, and Windows code calls the W functions by their own
// names.

#ifdef _WIN32
#include <windows.h>

#undef DeleteFile
#undef MoveFile
#endif
