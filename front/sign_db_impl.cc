#include "front/sign_db_impl.h"

#include <cstring>
#include <stdexcept>

#include <Poco/ByteOrder.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/LocalDateTime.h>

#include "front/policy_files.h"
#include "hashdb/hash_db_impl.h"
#include "hashdb/hash_db.h"
#include "host/buffer.h"
#include "host/cfg_service.h"
#include "host/cfgex_service.h"
#include "host/crypto_service.h"
#include "host/host.h"
#include "host/locale_service.h"
#include "host/log_service.h"
#include "host/path_status.h"
#include "host/policy.h"
#include "host/read_context.h"
#include "host/services.h"
#include "host/utility_service.h"

namespace {

constexpr const char* kReadDescriptionName = "SDBI-Read";
constexpr const char* kRevisionTimeFormat = " %Y-%m-%d %H:%M:%S";
constexpr size_t kRevisionBytes = 8;

}  // namespace

CSignDBImpl::CSignDBImpl(const std::shared_ptr<CHost>& host) : host_(host) {
  if (!host_) throw std::runtime_error(kBadUtilityInit);
  utility_ = FetchService(host_->Utility(), kBadUtilityInit);
  crypto_ = FetchService(host_->Crypto(), kBadCryptoInit);
  localisation_ = FetchService(host_->Locale(), kBadLocaleInit);
  log_ = FetchService(host_->Log(), kBadLogInit);
  cfgex_ = FetchService(host_->CfgEx(), kBadCfgExInit);

  const std::wstring& directory = cfgex_->DataDirectory();
  if (&directory != &data_directory_) data_directory_ = directory;
  policy_number_ = cfgex_->PolicyNumber();

  // The read context is the host's business; where the host offers no way to build one, the
  // front keeps none and hands out an empty pointer.
  std::shared_ptr<CCfgService> cfg = host_->Cfg();
  std::shared_ptr<CReadContextBuilder> builder = host_->ReadContextBuilder();
  if (cfg && builder) {
    std::shared_ptr<CDescriptionFactory> factory = cfg->DescriptionFactory();
    if (factory) {
      std::shared_ptr<CDescription> description;
      factory->NewDescription(description);
      if (description) {
        description->SetName(kReadDescriptionName);
        read_context_ = builder->Build(description);
      }
    }
  }
}

std::wstring CSignDBImpl::FindFileByHash(const std::string& hash, bool check) {
  if (hash.empty()) return std::wstring();
  std::lock_guard<std::mutex> guard(lock_);
  for (auto it = policy_table_.begin(); it != policy_table_.end();) {
    std::shared_ptr<CHashDB> database = it->second.lock();
    if (!database) {
      it = policy_table_.erase(it);
      continue;
    }
    std::wstring path = database->PathByHash(hash, check);
    if (!path.empty()) return path;
    ++it;
  }
  return std::wstring();
}

std::shared_ptr<CHashDB> CSignDBImpl::CreateHashDB(const std::shared_ptr<CPolicy>& policy) {
  std::lock_guard<std::mutex> guard(lock_);
  if (!policy) throw std::runtime_error("[sdi,chdb] Policy object is empty!");
  std::string name = policy->Name();
  // The old database, if still alive, stays with its owner; only the newer one is found by name.
  policy_table_.erase(name);
  std::wstring hdb_path = HdbFilePath(name);
  std::shared_ptr<CHashDB> database =
      std::make_shared<CHashDBImpl>(host_, policy_number_, hdb_path, policy);
  policy_table_[name] = database;
  return database;
}

std::shared_ptr<CHashDB> CSignDBImpl::GetHashDB(const std::string& policy_name) {
  std::lock_guard<std::mutex> guard(lock_);
  return GetHashDBLocked(policy_name);
}

std::shared_ptr<CHashDB> CSignDBImpl::GetHashDBLocked(const std::string& policy_name) {
  auto it = policy_table_.find(policy_name);
  if (it == policy_table_.end()) return nullptr;
  std::shared_ptr<CHashDB> database = it->second.lock();
  if (!database) policy_table_.erase(it);
  return database;
}

std::wstring CSignDBImpl::HdbFilePath(const std::string& policy_name) {
  if (policy_name.empty()) throw std::runtime_error("[sdi,ghdfbpn] Policy name is empty!");
  return JoinFileName(data_directory_, utility_->ToWide(policy_name + kHdbSuffix));
}

bool CSignDBImpl::HdbFileExists(const std::string& policy_name) {
  return PathExistsInAnyForm(HdbFilePath(policy_name), *utility_);
}

std::shared_ptr<CReadContext> CSignDBImpl::ReadContext() { return read_context_; }

size_t CSignDBImpl::TableSize() {
  std::lock_guard<std::mutex> guard(lock_);
  return policy_table_.size();
}

void CSignDBImpl::WriteRevisionFile(const std::string& policy_name) {
  std::wstring path = AppendSuffix(HdbFilePath(policy_name), kRevisionSuffix);
  std::shared_ptr<CHashDB> database = GetHashDB(policy_name);
  if (!database) {
    // Built from the key itself, not through the localised-text look-up.
    throw std::runtime_error("[SDBI,shehdff] HDB sp NOT inited.[plc_name]=" + policy_name);
  }
  uint64_t revision = Poco::ByteOrder::toBigEndian(static_cast<Poco::UInt64>(database->Revision()));
  std::string text = Poco::DateTimeFormatter::format(Poco::LocalDateTime(), kRevisionTimeFormat);
  std::shared_ptr<CBuffer> buffer = utility_->MakeBuffer(1, kRevisionBytes + text.size(), 0);
  std::memcpy(buffer->Data(), &revision, kRevisionBytes);
  std::memcpy(buffer->Data() + kRevisionBytes, text.data(), text.size());
  utility_->WriteFile(path, buffer, 1, 0);
}

bool CSignDBImpl::RevisionFileMatches(const std::string& policy_name) {
  std::wstring path = AppendSuffix(HdbFilePath(policy_name), kRevisionSuffix);
  if (!PathExistsInAnyForm(path, *utility_)) return false;
  std::shared_ptr<CBuffer> buffer = utility_->ReadFile(path, 0);
  if (!buffer || buffer->Size() < kRevisionBytes) return false;
  uint64_t stored = 0;
  std::memcpy(&stored, buffer->Data(), kRevisionBytes);
  stored = Poco::ByteOrder::fromBigEndian(static_cast<Poco::UInt64>(stored));
  std::shared_ptr<CHashDB> database = GetHashDB(policy_name);
  return database && stored == database->Revision();
}

void CSignDBImpl::WriteSedFile(const std::string& policy_name) {
  std::string text = utility_->SedText(0);
  std::wstring path = AppendSuffix(HdbFilePath(policy_name), kSedSuffix);
  utility_->PrepareWrite(path);
  utility_->WriteBytes(path, text.data(), text.size(), 1, 0);
}

bool CSignDBImpl::SedFileExists(const std::string& policy_name) {
  return PathExistsInAnyForm(AppendSuffix(HdbFilePath(policy_name), kSedSuffix), *utility_);
}
