#pragma once

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

#include "host/buffer.h"
#include "host/windows_api.h"  // before any use of DeleteFile or MoveFile below

// Reports the time passed since the host started it, as text for the end of a message.
class CStopwatch {
 public:
  virtual ~CStopwatch() = default;
  // slot 9: the elapsed time and the rate for "count" items, e.g. " in 1.20 s (833,333/s)".
  virtual std::string Report(uint64_t count) = 0;
};

// A writer that gathers small writes into a large buffer over an output stream. Not thread-safe:
// the caller serialises writes (the save holds its record write mutex).
class CBufferedWriter {
 public:
  virtual ~CBufferedWriter() = default;
  virtual void Write(const void* data, uint64_t length) = 0;  // slot 0
  virtual void Flush() = 0;                                   // slot 1
};

// The host's general helpers. Narrow text is UTF-8; wide text is the platform's wide string.
// Every operation is safe for concurrent use. Slots marked "host's choice" are not fixed by the
// module's callers beyond their place in this order.
class CUtilityService {
 public:
  virtual ~CUtilityService() = default;

  // slot 3 (host's choice): whether an object name is legal on this platform.
  virtual bool IsValidName(const std::string& name) = 0;
  // slot 4 (host's choice): adapts a stored relative path written on the platform "platform_flag"
  // to the running platform's separators.
  virtual std::string AdaptPath(const std::string& path, bool platform_flag) = 0;
  // slot 5 (host's choice): whether a file written on platform "platform_flag" matches this one.
  virtual bool PlatformMatches(bool platform_flag) = 0;
  // slot 6 (host's choice): a number as text for messages.
  virtual std::string FormatNumber(uint64_t value) = 0;
  // slot 7 (host's choice): the utility's own log line at the given level (7 = debug).
  virtual void Log(uint32_t level, const std::string& text) = 0;
  // slot 8: the second platform value of an HDB header.
  virtual uint32_t SecondPlatformValue() = 0;
  // slot 9: the platform flag of an HDB header (0 = Windows, 1 = POSIX).
  virtual uint32_t PlatformValue() = 0;
  // slot 12: true when the running program is a 32-bit build.
  virtual bool Is32BitBuild() = 0;
  // slot 16: whether two hash texts denote the same hash.
  virtual bool HashEquals(const std::string& a, const std::string& b) = 0;
  // slots 20-23 (host's choice): attributes, first and second time value and security attributes
  // of the object at a path; all-ones / empty when they cannot be read.
  virtual uint32_t PathAttributes(const std::wstring& path) = 0;            // slot 20
  virtual uint64_t PathTime1(const std::wstring& path) = 0;                 // slot 21
  virtual uint64_t PathTime2(const std::wstring& path) = 0;                 // slot 22
  virtual std::string PathSecurityAttributes(const std::wstring& path,
                                             uint64_t setting) = 0;         // slot 23
  // slot 27: wide to narrow text.
  virtual std::string ToNarrow(const std::wstring& wide) = 0;
  // slot 28: narrow to wide text.
  virtual std::wstring ToWide(const std::string& narrow) = 0;
  // slot 33: called with a path before a file is written to it (makes its directory).
  virtual void PrepareWrite(const std::wstring& path) = 0;
  // slot 37: starts a stopwatch.
  virtual std::shared_ptr<CStopwatch> StartStopwatch() = 0;
  // slot 68: a random 64-bit stamp.
  virtual uint64_t RandomStamp() = 0;
  // slot 85: the SED text, given 0.
  virtual std::string SedText(uint32_t kind) = 0;
  // slot 96: deletes a file; false when it could not (a missing file is not an error).
  virtual bool DeleteFile(const std::wstring& path) = 0;
  // slot 98: moves a file onto another path, replacing it; called with 0, 1, 0.
  virtual bool MoveFile(const std::wstring& from, const std::wstring& to, uint32_t a, uint32_t b,
                        uint32_t c) = 0;
  // slot 105: a writable buffer of "size" bytes; called with 1, size, 0.
  virtual std::shared_ptr<CBuffer> MakeBuffer(uint32_t a, uint64_t size, uint32_t b) = 0;
  // slot 106: reads a file into a buffer; "max_bytes" 0 reads it whole, otherwise at most that
  // many bytes from its start. Throws when the file cannot be read.
  virtual std::shared_ptr<CBuffer> ReadFile(const std::wstring& path, uint64_t max_bytes) = 0;
  // slot 107: writes a buffer as the whole file; called with 1, 0.
  virtual bool WriteFile(const std::wstring& path, const std::shared_ptr<CBuffer>& buffer,
                         uint32_t a, uint32_t b) = 0;
  // slot 108: writes bytes as the whole file; called with 1, 0.
  virtual bool WriteBytes(const std::wstring& path, const void* data, uint64_t length, uint32_t a,
                          uint32_t b) = 0;
  // slot 110: a buffered writer over "out" with "capacity" bytes of buffer. "out" must outlive it.
  virtual std::shared_ptr<CBufferedWriter> MakeBufferedWriter(std::ostream& out,
                                                              uint64_t capacity) = 0;
  // slot 144: message output; the module passes a code, the text and 7.
  virtual void Message(uint32_t code, const std::string& text, uint32_t trailer) = 0;
  // slot 183: whether two security-attribute texts are the same.
  virtual bool SecurityAttributesEqual(const std::string& a, const std::string& b) = 0;
};
