#include "front/sign_db_impl.h"

#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/read_context.h"
#include "tests/mock_host.h"
#include "tests/temp_dir.h"
#include "tests/native_path.h"

using testing::_;
using testing::InSequence;
using testing::Return;
using testing::ReturnRef;

namespace {

std::string ConstructionError(MockServices& services) {
  try {
    CSignDBImpl front(services.host);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "(built)";
}

}  // namespace

TEST(SignDBImplTest, ServicesAreFetchedInTheFixedOrder) {
  MockServices services;
  {
    InSequence order;
    EXPECT_CALL(*services.host, Utility()).WillOnce(ReturnRef(services.utility));
    EXPECT_CALL(*services.host, Crypto()).WillOnce(ReturnRef(services.crypto));
    EXPECT_CALL(*services.host, Locale()).WillOnce(ReturnRef(services.locale));
    EXPECT_CALL(*services.host, Log()).WillOnce(ReturnRef(services.log));
    EXPECT_CALL(*services.host, CfgEx()).WillOnce(ReturnRef(services.cfgex));
  }
  CSignDBImpl front(services.host);
}

TEST(SignDBImplTest, EachMissingServiceHasItsMessage) {
  {
    MockServices services;
    services.utility.reset();
    EXPECT_EQ("bad utility init!", ConstructionError(services));
  }
  {
    MockServices services;
    services.crypto.reset();
    EXPECT_EQ("bad crypto init!", ConstructionError(services));
  }
  {
    MockServices services;
    services.locale.reset();
    EXPECT_EQ("bad locale init!", ConstructionError(services));
  }
  {
    MockServices services;
    services.log.reset();
    EXPECT_EQ("bad log init!", ConstructionError(services));
  }
  {
    MockServices services;
    services.cfgex.reset();
    EXPECT_EQ("bad cfgex init!", ConstructionError(services));
  }
}

TEST(SignDBImplTest, TheFrontDoesNotNeedTheCfgServiceForItsServices) {
  MockServices services;
  services.cfg.reset();
  CSignDBImpl front(services.host);
  EXPECT_EQ(nullptr, front.ReadContext());  // nothing to build the read context with
}

TEST(SignDBImplTest, MissingCryptoLeavesTheUtilityServiceUnkept) {
  MockServices services;
  services.crypto.reset();
  EXPECT_CALL(*services.host, Locale()).Times(0);
  EXPECT_CALL(*services.host, Log()).Times(0);
  EXPECT_CALL(*services.host, CfgEx()).Times(0);
  EXPECT_EQ("bad crypto init!", ConstructionError(services));
  EXPECT_EQ(1, services.utility.use_count());
}

TEST(SignDBImplTest, AnEmptyHostCountsAsAMissingUtilityService) {
  try {
    CSignDBImpl front(nullptr);
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ("bad utility init!", e.what());
  }
}

TEST(SignDBImplTest, TheReadContextIsBuiltFromTheSdbiReadDescription) {
  MockServices services;
  CSignDBImpl front(services.host);
  std::shared_ptr<CReadContext> context = front.ReadContext();
  ASSERT_NE(nullptr, context);
  EXPECT_EQ("SDBI-Read", context->Name());
  EXPECT_EQ(context, front.ReadContext());  // a copy of the one kept
}

TEST(SignDBImplTest, HdbPathJoinsTheDataDirectoryAndThePolicyName) {
  MockServices services;
  services.data_directory = L"/var/lib/signdb";
  CSignDBImpl front(services.host);
  EXPECT_EQ(L"/var/lib/signdb" + Native(L"/etc.hdb"), front.HdbFilePath("etc"));
}

TEST(SignDBImplTest, NoSeparatorIsAddedWhenTheDirectoryEndsInOne) {
  MockServices services;
  services.data_directory = L"/var/lib/signdb/";
  CSignDBImpl front(services.host);
  EXPECT_EQ(L"/var/lib/signdb/etc.hdb", front.HdbFilePath("etc"));
}

TEST(SignDBImplTest, AnEmptyPolicyNameIsRefused) {
  MockServices services;
  CSignDBImpl front(services.host);
  for (auto call : {+[](CSignDBImpl& f) { f.HdbFilePath(""); },
                    +[](CSignDBImpl& f) { f.HdbFileExists(""); },
                    +[](CSignDBImpl& f) { f.SedFileExists(""); },
                    +[](CSignDBImpl& f) { f.WriteSedFile(""); }}) {
    try {
      call(front);
      ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ("[sdi,ghdfbpn] Policy name is empty!", e.what());
    }
  }
}

TEST(SignDBImplTest, HdbAndSedFilesExistAlsoAsDirectories) {
  CTempDir dir;
  MockServices services;
  services.data_directory = std::wstring(dir.path().wstring());
  CSignDBImpl front(services.host);
  EXPECT_FALSE(front.HdbFileExists("etc"));
  EXPECT_FALSE(front.SedFileExists("etc"));
  boost::filesystem::create_directory(dir.path() / "etc.hdb");
  boost::filesystem::create_directory(dir.path() / "etc.hdb.sed");
  EXPECT_TRUE(front.HdbFileExists("etc"));
  EXPECT_TRUE(front.SedFileExists("etc"));
  dir.Write("usr.hdb", "x");
  EXPECT_TRUE(front.HdbFileExists("usr"));
}

TEST(SignDBImplTest, TheSedFileHoldsTheHostsSedText) {
  MockServices services;
  EXPECT_CALL(services.mock_utility(), SedText(0)).WillOnce(Return("sed text"));
  {
    InSequence order;
    EXPECT_CALL(services.mock_utility(), PrepareWrite(L"/var/lib/signdb" + Native(L"/etc.hdb.sed")));
    EXPECT_CALL(services.mock_utility(),
                WriteBytes(L"/var/lib/signdb" + Native(L"/etc.hdb.sed"), _, 8, 1, 0))
        .WillOnce([](const std::wstring&, const void* data, uint64_t length, uint32_t, uint32_t) {
          EXPECT_EQ("sed text", std::string(static_cast<const char*>(data), length));
          return true;
        });
  }
  CSignDBImpl front(services.host);
  front.WriteSedFile("etc");
}

TEST(SignDBImplTest, FindingAnEmptyHashReturnsEmptyAtOnce) {
  MockServices services;
  CSignDBImpl front(services.host);
  EXPECT_EQ(L"", front.FindFileByHash("", true));
}
