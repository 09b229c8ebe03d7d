// The built module loaded as a plug-in by the reference host.

#include <gtest/gtest.h>

#include "front/sign_db.h"
#include "host/read_context.h"
#include "refhost/module_loader.h"
#include "refhost/ref_host.h"
#include "tests/temp_dir.h"
#include "tests/native_path.h"

TEST(ModuleIntegrationTest, TheReferenceHostLoadsTheModuleAndReceivesTheFront) {
  CTempDir dir;
  CRefSettings settings;
  settings.data_dir = dir.path().string();
  settings.log_console = false;
  auto host = std::make_shared<CRefHost>(settings);
  CModuleLoader loader(SIGNDB_MODULE_PATH, host);
  std::shared_ptr<CSignDB> front = loader.Front();
  ASSERT_NE(nullptr, front);
  EXPECT_EQ("SDBI-Read", front->ReadContext()->Name());
  EXPECT_EQ(dir.path().wstring() + Native(L"/etc.hdb"), front->HdbFilePath("etc"));
  EXPECT_FALSE(front->SedFileExists("etc"));
  front->WriteSedFile("etc");
  EXPECT_TRUE(front->SedFileExists("etc"));
  EXPECT_FALSE(CTempDir::Read(dir / "etc.hdb.sed").empty());
}

TEST(ModuleIntegrationTest, AMissingModuleIsAClearError) {
  CTempDir dir;
  CRefSettings settings;
  settings.log_console = false;
  auto host = std::make_shared<CRefHost>(settings);
  try {
    CModuleLoader loader(dir / "libnothing.so", host);
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string::npos, std::string(e.what()).find("cannot load the module"));
  }
}
