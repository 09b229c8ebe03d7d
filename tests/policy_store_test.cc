// A policy's files kept by the store alone: the module loaded as a plug-in by the reference host,
// no command line and no session.

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

#include "front/sign_db.h"
#include "hashdb/hash_db.h"
#include "refhost/module_loader.h"
#include "refhost/ref_host.h"
#include "refhost/save_hooks.h"
#include "tests/temp_dir.h"
#include "tool/common/exit_status.h"
#include "tool/common/policy_files.h"
#include "tool/store/dev_keys.h"
#include "tool/store/policy_store.h"
#include "tool/store/signer_keys.h"

namespace {

namespace fs = boost::filesystem;

class PolicyStoreTest : public ::testing::Test {
 protected:
  PolicyStoreTest() {
    MakeDevelopmentKeys(dir_ / "keys", CDevKeyRequest{});
    fs::create_directories(dir_ / "data");
    fs::create_directories(dir_ / "root");
    settings_.data_dir = dir_ / "data";
    settings_.log_console = false;
    settings_.log_file = dir_ / "signdb.log";
    settings_.signer_certificate = dir_ / "keys/signer.pem";
    settings_.signer_key = dir_ / "keys/signer.key";
    settings_.signer_chain = dir_ / "keys/ca.pem";
    settings_.local_cstm_id = CDevKeyRequest{}.cstm_id;
    settings_.local_lcs_id = CDevKeyRequest{}.local_lcs_id;
    policy_.name = "etc";
    policy_.root = dir_ / "root";
    settings_.policies.push_back(policy_);
    host_ = std::make_shared<CRefHost>(settings_);
    loader_ = std::make_unique<CModuleLoader>(SIGNDB_MODULE_PATH, host_);
    hooks_ = std::make_unique<CSaveHooks>(*host_);
    hooks_->KeepProblems();
    signer_ = std::make_unique<CSignerKeys>(settings_, *hooks_, "");
  }
  ~PolicyStoreTest() override {
    stores_.clear();
    loader_.reset();
  }

  // A store as another run of the tool would make it.
  CPolicyStore& Store() {
    stores_.push_back(std::make_unique<CPolicyStore>(policy_, *loader_->Front(), *host_,
                                                     *signer_, options_));
    return *stores_.back();
  }

  // Saves an empty database through a store of its own; returns its revision.
  uint64_t SaveOnce() {
    CPolicyStore& store = Store();
    std::shared_ptr<CHashDB> database = store.New();
    store.Save(database);
    return database->Revision();
  }

  CTempDir dir_;
  CRefSettings settings_;
  CRefPolicySettings policy_;
  CStoreOptions options_;
  std::shared_ptr<CRefHost> host_;
  std::unique_ptr<CModuleLoader> loader_;
  std::unique_ptr<CSaveHooks> hooks_;
  std::unique_ptr<CSignerKeys> signer_;
  std::vector<std::unique_ptr<CPolicyStore>> stores_;
};

std::string ErrorOf(const std::function<void()>& run) {
  try {
    run();
  } catch (const CToolError& e) {
    return e.what();
  }
  return "";
}

TEST_F(PolicyStoreTest, ItsFilesAreNamedAfterThePolicysDatabase) {
  CPolicyStore& store = Store();
  EXPECT_EQ(dir_ / "data/etc.hdb", store.database_file());
  EXPECT_EQ(dir_ / "data/etc.previous.hdb", store.previous_file());
  EXPECT_EQ(dir_ / "data/etc.hdb.candidate", store.candidate_file());
  EXPECT_EQ(dir_ / "data/etc.hdb.p7s", store.SignatureFileOf(store.database_file()));
  EXPECT_EQ(dir_ / "data/etc.hdb.bind", BindingFileOf(store.database_file()));
}

TEST_F(PolicyStoreTest, ASaveIsSignedBoundAndLoadedBackAndTheOneItReplacedIsKept) {
  uint64_t first = SaveOnce();
  EXPECT_TRUE(fs::exists(dir_ / "data/etc.hdb.p7s"));
  EXPECT_TRUE(fs::exists(dir_ / "data/etc.hdb.bind"));
  EXPECT_TRUE(fs::exists(dir_ / "data/etc.hdb.dff"));
  EXPECT_FALSE(fs::exists(dir_ / "data/etc.previous.hdb"));
  EXPECT_FALSE(fs::exists(SaveMarkerFileOf(dir_ / "data/etc.hdb")));

  uint64_t second = SaveOnce();
  EXPECT_NE(first, second);
  EXPECT_TRUE(fs::exists(dir_ / "data/etc.previous.hdb"));
  EXPECT_TRUE(fs::exists(dir_ / "data/etc.previous.hdb.p7s"));
  EXPECT_EQ(second, Store().Load()->Revision());
}

TEST_F(PolicyStoreTest, ADatabasePutBackFromAnEarlierSaveIsRefused) {
  SaveOnce();
  fs::copy_file(dir_ / "data/etc.hdb", dir_ / "earlier.hdb");
  fs::copy_file(dir_ / "data/etc.hdb.p7s", dir_ / "earlier.hdb.p7s");
  SaveOnce();
  fs::copy_file(dir_ / "earlier.hdb", dir_ / "data/etc.hdb", fs::copy_options::overwrite_existing);
  fs::copy_file(dir_ / "earlier.hdb.p7s", dir_ / "data/etc.hdb.p7s",
                fs::copy_options::overwrite_existing);
  std::string error = ErrorOf([&] { Store().Load(); });
  EXPECT_NE(std::string::npos, error.find("older than the last saved one")) << error;
}

TEST_F(PolicyStoreTest, ADatabaseWithoutItsBindingIsRefusedUnlessBindingIsAskedFor) {
  SaveOnce();
  fs::remove(dir_ / "data/etc.hdb.bind");
  std::string error = ErrorOf([&] { Store().Load(); });
  EXPECT_NE(std::string::npos, error.find("is not bound to policy 'etc'")) << error;
  options_.accept_unbound = true;
  EXPECT_NO_THROW(Store().Load());
}

TEST_F(PolicyStoreTest, ALoadSaysWhenThereIsNoDatabaseYet) {
  std::string error = ErrorOf([&] { Store().Load(); });
  EXPECT_NE(std::string::npos, error.find("policy 'etc' has no database yet")) << error;
}

TEST_F(PolicyStoreTest, SigningLaterKeepsACandidateAndLeavesTheDatabaseInPlace) {
  uint64_t in_place = SaveOnce();
  options_.sign_later = true;
  CPolicyStore& store = Store();
  std::string saved = store.Save(store.New());
  EXPECT_EQ(store.candidate_file(), saved);
  EXPECT_TRUE(fs::exists(saved));
  EXPECT_FALSE(fs::exists(saved + ".p7s"));
  EXPECT_TRUE(fs::exists(BindingFileOf(saved)));
  options_.sign_later = false;
  EXPECT_EQ(in_place, Store().Load()->Revision());
  // Unsigned, the candidate is not accepted, and nothing in place changes.
  std::string error = ErrorOf([&] { Store().Accept(); });
  EXPECT_NE(std::string::npos, error.find("has no signature file")) << error;
  EXPECT_EQ(in_place, Store().Load()->Revision());
}

TEST_F(PolicyStoreTest, WhatIsNotedAfterASaveMayFailWithoutUndoingTheSave) {
  CPolicyStore& store = Store();
  std::vector<std::string> noted;
  store.NoteAfterSave([&](const std::string& hdb_path) {
    noted.push_back(hdb_path);
    throw std::runtime_error("the packages' files could not be noted: no dpkg here");
  });
  std::shared_ptr<CHashDB> database = store.New();
  testing::internal::CaptureStderr();
  store.Save(database);
  std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::vector<std::string>{dir_ / "data/etc.hdb"}, noted);
  EXPECT_NE(std::string::npos, said.find("warning: the packages' files could not be noted")) << said;
  EXPECT_EQ(database->Revision(), Store().Load()->Revision());
}

}  // namespace
