#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

// What the reference host records of one object's status on POSIX, from one lstat(2).

// A status time in nanoseconds since the epoch.
inline uint64_t StatTimeNs(const struct timespec& time) {
  return static_cast<uint64_t>(time.tv_sec) * 1000000000ull + static_cast<uint64_t>(time.tv_nsec);
}

// "owner=UID group=GID mode=OOOO", followed by " acl=..." (numeric ids, comma-separated) when the
// object carries an extended POSIX access ACL. Symbolic links have no ACL of their own.
std::string SecurityAttributesText(const std::string& path, const struct stat& status);

// The same, of an open file ("status" from fstat(2) of it).
std::string SecurityAttributesTextOfOpenFile(int fd, const struct stat& status);
