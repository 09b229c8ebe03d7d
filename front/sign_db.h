#pragma once

#include <memory>
#include <string>

class CHashDB;
class CPolicy;
class CReadContext;

// The module's front, handed to the host by init: creates and tracks the hash database of each
// policy and owns the names and contents of a policy's files. Safe for concurrent use.
// Operations are in slot order.
class CSignDB {
 public:
  virtual ~CSignDB() = default;
  // slot 0: the first file carrying "hash" in any database; empty when none knows it.
  virtual std::wstring FindFileByHash(const std::string& hash, bool check) = 0;
  // slot 1: a new database for the policy; the caller owns it.
  virtual std::shared_ptr<CHashDB> CreateHashDB(const std::shared_ptr<CPolicy>& policy) = 0;
  // slot 2: the living database of a policy, or empty.
  virtual std::shared_ptr<CHashDB> GetHashDB(const std::string& policy_name) = 0;
  virtual std::wstring HdbFilePath(const std::string& policy_name) = 0;     // slot 3
  virtual bool HdbFileExists(const std::string& policy_name) = 0;           // slot 4
  virtual std::shared_ptr<CReadContext> ReadContext() = 0;                  // slot 5
  virtual void WriteRevisionFile(const std::string& policy_name) = 0;       // slot 6
  virtual bool RevisionFileMatches(const std::string& policy_name) = 0;     // slot 7
  virtual void WriteSedFile(const std::string& policy_name) = 0;            // slot 8
  virtual bool SedFileExists(const std::string& policy_name) = 0;           // slot 9
};
