#include "host/language.h"

#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/mock_host.h"

using testing::_;
using testing::Invoke;
using testing::Return;
using testing::ReturnRef;

TEST(LanguageTest, EmptyHostIsRefused) {
  try {
    CLanguage language(nullptr);
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ("[cl]Bad global class!", e.what());
  }
}

TEST(LanguageTest, TextComesFromTheLocalisationService) {
  MockServices services;
  EXPECT_CALL(services.mock_locale(), Text(_, testing::StrEq("Saving HDB,path=")))
      .WillOnce(Invoke([](std::string& out, const char*) { out = "Sauvegarde,chemin="; }));
  CLanguage language(services.host);
  std::string out;
  EXPECT_EQ("Sauvegarde,chemin=", language.Text(out, "Saving HDB,path="));
  EXPECT_EQ("Sauvegarde,chemin=", out);
}

TEST(LanguageTest, AnEmptyAnswerOfThePresentServiceIsKeptNotReplacedByTheKey) {
  MockServices services;
  ON_CALL(services.mock_locale(), Text(_, _))
      .WillByDefault(Invoke([](std::string& out, const char*) { out.clear(); }));
  CLanguage language(services.host);
  std::string out = "stale";
  EXPECT_EQ("", language.Text(out, "some key"));
}

TEST(LanguageTest, WithoutServiceTheKeyIsTheTextAndTheHostIsAskedAgainUntilItAppears) {
  MockServices services;
  std::shared_ptr<CLocaleService> absent;
  std::shared_ptr<CLocaleService> present = services.locale;
  ON_CALL(services.mock_locale(), Text(_, _))
      .WillByDefault(Invoke([](std::string& out, const char*) { out = "translated"; }));
  EXPECT_CALL(*services.host, Locale())
      .WillOnce(ReturnRef(absent))
      .WillOnce(ReturnRef(absent))
      .WillOnce(ReturnRef(present));
  CLanguage language(services.host);
  std::string out;
  EXPECT_EQ("key one", language.Text(out, "key one"));
  EXPECT_EQ("key two", language.Text(out, "key two"));
  EXPECT_EQ("translated", language.Text(out, "key three"));
  // Ready now: no further fetch from the host (the expectation above allows exactly three).
  EXPECT_EQ("translated", language.Text(out, "key four"));
}
