// The module as a plug-in: each test loads its own copy of the built library, so that every test
// starts with an uninitialised module.

#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "front/sign_db.h"
#include "refhost/shared_library.h"
#include "tests/mock_host.h"
#include "tests/temp_dir.h"
#include "tests/native_path.h"

using testing::_;
using testing::InSequence;
using testing::ReturnRef;
using testing::SaveArg;
using testing::StrictMock;

namespace {

using InitFunction = void (*)(const std::shared_ptr<CHost>&);

class CFreshModule {
 public:
  CFreshModule() {
    std::string copy = dir_ / "signdb-copy.module";
    boost::filesystem::copy_file(SIGNDB_MODULE_PATH, copy);
    handle_ = OpenSharedLibrary(copy);
    if (handle_ == nullptr) throw std::runtime_error(SharedLibraryError());
    init_ = reinterpret_cast<InitFunction>(FindSharedLibrarySymbol(handle_, "init"));
  }
  ~CFreshModule() { CloseSharedLibrary(handle_); }
  InitFunction init() const { return init_; }

 private:
  CTempDir dir_;
  void* handle_ = nullptr;
  InitFunction init_ = nullptr;
};

}  // namespace

TEST(InitTest, InitHandsTheFrontToTheHostOnce) {
  CFreshModule module;
  ASSERT_NE(nullptr, module.init());
  MockServices services;
  std::shared_ptr<CSignDB> front;
  EXPECT_CALL(*services.host, TakeSignDB(_)).WillOnce(SaveArg<0>(&front));
  module.init()(services.host);
  ASSERT_NE(nullptr, front);
  EXPECT_EQ(L"/var/lib/signdb" + Native(L"/etc.hdb"), front->HdbFilePath("etc"));
  front.reset();
}

TEST(InitTest, ASecondInitCallsNoHostOperation) {
  CFreshModule module;
  MockServices services;
  EXPECT_CALL(*services.host, TakeSignDB(_)).Times(1);
  module.init()(services.host);
  auto strict = std::make_shared<StrictMock<MockHost>>();  // any call would fail the test
  module.init()(strict);
  testing::Mock::VerifyAndClearExpectations(services.host.get());
  EXPECT_CALL(*services.host, Utility()).Times(0);
  EXPECT_CALL(*services.host, TakeSignDB(_)).Times(0);
  module.init()(services.host);
  testing::Mock::VerifyAndClearExpectations(services.host.get());
}

TEST(InitTest, AFailingConstructorLeavesTheModuleUninitialisedAndALaterInitRetries) {
  CFreshModule module;
  MockServices services;
  std::shared_ptr<CCryptoService> crypto = services.crypto;
  services.crypto.reset();
  EXPECT_CALL(*services.host, TakeSignDB(_)).Times(0);
  try {
    module.init()(services.host);
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ("bad crypto init!", e.what());
  }
  testing::Mock::VerifyAndClearExpectations(services.host.get());
  services.crypto = crypto;
  EXPECT_CALL(*services.host, TakeSignDB(_)).Times(1);
  module.init()(services.host);
}

TEST(InitTest, TheModuleKeepsItsOwnReferenceToTheHostAndFront) {
  MockServices services;
  long before = services.host.use_count();
  {
    CFreshModule module;
    std::weak_ptr<CSignDB> seen;
    EXPECT_CALL(*services.host, TakeSignDB(_))
        .WillOnce([&seen](const std::shared_ptr<CSignDB>& front) { seen = front; });
    module.init()(services.host);
    EXPECT_FALSE(seen.expired());  // the host kept no copy; the module's global holds it
    EXPECT_GT(services.host.use_count(), before);
  }
  // Unloading the module released the front and, with it, the host.
  EXPECT_EQ(before, services.host.use_count());
}
