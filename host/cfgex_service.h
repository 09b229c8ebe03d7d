#pragma once

#include <cstdint>
#include <string>

// The host's extended configuration: values shared by every policy.
class CCfgExService {
 public:
  virtual ~CCfgExService() = default;
  // slot 12: the policy number (also the digest algorithm identifier of the HDB header).
  virtual uint32_t PolicyNumber() = 0;
  // slot 13: the data directory that holds every policy's files.
  virtual const std::wstring& DataDirectory() = 0;
  // slot 14 (host's choice): how long a load waits for each restore task, in milliseconds.
  virtual uint64_t RestoreTimeLimitMs() = 0;
};
