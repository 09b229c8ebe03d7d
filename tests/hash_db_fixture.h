#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "hashdb/hash_db_impl.h"
#include "hashdb/map_hash_db.h"
#include "hashdb/wide_path.h"
#include "refhost/log_service.h"
#include "refhost/policy.h"
#include "refhost/ref_host.h"
#include "util/text_conversion.h"
#include "tests/fake_obj_info.h"
#include "tests/temp_dir.h"

// A database over the reference host, rooted at a fresh folder "<tmp>/root".
class HashDbTest : public testing::Test {
 protected:
  HashDbTest() {
    settings_.data_dir = dir_.path().string();
    settings_.log_console = false;
    settings_.threads = 2;
    boost::filesystem::create_directories(dir_.path() / "root");
    policy_.name = "test";
    policy_.root = (dir_.path() / "root").string();
  }

  void SetUp() override {
    host_ = std::make_shared<CRefHost>(settings_);
    host_->log().KeepRecords(true);
    db_ = MakeDb();
  }

  std::shared_ptr<CHashDBImpl> MakeDb() {
    return std::make_shared<CHashDBImpl>(host_, settings_.policy_number, HdbPath(),
                                         std::make_shared<CRefPolicy>(policy_));
  }

  std::wstring HdbPath() const { return Utf8ToWide((dir_.path() / "test.hdb").string()); }
  std::wstring Root() const { return Utf8ToWide(RootText()); }
  std::string RootText() const { return (dir_.path() / "root").string(); }
  std::wstring Full(const std::wstring& relative) const { return JoinPath(Root(), relative); }

  std::shared_ptr<CHashNode> Insert(const std::shared_ptr<CObjInfo>& info) {
    std::shared_ptr<CObjInfo> no_pending;
    return db_->InsertObject(no_pending, info);
  }
  std::shared_ptr<CHashNode> InsertFile(const std::wstring& relative, const std::string& hash,
                                        uint64_t size = 1) {
    return Insert(CFakeObjInfo::File(relative, hash, size));
  }
  std::shared_ptr<CHashNode> Find(const std::wstring& relative) { return db_->FindNode(relative); }

  // The texts logged at a priority, in order.
  std::vector<std::string> Logged(Poco::Message::Priority priority) const {
    std::vector<std::string> texts;
    for (const CLogRecord& record : host_->log().Records()) {
      if (record.priority == priority) texts.push_back(record.text);
    }
    return texts;
  }

  CTempDir dir_;
  CRefSettings settings_;
  CRefPolicySettings policy_;
  std::shared_ptr<CRefHost> host_;
  std::shared_ptr<CHashDBImpl> db_;
};

// The error text of "call", which must throw an exception of type E.
template <typename E, typename F>
std::string ErrorOf(F call) {
  try {
    call();
  } catch (const E& e) {
    return e.what();
  }
  return "(no exception)";
}
