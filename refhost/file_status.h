#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

// What the reference host records of one object's status (file_status.cc on POSIX,
// file_status_windows.cc on Windows).

// An object's attributes and times: on POSIX its mode, status-change and modification times; on
// Windows its attribute flags, creation and last-write times. Times are nanoseconds since the
// epoch (1970) on both.
struct CPathStatus {
  uint32_t attributes = 0;
  uint64_t time_1 = 0;
  uint64_t time_2 = 0;
};

// The status of the object at "path" itself (a symbolic link's own, never its target's); false
// when nothing can be examined there.
bool ReadPathStatus(const std::string& path, CPathStatus& status);

// The security attributes text of the object at "path" (never following a link): on POSIX the
// text of ReadSecurityAttributes below, on Windows its owner, group and access list in the
// system's security descriptor language (SDDL). Empty when the object cannot be examined.
std::string PathSecurityAttributesText(const std::string& path);

#ifndef _WIN32

// A status time in nanoseconds since the epoch.
inline uint64_t StatTimeNs(const struct timespec& time) {
  return static_cast<uint64_t>(time.tv_sec) * 1000000000ull + static_cast<uint64_t>(time.tv_nsec);
}

// The security attributes text (refhost/security_text.h) of the object at "path", whose lstat(2)
// or fstat(2) result is "status". "fd" is a descriptor open on the object itself (a regular file
// or a directory), or -1: extended attributes, ACLs, capabilities and inode flags are then read
// through it, once each. Without one they are read by path without following a symbolic link,
// and the inode flags are left out (they can be read only through a descriptor, and a device,
// FIFO or socket is never opened). A file system that has no extended attributes, ACLs or inode
// flags gives a text without them; that is not an error.
std::string ReadSecurityAttributes(const std::string& path, const struct stat& status, int fd);
#endif
