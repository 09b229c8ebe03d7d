#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Whole-file helpers (file_io.cc on POSIX, file_io_windows.cc on Windows). Failures throw
// std::runtime_error naming the file and the reason.

// An error number as people read it and search for it: "Read-only file system (EROFS)".
std::string ErrnoText(int error);

// Reads a file, at most "max_bytes" from its start (0: all of it).
std::vector<uint8_t> ReadWholeFile(const std::string& path, uint64_t max_bytes = 0);

// Replaces "path" with exactly these bytes: written to a temporary file beside it, made durable,
// then renamed over it, so that a failure never leaves a half-written file in its place.
void WriteWholeFile(const std::string& path, const void* data, uint64_t length);

// Creates "path", which must not exist yet (never over a file, never through a link), with exactly
// these bytes, made durable; on POSIX with the permission bits "mode", on Windows with those its
// folder hands down. Throws, leaving nothing behind, when it cannot.
void WriteNewFile(const std::string& path, const void* data, uint64_t length, unsigned mode = 0600);

// Removes a file (a link itself, never what it points to). False when nothing was there; throws on
// any other failure.
bool RemoveFile(const std::string& path);

// rename(2) with the moved file and its directory made durable. Throws on failure.
void DurableRename(const std::string& from, const std::string& to);

// Makes a directory's entries durable (best effort).
void SyncDirectoryOf(const std::string& path);
