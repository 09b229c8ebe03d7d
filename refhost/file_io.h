#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Whole-file helpers on POSIX. Failures throw std::runtime_error naming the file and the reason.

// An error number as people read it and search for it: "Read-only file system (EROFS)".
std::string ErrnoText(int error);

// Reads a file, at most "max_bytes" from its start (0: all of it).
std::vector<uint8_t> ReadWholeFile(const std::string& path, uint64_t max_bytes = 0);

// Replaces "path" with exactly these bytes: written to a temporary file beside it, made durable,
// then renamed over it, so that a failure never leaves a half-written file in its place.
void WriteWholeFile(const std::string& path, const void* data, uint64_t length);

// rename(2) with the moved file and its directory made durable. Throws on failure.
void DurableRename(const std::string& from, const std::string& to);

// Makes a directory's entries durable (best effort).
void SyncDirectoryOf(const std::string& path);
