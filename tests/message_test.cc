#include "host/message.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/mock_host.h"

using testing::_;
using testing::Invoke;
using testing::StrEq;

TEST(MessageTest, KeyIsLocalisedAndValuesFollow) {
  MockServices services;
  ON_CALL(services.mock_locale(), Text(_, _))
      .WillByDefault(Invoke([](std::string& out, const char* key) { out = std::string("<") + key + ">"; }));
  CLanguage language(services.host);
  std::string text = Compose(language, "HDB saved.Total nodes=", 42, LKey{", path="}, "/x.hdb",
                             " [Is Dir]=", true);
  EXPECT_EQ("<HDB saved.Total nodes=>42<, path=>/x.hdb [Is Dir]=1", text);
}

TEST(MessageTest, PerSeverityHelpersUseTheirSlotAndEventCode) {
  MockServices services;
  auto& log = services.mock_log();
  EXPECT_CALL(log, Critical(0x10030, StrEq("c")));
  EXPECT_CALL(log, Error(0x10013, StrEq("e")));
  EXPECT_CALL(log, Warning(0x10013, StrEq("w")));
  EXPECT_CALL(log, Notice(0x10013, StrEq("n")));
  EXPECT_CALL(log, Information(0x10012, StrEq("i")));
  EXPECT_CALL(log, Debug(0x10013, StrEq("d")));
  LogCritical(log, "c", kEventRestoreTimeout);
  LogError(log, "e");
  LogWarning(log, "w");
  LogNotice(log, "n");
  LogInformation(log, "i", kEventShrink);
  LogDebug(log, "d");
}
