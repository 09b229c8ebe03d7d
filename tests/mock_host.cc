#include "tests/mock_host.h"

#include "refhost/cfg_service.h"
#include "refhost/read_context.h"

using testing::_;
using testing::Invoke;
using testing::NiceMock;
using testing::Return;
using testing::ReturnRef;

MockServices::MockServices()
    : host(std::make_shared<NiceMock<MockHost>>()),
      utility(std::make_shared<NiceMock<MockUtilityService>>()),
      crypto(std::make_shared<NiceMock<MockCryptoService>>()),
      cfg(std::make_shared<NiceMock<MockCfgService>>()),
      locale(std::make_shared<NiceMock<MockLocaleService>>()),
      log(std::make_shared<NiceMock<MockLogService>>()),
      cfgex(std::make_shared<NiceMock<MockCfgExService>>()),
      read_context_builder(std::make_shared<CRefReadContextBuilder>()),
      description_factory(std::make_shared<CRefDescriptionFactory>()) {
  auto& mock_cfg = static_cast<NiceMock<MockCfgService>&>(*cfg);
  ON_CALL(mock_cfg, DescriptionFactory()).WillByDefault(ReturnRef(description_factory));
  auto& mock_cfgex = static_cast<NiceMock<MockCfgExService>&>(*cfgex);
  ON_CALL(mock_cfgex, DataDirectory()).WillByDefault(ReturnRef(data_directory));
  ON_CALL(mock_cfgex, PolicyNumber()).WillByDefault(Return(256));
  // Localisation answers with the key itself unless a test says otherwise.
  ON_CALL(mock_locale(), Text(_, _)).WillByDefault(Invoke([](std::string& out, const char* key) {
    out = key;
  }));
  ON_CALL(mock_utility(), ToWide(_)).WillByDefault(Invoke([](const std::string& narrow) {
    return std::wstring(narrow.begin(), narrow.end());
  }));
  ON_CALL(mock_utility(), ToNarrow(_)).WillByDefault(Invoke([](const std::wstring& wide) {
    std::string narrow;
    for (wchar_t c : wide) narrow += static_cast<char>(c);
    return narrow;
  }));
  ON_CALL(*host, InstanceCounterMutex()).WillByDefault(ReturnRef(counter_mutex));
  ON_CALL(*host, InstanceCounterMap()).WillByDefault(ReturnRef(counter_map));
  Install();
}

void MockServices::Install() {
  ON_CALL(*host, Utility()).WillByDefault(ReturnRef(utility));
  ON_CALL(*host, Crypto()).WillByDefault(ReturnRef(crypto));
  ON_CALL(*host, Cfg()).WillByDefault(ReturnRef(cfg));
  ON_CALL(*host, Locale()).WillByDefault(ReturnRef(locale));
  ON_CALL(*host, Log()).WillByDefault(ReturnRef(log));
  ON_CALL(*host, CfgEx()).WillByDefault(ReturnRef(cfgex));
  ON_CALL(*host, ReadContextBuilder()).WillByDefault(ReturnRef(read_context_builder));
  ON_CALL(*host, ThreadPool()).WillByDefault(ReturnRef(thread_pool));
  ON_CALL(*host, TimeService()).WillByDefault(ReturnRef(time_service));
}
