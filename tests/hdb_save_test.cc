#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include <gtest/gtest.h>

#include "refhost/crash_point.h"
#include "refhost/log_service.h"
#include "tests/persistence_fixture.h"
#include "tests/scripted_pool.h"

namespace {

// Every field that the format carries, for every node, in both trees.
void ExpectSameTrees(const std::shared_ptr<CHashNode>& a, const std::shared_ptr<CHashNode>& b,
                     bool platform_fields, const std::string& where = "/") {
  ASSERT_TRUE(a && b) << where;
  EXPECT_EQ(a->is_dir, b->is_dir) << where;
  EXPECT_EQ(a->time_2, b->time_2) << where;
  EXPECT_EQ(a->size, b->size) << where;
  // A directory's empty hash text and no hash at all are both written as no hash bytes.
  std::string none = a->is_dir ? "" : "(none)";
  EXPECT_EQ(a->hash ? *a->hash : none, b->hash ? *b->hash : none) << where;
  if (platform_fields) {
    EXPECT_EQ(a->attributes, b->attributes) << where;
    EXPECT_EQ(a->time_1, b->time_1) << where;
    EXPECT_EQ(a->security_attributes, b->security_attributes) << where;
    EXPECT_EQ(a->target_path, b->target_path) << where;
  }
  size_t a_children = a->children ? a->children->size() : 0;
  size_t b_children = b->children ? b->children->size() : 0;
  ASSERT_EQ(a_children, b_children) << where;
  if (a_children == 0) return;
  for (const auto& [key, child] : *a->children) {
    auto other = b->children->find(key);
    ASSERT_NE(b->children->end(), other) << where + key;
    EXPECT_EQ(child->name, other->second->name);
    ExpectSameTrees(child, other->second, platform_fields, where + key + "/");
  }
}

}  // namespace

class HdbSaveTest : public PersistenceTest {
 protected:
  void FillVariedTree() {
    InsertFile(L"etc/passwd", std::string(64, 'a'), 1234);
    InsertFile(L"etc/r\u00e9sum\u00e9 \u6587\u4ef6.txt", std::string(64, 'b'), 99);
    InsertFile(L"empty", "", 0);
    dir_.Write("root/empty", "");
    auto linked = CFakeObjInfo::Directory(L"linked");
    linked->target = "/elsewhere";
    Insert(linked);
    auto link = CFakeObjInfo::File(L"etc/link", "");
    link->target = "passwd";
    link->size = 6;
    Insert(link);
    Insert(CFakeObjInfo::Directory(L"var/empty_dir"));
  }
};

TEST_F(HdbSaveTest, ASaveFollowedByALoadGivesBackTheSameTree) {
  FillVariedTree();
  db_->Save();
  std::shared_ptr<CHashDBImpl> loaded = MakeDb();
  ASSERT_TRUE(LoadSaved(loaded));
  EXPECT_TRUE(loaded->IsLoaded());
  ExpectSameTrees(db_->root(), loaded->root(), true);
  EXPECT_EQ(db_->Revision(), loaded->Revision());
  EXPECT_EQ(Full(L"etc/passwd"), loaded->PathByHash(std::string(64, 'a'), false));
  EXPECT_EQ(0xFFFFFFFFFFFFFFFFull, loaded->ChangeCounter());
  EXPECT_TRUE(Logs(Poco::Message::PRIO_INFORMATION, "Saving HDB,path=" + HdbFile()));
  EXPECT_TRUE(LogsStarting(Poco::Message::PRIO_INFORMATION, "HDB saved.Total nodes=9 ("));
  EXPECT_TRUE(LogsStarting(Poco::Message::PRIO_INFORMATION, "HDB loaded.Restore nodes=9 ("));
}

// A million records, loaded by two restore tasks at once: every node comes back as it was saved,
// and the index holds every file under its hash again, equal contents in their saved order.
TEST_F(HdbSaveTest, AMillionRecordsLoadedOnTwoThreadsGiveBackEveryNodeAsSaved) {
  ASSERT_EQ(2u, settings_.threads);
  std::shared_ptr<CObjInfo> none;
  auto info = CFakeObjInfo::File(L"", "");
  for (int i = 0; i < 1000000; ++i) {
    info->relative = L"d" + std::to_wstring(i / 10000) + L"/e" + std::to_wstring(i / 1000 % 10) + L"/f" +
                     std::to_wstring(i % 1000) + L".dat";
    // Every tenth file has the content of the one before it.
    int content = i % 10 == 9 ? i - 1 : i;
    char hash[65];
    auto value = static_cast<unsigned>(content);
    std::snprintf(hash, sizeof hash, "%016x%016x%016x%016x", value * 2654435761u, value, ~value, value * 7);
    info->hash = hash;
    info->size = static_cast<uint64_t>(i);
    info->time_1 = static_cast<uint64_t>(i) * 3;
    info->time_2 = static_cast<uint64_t>(i) * 5;
    info->security = "mode=0644 inode=" + std::to_string(i);
    info->target = i % 1000 == 0 ? "target-" + std::to_string(i) : "";
    db_->InsertObject(none, info);
  }
  db_->Save();
  std::shared_ptr<CHashDBImpl> loaded = MakeDb();
  ASSERT_TRUE(LoadSaved(loaded));
  EXPECT_TRUE(LogsStarting(Poco::Message::PRIO_INFORMATION, "HDB loaded.Restore nodes=1001101 ("));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_DEBUG, "Restore leaves worker thread(s)=2"));
  ExpectSameTrees(db_->root(), loaded->root(), true);
  auto entries = [](const std::shared_ptr<CHashDBImpl>& db) {
    std::vector<std::pair<std::string, std::string>> result;
    for (const auto& [hash, node] : db->index().Snapshot()) result.emplace_back(hash, db->RelativeTextOfNode(node));
    return result;
  };
  std::vector<std::pair<std::string, std::string>> saved = entries(db_);
  ASSERT_EQ(1000000u, saved.size());
  EXPECT_EQ(saved, entries(loaded));
  EXPECT_EQ(900000u, loaded->index().HashCount());
}

TEST_F(HdbSaveTest, AnEmptyDatabaseSavesTheHeaderAndTheRootsRecord) {
  db_->Save();
  std::string bytes = CTempDir::Read(HdbFile());
  // The root's record: the fixed part and the root directory's own security attributes.
  ASSERT_EQ(48u + 41u + db_->root()->security_attributes.size(), bytes.size());
  const auto* data = reinterpret_cast<const uint8_t*>(bytes.data());
  EXPECT_EQ(1u, DecodeBigEndian64(data + kHeaderNodeCountOffset));
  EXPECT_EQ(0u, DecodeBigEndian16(data + 48 + kRecordPathLengthOffset));
  EXPECT_EQ(1, data[48 + kRecordDirectoryOffset]);
  std::shared_ptr<CHashDBImpl> loaded = MakeDb();
  ASSERT_TRUE(LoadSaved(loaded));
  EXPECT_TRUE(loaded->IsEmpty());
}

TEST_F(HdbSaveTest, TheTotalCountsEveryNodeAndTheHeaderIsComplete) {
  InsertFile(L"a/b/c", "aa");
  InsertFile(L"a/d", "bb");
  db_->Save();
  std::string bytes = CTempDir::Read(HdbFile());
  const auto* data = reinterpret_cast<const uint8_t*>(bytes.data());
  EXPECT_EQ(kHdbMagic, DecodeBigEndian64(data));
  EXPECT_EQ(130u, DecodeBigEndian32(data + kHeaderVersionOffset));
  EXPECT_EQ(1u, DecodeBigEndian32(data + kHeaderPlatformOffset));
  EXPECT_EQ(48u, DecodeBigEndian32(data + kHeaderLengthOffset));
  EXPECT_EQ(256u, DecodeBigEndian32(data + kHeaderPolicyNumberOffset));
  EXPECT_EQ(host_->Crypto()->DigestDescriptor(256), DecodeBigEndian32(data + kHeaderPolicyValueOffset));
  EXPECT_EQ(5u, DecodeBigEndian64(data + kHeaderNodeCountOffset));  // root, a, a/b, a/b/c, a/d
  EXPECT_EQ(db_->Revision(), DecodeBigEndian64(data + kHeaderRevisionOffset));
  EXPECT_EQ(db_->Revision(), db_->FileRevision());
  EXPECT_TRUE(db_->IsCurrent());
}

TEST_F(HdbSaveTest, AHashOf256BytesIsStoredWithLengthZeroAndOneOf257FailsItsNode) {
  std::string hash256 = std::string(512, 'c');
  InsertFile(L"big", hash256, 5);
  db_->Save();
  std::string bytes = CTempDir::Read(HdbFile());
  size_t at = bytes.find(std::string(256, '\xcc'));
  ASSERT_NE(std::string::npos, at);
  EXPECT_EQ(0, bytes[at - 41 + kRecordHashLengthOffset]);
  InsertFile(L"bigger", std::string(514, 'd'), 5);
  db_->Save();
  EXPECT_TRUE(LogsStarting(Poco::Message::PRIO_ERROR, "[pool] a task failed: [HDBI,wn] bad size-2!"));
  bytes = CTempDir::Read(HdbFile());
  EXPECT_EQ(std::string::npos, bytes.find("bigger"));
  // The failed node is neither written nor counted: the root and "big" remain.
  EXPECT_EQ(2u, DecodeBigEndian64(reinterpret_cast<const uint8_t*>(bytes.data()) + kHeaderNodeCountOffset));
}

TEST_F(HdbSaveTest, SecurityAttributesOf65536BytesWrapButATargetThatLongFails) {
  auto info = CFakeObjInfo::File(L"sec", "", 3);
  info->security = std::string(65536, 's');
  Insert(info);
  db_->Save();
  std::string bytes = CTempDir::Read(HdbFile());
  size_t at = bytes.find("sec" + std::string(65536, 's'));
  ASSERT_NE(std::string::npos, at);  // written whole
  const auto* record = reinterpret_cast<const uint8_t*>(bytes.data()) + at - 41;
  EXPECT_EQ(0u, DecodeBigEndian16(record + kRecordSecurityLengthOffset));

  auto long_target = CFakeObjInfo::File(L"t", "", 3);
  long_target->target = std::string(65536, 't');
  Insert(long_target);
  db_->Save();
  EXPECT_TRUE(LogsStarting(Poco::Message::PRIO_ERROR, "[pool] a task failed: [HDBI,wn] bad size-4!"));
}

TEST_F(HdbSaveTest, AnEmptyHashTextIsWrittenWithoutHashBytes) {
  InsertFile(L"no-hash-yet", "", 7);
  db_->Save();
  std::string bytes = CTempDir::Read(HdbFile());
  size_t at = bytes.find("no-hash-yet");
  const auto* record = reinterpret_cast<const uint8_t*>(bytes.data()) + at - 41;
  ASSERT_EQ(kRecordMark, record[0]);
  EXPECT_EQ(0, record[kRecordHashLengthOffset]);
  EXPECT_EQ(11u, DecodeBigEndian16(record + kRecordPathLengthOffset));
}

namespace {
// A utility service whose random stamps are scripted.
class CScriptedStampUtility : public CRefUtilityService {
 public:
  using CRefUtilityService::CRefUtilityService;
  uint64_t RandomStamp() override { return stamps.at(next++ % stamps.size()); }
  std::vector<uint64_t> stamps;
  size_t next = 0;
};
class CScriptedStampHost : public CRefHost {
 public:
  explicit CScriptedStampHost(const CRefSettings& settings) : CRefHost(settings) {
    scripted = std::make_shared<CScriptedStampUtility>(
        std::shared_ptr<CRefLogService>(std::shared_ptr<CRefLogService>(), &log()), "");
    utility = scripted;
  }
  const std::shared_ptr<CUtilityService>& Utility() override { return utility; }
  std::shared_ptr<CScriptedStampUtility> scripted;
  std::shared_ptr<CUtilityService> utility;
};
}  // namespace

TEST_F(HdbSaveTest, TwoSavesInARowWriteDifferentStampsEvenFromARepeatingSource) {
  auto host = std::make_shared<CScriptedStampHost>(settings_);
  host->scripted->stamps = {0xFFFFFFFFFFFFFFFFull, 7, 7, 7, 9};
  host_ = host;
  db_ = MakeDb();
  db_->Save();
  EXPECT_EQ(7u, db_->Revision());  // all ones is never a stamp
  db_->Save();
  EXPECT_EQ(9u, db_->Revision());  // the current revision is never reused
  EXPECT_EQ(9u, db_->FileRevision());
}

TEST_F(HdbSaveTest, TheSignatureFitsTheDataAndNoTemporaryFileIsLeft) {
  InsertFile(L"f", "aa");
  db_->Save();
  EXPECT_FALSE(boost::filesystem::exists(dir_ / "test.hdb.tmp"));
  EXPECT_FALSE(boost::filesystem::exists(dir_ / "test.hdb.tmp.p7s"));
  ASSERT_TRUE(boost::filesystem::exists(SignatureFile()));
  EXPECT_TRUE(db_->VerifySignature(HdbFile(), Buffer(CTempDir::Read(HdbFile())),
                                   Buffer(CTempDir::Read(SignatureFile()))));
}

TEST_F(HdbSaveTest, AStaleTemporaryFileIsRemovedFirst) {
  dir_.Write("test.hdb.tmp", std::string(100000, 'x'));
  db_->Save();
  EXPECT_FALSE(boost::filesystem::exists(dir_ / "test.hdb.tmp"));
  EXPECT_EQ(48u + 41u + db_->root()->security_attributes.size(), boost::filesystem::file_size(HdbFile()));
}

// A link planted under the temporary name after the stale file was deleted and before the new
// one is made (forced here at the delete's last step) is never written through: the save fails
// and the file the link names keeps its bytes.
TEST_F(HdbSaveTest, ALinkPlantedAtTheTemporaryNameIsNeverWrittenThrough) {
  InsertFile(L"f", "aa");
  std::string victim = dir_.Write("victim", "precious\n");
  std::string temporary = dir_ / "test.hdb.tmp";
  SetCrashPointHook([&] {
    if (!boost::filesystem::exists(boost::filesystem::symlink_status(temporary))) {
      boost::filesystem::create_symlink(victim, temporary);
    }
  });
  std::string error = ErrorOf<std::runtime_error>([&] { db_->Save(); });
  SetCrashPointHook(nullptr);
  EXPECT_EQ("[HDBI,smhdtd]HDB file open failed.File=" + temporary, error);
  EXPECT_EQ("precious\n", CTempDir::Read(victim));
  EXPECT_FALSE(boost::filesystem::exists(HdbFile()));
}

TEST_F(HdbSaveTest, AFailedSaveLeavesThePreviousHdbFileAndSignatureAsTheyWere) {
  InsertFile(L"f", "aa");
  db_->Save();
  std::string hdb = CTempDir::Read(HdbFile());
  std::string signature = CTempDir::Read(SignatureFile());
  uint64_t revision = db_->Revision();
  InsertFile(L"g", "bb");

  boost::filesystem::create_directories(dir_.path() / "test.hdb.tmp" / "blocker");
  EXPECT_EQ("[HDBI,smhdtd]HDB file open failed.File=" + (dir_ / "test.hdb.tmp"),
            ErrorOf<std::runtime_error>([&] { db_->Save(); }));
  boost::filesystem::remove_all(dir_.path() / "test.hdb.tmp");

  settings_.signer_key = dir_ / "no-such.key";
  host_ = std::make_shared<CRefHost>(settings_);
  std::shared_ptr<CHashDBImpl> unsigned_db = MakeDb();
  EXPECT_THROW(unsigned_db->Save(), std::runtime_error);

  EXPECT_EQ(hdb, CTempDir::Read(HdbFile()));
  EXPECT_EQ(signature, CTempDir::Read(SignatureFile()));
  EXPECT_EQ(revision, db_->Revision());
}

TEST_F(HdbSaveTest, AFileFromAnotherPlatformKeepsOnlyThePortableFields) {
  FillVariedTree();
  db_->Save();
  std::string bytes = CTempDir::Read(HdbFile());
  EncodeBigEndian32(reinterpret_cast<uint8_t*>(bytes.data()) + kHeaderPlatformOffset, 0);
  std::shared_ptr<CHashDBImpl> loaded = MakeDb();
  ASSERT_TRUE(LoadInto(loaded, bytes));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_WARNING,
                   "[Attention] Attributes and security attributes are both ignored because of current "
                   "HDB file is generate from different OS Platform.[HDB]=" + HdbFile()));
  ExpectSameTrees(db_->root(), loaded->root(), false);
  std::shared_ptr<CHashNode> passwd = loaded->FindNode(L"etc/passwd");
  EXPECT_EQ(0xFFFFFFFFu, passwd->attributes);
  EXPECT_EQ(0xFFFFFFFFFFFFFFFFull, passwd->time_1);
  EXPECT_EQ("", passwd->security_attributes);
  EXPECT_EQ("", loaded->FindNode(L"linked")->target_path);
  EXPECT_EQ(200u, passwd->time_2);
  EXPECT_EQ(1234u, passwd->size);
}

namespace {

// Runs each task at once but keeps it until told: a pool that releases its tasks late, after
// the walk that submitted them has ended.
class CLateReleasePool : public CThreadPool {
 public:
  void Submit(std::function<void()> task) override {
    task();
    kept_.push_back(std::move(task));
  }
  void FinishRun() override {}
  void PrepareRun() override {}
  uint32_t ThreadCount() override { return 1; }
  std::string StatusText() override { return " [late release pool]"; }
  bool AllFinished() override { return true; }
  bool WaitAllFinished(uint32_t) override { return true; }
  void ReleaseKept() { kept_.clear(); }
  size_t Kept() const { return kept_.size(); }

 private:
  std::vector<std::function<void()>> kept_;
};

// A buffered writer that says when it is gone.
class CWatchedWriter : public CBufferedWriter {
 public:
  CWatchedWriter(std::shared_ptr<CBufferedWriter> writer, std::shared_ptr<bool> gone)
      : writer_(std::move(writer)), gone_(std::move(gone)) {}
  ~CWatchedWriter() override { *gone_ = true; }
  void Write(const void* data, uint64_t length) override { writer_->Write(data, length); }
  void Flush() override { writer_->Flush(); }

 private:
  std::shared_ptr<CBufferedWriter> writer_;
  std::shared_ptr<bool> gone_;
};

class CWatchingUtility : public CRefUtilityService {
 public:
  using CRefUtilityService::CRefUtilityService;
  std::shared_ptr<CBufferedWriter> MakeBufferedWriter(std::ostream& out, uint64_t capacity) override {
    writer_gone = std::make_shared<bool>(false);
    return std::make_shared<CWatchedWriter>(CRefUtilityService::MakeBufferedWriter(out, capacity), writer_gone);
  }
  std::shared_ptr<bool> writer_gone;
};

class CWatchingHost : public CHostWithPool<CRefHost> {
 public:
  CWatchingHost(const CRefSettings& settings, std::shared_ptr<CThreadPool> pool)
      : CHostWithPool<CRefHost>(settings, std::move(pool)),
        watching_(std::make_shared<CWatchingUtility>(std::make_shared<CRefLogService>("error", false, ""), "")),
        utility_(watching_) {}
  const std::shared_ptr<CUtilityService>& Utility() override { return utility_; }
  CWatchingUtility& watching() { return *watching_; }

 private:
  std::shared_ptr<CWatchingUtility> watching_;
  std::shared_ptr<CUtilityService> utility_;
};

}  // namespace

TEST_F(HdbSaveTest, TheWriterOfTheFileIsGoneWhenTheSaveReturnsHoweverLateThePoolReleasesItsTasks) {
  auto pool = std::make_shared<CLateReleasePool>();
  auto host = std::make_shared<CWatchingHost>(settings_, pool);
  host_ = host;
  db_ = MakeDb();
  InsertFile(L"d/f", "aa");
  InsertFile(L"g", "bb");
  db_->Save();
  ASSERT_GT(pool->Kept(), 0u);
  ASSERT_TRUE(host->watching().writer_gone);
  EXPECT_TRUE(*host->watching().writer_gone);  // not left for the late release to destroy
  pool->ReleaseKept();
  std::shared_ptr<CHashDBImpl> loaded = MakeDb();
  EXPECT_TRUE(LoadSaved(loaded));
}
