#include <gtest/gtest.h>

#include "tests/persistence_fixture.h"
#include "tests/scripted_pool.h"

class HdbLoadTest : public PersistenceTest {
 protected:
  std::string Path() const { return HdbFile(); }
  // The header with one field changed.
  std::string HeaderWith(size_t offset, uint32_t value, uint64_t count = 0) {
    std::string header = Header(count);
    EncodeBigEndian32(reinterpret_cast<uint8_t*>(header.data()) + offset, value);
    return header;
  }
};

TEST_F(HdbLoadTest, AHeaderWithoutRecordsLoadsAsTheRootAlone) {
  ASSERT_TRUE(LoadInto(db_, Header(0)));
  EXPECT_TRUE(db_->IsLoaded());
  EXPECT_TRUE(db_->IsEmpty());
  EXPECT_EQ(0x1122334455667788ull, db_->Revision());
  EXPECT_TRUE(LogsStarting(Poco::Message::PRIO_INFORMATION, "HDB loaded.Restore nodes=0 ("));
  EXPECT_TRUE(LogsStarting(Poco::Message::PRIO_INFORMATION, "HDB loaded.Restore nodes=0"));
  EXPECT_FALSE(LogsStarting(Poco::Message::PRIO_DEBUG, "Restore leaves worker thread(s)="));
}

TEST_F(HdbLoadTest, ASecondLoadIsRefused) {
  ASSERT_TRUE(LoadInto(db_, Header(0)));
  EXPECT_EQ("[hdbi,rmhdfd]Can NOT call more than once!",
            ErrorOf<std::runtime_error>([&] { LoadInto(db_, Header(0)); }));
}

TEST_F(HdbLoadTest, MissingDataOrSignatureIsRefused) {
  EXPECT_FALSE(db_->Load(nullptr, false, Path(), nullptr, Buffer("s")));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_ERROR, "[hdbi,rmhdfd] Bad hdb data! [HDB]=" + Path()));
  EXPECT_FALSE(LoadInto(db_, Header(0), ""));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_ERROR, "[hdbi,rmhdfd] Bad sig data! [HDB]=" + Path()));
  EXPECT_FALSE(db_->IsLoaded());
  EXPECT_TRUE(LoadInto(db_, Header(0)));  // a refused load may be retried
}

TEST_F(HdbLoadTest, HeaderChecksInTheirOrder) {
  std::string bad_magic = Header(0);
  bad_magic[0] = 0;
  EXPECT_FALSE(LoadInto(db_, bad_magic));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_ERROR, "[HDBI,rmhdfd]HDB file corrupted-0.[HDB]=" + Path()));
  EXPECT_FALSE(LoadInto(db_, HeaderWith(kHeaderVersionOffset, 129)));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_ERROR, "[HDBI,rmhdfd]HDB file version is older than program.File = " + Path()));
  EXPECT_FALSE(LoadInto(db_, HeaderWith(kHeaderVersionOffset, 131)));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_ERROR, "[HDBI,rmhdfd]HDB file version is newer than program.File = " + Path()));
  EXPECT_FALSE(LoadInto(db_, HeaderWith(kHeaderLengthOffset, 49)));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_ERROR, "[HDBI,rmhdfd]HDB file corrupted-1.[HDB]=" + Path()));
  EXPECT_FALSE(LoadInto(db_, HeaderWith(kHeaderPolicyNumberOffset, 512)));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_ERROR, "[HDBI,rmhdfd]HDB file corrupted-2.[HDB]=" + Path()));
  EXPECT_FALSE(LoadInto(db_, HeaderWith(kHeaderPolicyValueOffset, 1)));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_ERROR, "[HDBI,rmhdfd]HDB file corrupted-3.[HDB]=" + Path()));
  EXPECT_FALSE(LoadInto(db_, Header(0, 0xFFFFFFFFFFFFFFFFull)));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_ERROR, "[HDBI,rmhdfd]HDB file corrupted-6.[HDB]=" + Path()));
  EXPECT_FALSE(db_->IsLoaded());
  EXPECT_EQ(kNoRevision, db_->Revision());  // refused files leave the database as it was
}

TEST_F(HdbLoadTest, HeaderLengthsUpTo48AndRevisionAllOnesButOneAreAccepted) {
  EXPECT_TRUE(LoadInto(MakeDb(), HeaderWith(kHeaderLengthOffset, 0)));
  EXPECT_TRUE(LoadInto(MakeDb(), HeaderWith(kHeaderLengthOffset, 47)));
  std::shared_ptr<CHashDBImpl> db = MakeDb();
  EXPECT_TRUE(LoadInto(db, Header(0, 0xFFFFFFFFFFFFFFFEull)));
  EXPECT_EQ(0xFFFFFFFFFFFFFFFEull, db->Revision());
}

TEST_F(HdbLoadTest, RecordsBuildTheTreeAndTheIndex) {
  std::string hash(32, '\xab');
  ASSERT_TRUE(LoadInto(db_, Header(3) + Record("d", true, "", 0) + Record("d/f", false, hash, 9, "owner=1", "tgt") +
                                Record("", true, "", 0, "owner=0")));
  std::shared_ptr<CHashNode> f = Find(L"d/f");
  ASSERT_NE(nullptr, f);
  EXPECT_EQ(std::string(64, 'a').replace(1, 1, "b").size(), f->hash->size());
  EXPECT_EQ("abababababababababababababababababababababababababababababababab", *f->hash);
  EXPECT_EQ(9u, f->size);
  EXPECT_EQ(0100644u, f->attributes);
  EXPECT_EQ(11u, f->time_1);
  EXPECT_EQ(22u, f->time_2);
  EXPECT_EQ("owner=1", f->security_attributes);
  EXPECT_EQ("tgt", f->target_path);
  EXPECT_TRUE(Find(L"d")->is_dir);
  EXPECT_EQ(nullptr, Find(L"d")->hash);  // a directory record starts with no hash
  EXPECT_EQ("owner=0", db_->root()->security_attributes);  // the record without a path is the root's
  EXPECT_EQ(Full(L"d/f"), db_->PathByHash(*f->hash, false));
}

TEST_F(HdbLoadTest, RecordsWithTheSameSecurityAttributesShareOneCopyOfTheText) {
  ASSERT_TRUE(LoadInto(db_, Header(4) + Record("a", false, "\x01", 1, "owner=1") + Record("b", false, "\x02", 1, "owner=2") +
                                Record("c", false, "\x03", 1, "owner=1") + Record("d", false, "\x04", 1, "")));
  std::shared_ptr<CHashNode> a = Find(L"a"), b = Find(L"b"), c = Find(L"c"), d = Find(L"d");
  ASSERT_TRUE(a && b && c && d);
  EXPECT_EQ("owner=1", c->security_attributes);
  EXPECT_EQ(a->security_attributes.data(), c->security_attributes.data());  // not neighbours, still one copy
  EXPECT_EQ("owner=2", b->security_attributes);
  EXPECT_TRUE(d->security_attributes.empty());
}

TEST_F(HdbLoadTest, BytesBeforeTheFirstRecordStartAreSkipped) {
  ASSERT_TRUE(LoadInto(db_, Header(1) + "garbage" + Record("f", false, "\x01", 3)));
  EXPECT_NE(nullptr, Find(L"f"));
  EXPECT_TRUE(LogsStarting(Poco::Message::PRIO_INFORMATION, "HDB loaded.Restore nodes=1 ("));
}

TEST_F(HdbLoadTest, ABodyWithoutARecordStartIsCorrupt) {
  EXPECT_EQ("[HDBI,rmhdfd]HDB file corrupted-8.1.File=" + Path(),
            ErrorOf<std::runtime_error>([&] { LoadInto(db_, Header(1) + std::string(100, 'x')); }));
  EXPECT_FALSE(db_->IsLoaded());
}

TEST_F(HdbLoadTest, ASingleRecordMakesOnePieceWhateverTheThreadCount) {
  settings_.threads = 4;
  SetUp();
  ASSERT_TRUE(LoadInto(db_, Header(1) + Record("f", false, "\x01", 3)));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_DEBUG, "Restore leaves worker thread(s)=1"));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_DEBUG, "Waiting all nodes to be restored,path=" + Path()));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_DEBUG, "One restore nodes thread exited,path=" + Path()));
}

TEST_F(HdbLoadTest, ABodyShorterThanTheThreadCountCutsAnEmptyPiece) {
  settings_.threads = 64;  // 64 threads, a 42-byte body: pieces of 0 bytes
  SetUp();
  EXPECT_EQ("[rlh]Bad pos!",
            ErrorOf<std::runtime_error>([&] { LoadInto(db_, Header(1) + Record("f", false, "\x01", 3)); }));
}

TEST_F(HdbLoadTest, MoreNodesAnnouncedThanPresentIsAPartialLoad) {
  ASSERT_TRUE(LoadInto(db_, Header(5) + Record("f", false, "\x01", 3)));
  EXPECT_TRUE(db_->IsLoaded());
  EXPECT_TRUE(LogsStarting(Poco::Message::PRIO_WARNING, "HDB loaded.But restore nodes=1,nodes need to restore=5 ("));
}

TEST_F(HdbLoadTest, ABadRecordMarkOrEndMarkAbandonsThePieceFromThere) {
  std::string second = Record("g", false, "\x02", 3);
  second[0] = 0x28;
  ASSERT_TRUE(LoadInto(db_, Header(2) + Record("f", false, "\x01", 3) + second));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_ERROR,
                   "[HDBI,trln,STDE] info=[HDBI,rlnk]HDB file corrupted-7.File=" + Path()));
  EXPECT_NE(nullptr, Find(L"f"));
  EXPECT_EQ(nullptr, Find(L"g"));

  std::shared_ptr<CHashDBImpl> db = MakeDb();
  second = Record("g", false, "\x02", 3);
  second[40] = 0;
  ASSERT_TRUE(LoadInto(db, Header(2) + Record("f", false, "\x01", 3) + second));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_ERROR,
                   "[HDBI,trln,STDE] info=[HDBI,rlnk]HDB file corrupted-8.File=" + Path()));
  EXPECT_TRUE(LogsStarting(Poco::Message::PRIO_WARNING, "HDB loaded.But restore nodes=1,nodes need to restore=2"));
}

TEST_F(HdbLoadTest, ABadNameLosesOnlyItsRecord) {
  ASSERT_TRUE(LoadInto(db_, Header(2) + Record("a/../..", false, "\x01", 3) + Record("ok", false, "\x02", 3)));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_ERROR,
                   "[HDBI,trln,son,bad obj name exception] info=Can NOT create illegal name obj node! "
                   "[name]=.. [path]=a/.."));
  EXPECT_NE(nullptr, Find(L"ok"));
  EXPECT_TRUE(LogsStarting(Poco::Message::PRIO_WARNING, "HDB loaded.But restore nodes=1,nodes need to restore=2"));
}

TEST_F(HdbLoadTest, AnEmptyFileThatIsNotOnDiskIsSkippedAsNotReady) {
  dir_.Write("root/present", "");
  ASSERT_TRUE(LoadInto(db_, Header(2) + Record("absent", false, "", 0) + Record("present", false, "", 0)));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_NOTICE,
                   "File is NOT ready,we ignore it currently.File=" + RootText() + "/absent"));
  EXPECT_EQ(nullptr, Find(L"absent"));
  EXPECT_NE(nullptr, Find(L"present"));
  EXPECT_TRUE(LogsStarting(Poco::Message::PRIO_INFORMATION, "HDB loaded.Restore nodes=2 ("));
}

TEST_F(HdbLoadTest, TheExitFlagStopsEachTaskAfterItsCurrentRecord) {
  settings_.threads = 2;
  SetUp();
  std::string body;
  for (int i = 0; i < 40; ++i) body += Record("f" + std::to_string(i), false, "\x01", 3);
  std::atomic<bool> exit{true};
  ASSERT_TRUE(LoadInto(db_, Header(40) + body, "signature", false, &exit));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_ERROR,
                   "[HDBI,trln,STDE] info=Restore leave nodes aborted because of: Policy need exit."));
  EXPECT_TRUE(LogsStarting(Poco::Message::PRIO_WARNING, "HDB loaded.But restore nodes=2,nodes need to restore=40"));
}

TEST_F(HdbLoadTest, ATaskStillRunningAtTheTimeLimitFailsTheLoadWhichMayBeRetried) {
  settings_.restore_time_limit_ms = 0;
  auto pool = std::make_shared<CScriptedPool>(0, false);  // runs nothing until told
  host_ = std::make_shared<CHostWithPool<CRefHost>>(settings_, pool);
  host_->log().KeepRecords(true);
  db_ = MakeDb();
  std::string text = "[hdbi,rlne] Please contact product manufacturer for technique support. path=" +
                     Path() + " [scripted pool]";
  EXPECT_EQ(text, ErrorOf<std::runtime_error>([&] { LoadInto(db_, Header(1) + Record("f", false, "\x01", 3)); }));
  bool critical = false;
  for (const CLogRecord& record : host_->log().Records()) {
    if (record.priority == Poco::Message::PRIO_CRITICAL && record.text == text) {
      critical = true;
      EXPECT_EQ(0x10030u, record.event);
    }
  }
  EXPECT_TRUE(critical);
  EXPECT_FALSE(db_->IsLoaded());
  pool->RunQueued();  // the abandoned task ends on its own
  EXPECT_NO_THROW(LoadInto(db_, Header(0)));
}
