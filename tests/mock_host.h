#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <gmock/gmock.h>

#include "host/cfg_service.h"
#include "host/cfgex_service.h"
#include "host/crypto_service.h"
#include "host/host.h"
#include "host/locale_service.h"
#include "host/log_service.h"
#include "host/read_context.h"
#include "host/thread_pool.h"
#include "host/time_service.h"
#include "host/utility_service.h"

class MockLogService : public CLogService {
 public:
  MOCK_METHOD(void, Critical, (uint32_t, const std::string&), (override));
  MOCK_METHOD(void, Error, (uint32_t, const std::string&), (override));
  MOCK_METHOD(void, Warning, (uint32_t, const std::string&), (override));
  MOCK_METHOD(void, Notice, (uint32_t, const std::string&), (override));
  MOCK_METHOD(void, Information, (uint32_t, const std::string&), (override));
  MOCK_METHOD(void, Debug, (uint32_t, const std::string&), (override));
};

class MockLocaleService : public CLocaleService {
 public:
  MOCK_METHOD(void, Text, (std::string&, const char*), (override));
};

class MockUtilityService : public CUtilityService {
 public:
  MOCK_METHOD(bool, IsValidName, (const std::string&), (override));
  MOCK_METHOD(std::string, AdaptPath, (const std::string&, bool), (override));
  MOCK_METHOD(bool, PlatformMatches, (bool), (override));
  MOCK_METHOD(std::string, FormatNumber, (uint64_t), (override));
  MOCK_METHOD(void, Log, (uint32_t, const std::string&), (override));
  MOCK_METHOD(uint32_t, SecondPlatformValue, (), (override));
  MOCK_METHOD(uint32_t, PlatformValue, (), (override));
  MOCK_METHOD(bool, Is32BitBuild, (), (override));
  MOCK_METHOD(bool, HashEquals, (const std::string&, const std::string&), (override));
  MOCK_METHOD(uint32_t, PathAttributes, (const std::wstring&), (override));
  MOCK_METHOD(uint64_t, PathTime1, (const std::wstring&), (override));
  MOCK_METHOD(uint64_t, PathTime2, (const std::wstring&), (override));
  MOCK_METHOD(std::string, PathSecurityAttributes, (const std::wstring&, uint64_t), (override));
  MOCK_METHOD(std::string, ToNarrow, (const std::wstring&), (override));
  MOCK_METHOD(std::wstring, ToWide, (const std::string&), (override));
  MOCK_METHOD(void, PrepareWrite, (const std::wstring&), (override));
  MOCK_METHOD(std::shared_ptr<CStopwatch>, StartStopwatch, (), (override));
  MOCK_METHOD(uint64_t, RandomStamp, (), (override));
  MOCK_METHOD(std::string, SedText, (uint32_t), (override));
  MOCK_METHOD(bool, DeleteFile, (const std::wstring&), (override));
  MOCK_METHOD(bool, MoveFile,
              (const std::wstring&, const std::wstring&, uint32_t, uint32_t, uint32_t),
              (override));
  MOCK_METHOD(std::shared_ptr<CBuffer>, MakeBuffer, (uint32_t, uint64_t, uint32_t), (override));
  MOCK_METHOD(std::shared_ptr<CBuffer>, ReadFile, (const std::wstring&, uint64_t), (override));
  MOCK_METHOD(bool, WriteFile,
              (const std::wstring&, const std::shared_ptr<CBuffer>&, uint32_t, uint32_t),
              (override));
  MOCK_METHOD(bool, WriteBytes, (const std::wstring&, const void*, uint64_t, uint32_t, uint32_t),
              (override));
  MOCK_METHOD(std::shared_ptr<CBufferedWriter>, MakeBufferedWriter, (std::ostream&, uint64_t),
              (override));
  MOCK_METHOD(void, Message, (uint32_t, const std::string&, uint32_t), (override));
  MOCK_METHOD(bool, SecurityAttributesEqual, (const std::string&, const std::string&),
              (override));
};

class MockCryptoService : public CCryptoService {
 public:
  MOCK_METHOD(uint32_t, DigestDescriptor, (uint32_t), (override));
  MOCK_METHOD(std::string, HashFile, (const std::wstring&, uint32_t), (override));
  MOCK_METHOD(std::vector<uint8_t>, HashTextToBinary, (const std::string&), (override));
  MOCK_METHOD(std::string, BinaryToHashText, (const uint8_t*, uint64_t, uint32_t), (override));
  MOCK_METHOD(std::shared_ptr<CSigner>, MakeSigner,
              (const std::wstring&, const std::wstring&, const std::wstring&), (override));
  MOCK_METHOD(std::shared_ptr<CPkcs7Verifier>, MakeVerifier, (), (override));
  MOCK_METHOD(std::string, LocalCstmId, (), (override));
  MOCK_METHOD(std::string, LocalLcsId, (), (override));
  MOCK_METHOD(std::wstring, SignatureFilePath, (const std::wstring&), (override));
};

class MockCfgService : public CCfgService {
 public:
  MOCK_METHOD(std::wstring, SignerCertificate, (), (override));
  MOCK_METHOD(std::wstring, SignerKey, (), (override));
  MOCK_METHOD(std::wstring, SignerChain, (), (override));
  MOCK_METHOD(std::string, NormaliseName, (const std::string&, bool), (override));
  MOCK_METHOD(std::wstring, RelativePath, (const std::wstring&, const std::wstring&), (override));
  MOCK_METHOD(bool, SamePath, (const std::wstring&, const std::wstring&), (override));
  MOCK_METHOD(bool, PathAtOrBelow, (const std::wstring&, const std::wstring&), (override));
  MOCK_METHOD(const std::shared_ptr<CDescriptionFactory>&, DescriptionFactory, (), (override));
};

class MockCfgExService : public CCfgExService {
 public:
  MOCK_METHOD(uint32_t, PolicyNumber, (), (override));
  MOCK_METHOD(const std::wstring&, DataDirectory, (), (override));
  MOCK_METHOD(uint64_t, RestoreTimeLimitMs, (), (override));
};

class MockHost : public CHost {
 public:
  MOCK_METHOD(const std::shared_ptr<CCfgService>&, Cfg, (), (override));
  MOCK_METHOD(const std::shared_ptr<CLogService>&, Log, (), (override));
  MOCK_METHOD(const std::shared_ptr<CLocaleService>&, Locale, (), (override));
  MOCK_METHOD(const std::shared_ptr<CUtilityService>&, Utility, (), (override));
  MOCK_METHOD(const std::shared_ptr<CCryptoService>&, Crypto, (), (override));
  MOCK_METHOD(const std::shared_ptr<CReadContextBuilder>&, ReadContextBuilder, (), (override));
  MOCK_METHOD(const std::shared_ptr<CCfgExService>&, CfgEx, (), (override));
  MOCK_METHOD(const std::shared_ptr<CThreadPool>&, ThreadPool, (), (override));
  MOCK_METHOD(const std::shared_ptr<CTimeService>&, TimeService, (), (override));
  MOCK_METHOD(void, TakeSignDB, (const std::shared_ptr<CSignDB>&), (override));
  MOCK_METHOD(std::mutex&, InstanceCounterMutex, (), (override));
  MOCK_METHOD((std::map<std::string, uint64_t>&), InstanceCounterMap, (), (override));
};

// A mock host whose accessors return the services below by default (each may be emptied before
// use to model a host that lacks it). The default expectations allow any number of calls.
struct MockServices {
  MockServices();

  // Makes every accessor answer with the members' current values; call again after changing one.
  void Install();

  std::shared_ptr<testing::NiceMock<MockHost>> host;
  std::shared_ptr<CUtilityService> utility;
  std::shared_ptr<CCryptoService> crypto;
  std::shared_ptr<CCfgService> cfg;
  std::shared_ptr<CLocaleService> locale;
  std::shared_ptr<CLogService> log;
  std::shared_ptr<CCfgExService> cfgex;
  std::shared_ptr<CReadContextBuilder> read_context_builder;
  std::shared_ptr<CThreadPool> thread_pool;
  std::shared_ptr<CTimeService> time_service;
  std::shared_ptr<CDescriptionFactory> description_factory;
  std::wstring data_directory = L"/var/lib/signdb";
  std::mutex counter_mutex;
  std::map<std::string, uint64_t> counter_map;

  testing::NiceMock<MockUtilityService>& mock_utility() {
    return static_cast<testing::NiceMock<MockUtilityService>&>(*utility);
  }
  testing::NiceMock<MockLogService>& mock_log() {
    return static_cast<testing::NiceMock<MockLogService>&>(*log);
  }
  testing::NiceMock<MockLocaleService>& mock_locale() {
    return static_cast<testing::NiceMock<MockLocaleService>&>(*locale);
  }
};
