#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "front/sign_db.h"

class CCfgExService;
class CCryptoService;
class CHost;
class CLocaleService;
class CLogService;
class CUtilityService;

// The module's front. Keeps only weak references to the databases it creates: the caller owns
// each database, and a dead entry is erased when a lookup meets it.
//
// Thread safety: operations 0, 1 and 2 hold "lock_" (6 and 7 through operation 2), also across
// calls into the databases and the construction of a database, so those must not call back into
// the front. Operations 3, 4, 5, 8 and 9 read only members fixed at construction.
//
// Members are destroyed in reverse order: the reserved pointer, the read context, the policy
// table, the lock, the data directory, then the services and last the host.
class CSignDBImpl : public CSignDB {
 public:
  // Fetches utility, crypto, localisation, log and extended configuration, in that order, and
  // throws std::runtime_error "bad ... init!" for the first one missing (an empty host counts as
  // a missing utility service). Builds the read context from the "SDBI-Read" description.
  explicit CSignDBImpl(const std::shared_ptr<CHost>& host);

  std::wstring FindFileByHash(const std::string& hash, bool check) override;
  std::shared_ptr<CHashDB> CreateHashDB(const std::shared_ptr<CPolicy>& policy) override;
  std::shared_ptr<CHashDB> GetHashDB(const std::string& policy_name) override;
  std::wstring HdbFilePath(const std::string& policy_name) override;
  bool HdbFileExists(const std::string& policy_name) override;
  std::shared_ptr<CReadContext> ReadContext() override;
  void WriteRevisionFile(const std::string& policy_name) override;
  bool RevisionFileMatches(const std::string& policy_name) override;
  void WriteSedFile(const std::string& policy_name) override;
  bool SedFileExists(const std::string& policy_name) override;

  // Entries of the policy table, dead ones included (for statistics).
  size_t TableSize();

 private:
  // GetHashDB with "lock_" already held.
  std::shared_ptr<CHashDB> GetHashDBLocked(const std::string& policy_name);

  std::shared_ptr<CHost> host_;
  std::shared_ptr<CUtilityService> utility_;
  std::shared_ptr<CCryptoService> crypto_;
  std::shared_ptr<CLogService> log_;
  std::shared_ptr<CLocaleService> localisation_;
  std::shared_ptr<CCfgExService> cfgex_;
  std::wstring data_directory_;
  uint32_t policy_number_ = 0;
  std::mutex lock_;
  std::map<std::string, std::weak_ptr<CHashDB>> policy_table_;  // guarded by lock_
  std::shared_ptr<CReadContext> read_context_;
  std::shared_ptr<void> reserved_;  // stays empty; released at destruction only
};
