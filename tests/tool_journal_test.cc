// The accept journal: who accepted what into a baseline, chained and bound to the baseline's
// signed binding.

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "tests/temp_dir.h"
#include "tests/tool_fixture.h"
#include "tool/store/accept_journal.h"

namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

void WriteLines(const std::string& path, const std::vector<std::string>& lines) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  for (const std::string& line : lines) out << line << "\n";
}

Poco::JSON::Object::Ptr Parsed(const std::string& line) {
  return Poco::JSON::Parser().parse(line).extract<Poco::JSON::Object::Ptr>();
}

TEST(AcceptJournalTest, EntriesAreChainedAndAHostileNameReadsBackExactly) {
  CTempDir dir;
  CAcceptJournal journal(dir / "t.hdb.journal");
  EXPECT_TRUE(journal.Read().empty());
  EXPECT_EQ(CJournalHead{}, journal.Head());
  std::string hostile = "etc/x\n{\"seq\":2,\"prev\":\"\"}\xff\xfe\"";
  CJournalEntry first;
  first.event = "accept";
  first.policy = "t";
  first.command = "signdb update t";
  first.changes.push_back(CJournalChange{hostile, "new", "", "", "ab"});
  CJournalHead after_first = journal.Append(first);
  EXPECT_EQ(1u, first.sequence);
  EXPECT_EQ(1u, after_first.entries);
  CJournalEntry second;
  second.event = "scan";
  CJournalHead after_second = journal.Append(second);
  EXPECT_EQ(2u, after_second.entries);
  EXPECT_NE(after_first.hash, after_second.hash);
  // One line per entry, whatever the name holds.
  EXPECT_EQ(2u, Lines(CTempDir::Read(journal.path())).size());
  std::vector<CJournalEntry> entries = journal.Read();
  ASSERT_EQ(2u, entries.size());
  ASSERT_EQ(1u, entries[0].changes.size());
  EXPECT_EQ(hostile, entries[0].changes[0].path);
  EXPECT_EQ("scan", entries[1].event);
  EXPECT_EQ("", journal.Mismatch(after_first));  // entries after the recorded head are allowed
  EXPECT_EQ("", journal.Mismatch(after_second));
  EXPECT_THAT(journal.Mismatch(CJournalHead{3, after_second.hash}), HasSubstr("entries were cut"));
  EXPECT_THAT(journal.Mismatch(CJournalHead{2, after_first.hash}), HasSubstr("entry 2 differs"));
}

TEST(AcceptJournalTest, AnEditedOrReorderedLineBreaksTheChainAndNothingIsAppendedToIt) {
  CTempDir dir;
  CAcceptJournal journal(dir / "t.hdb.journal");
  for (const char* event : {"scan", "accept", "accept"}) {
    CJournalEntry entry;
    entry.event = event;
    journal.Append(entry);
  }
  std::vector<std::string> lines = Lines(CTempDir::Read(journal.path()));
  std::vector<std::string> edited = lines;
  edited[0].replace(edited[0].find("\"scan\""), 6, "\"scam\"");
  WriteLines(journal.path(), edited);
  EXPECT_THROW(journal.Read(), std::runtime_error);
  try {
    journal.Head();
  } catch (const std::runtime_error& e) {
    EXPECT_THAT(e.what(), HasSubstr("is broken at line 2"));
  }
  CJournalEntry more;
  EXPECT_THROW(journal.Append(more), std::runtime_error);
  EXPECT_EQ(3u, Lines(CTempDir::Read(journal.path())).size());
  WriteLines(journal.path(), {lines[1], lines[0], lines[2]});
  EXPECT_THROW(journal.Read(), std::runtime_error);
}

TEST(AcceptJournalTest, ALineCutShortByAStopIsNoEntryAndTheNextAppendTakesItsPlace) {
  CTempDir dir;
  CAcceptJournal journal(dir / "t.hdb.journal");
  CJournalEntry first;
  first.event = "scan";
  CJournalHead head = journal.Append(first);
  std::ofstream(journal.path(), std::ios::app | std::ios::binary) << "{\"seq\":2,\"prev\":\"ab";
  EXPECT_EQ(head, journal.Head());
  EXPECT_EQ("", journal.Mismatch(head));
  CJournalEntry second;
  second.event = "accept";
  EXPECT_EQ(2u, journal.Append(second).entries);
  std::vector<CJournalEntry> entries = journal.Read();
  ASSERT_EQ(2u, entries.size());
  EXPECT_EQ("accept", entries[1].event);
  EXPECT_EQ(2u, Lines(CTempDir::Read(journal.path())).size());
}

TEST(AcceptJournalTest, TwoAppendersAtOnceTakeTurnsAndTheChainHolds) {
  CTempDir dir;
  auto append = [&](const char* event) {
    CAcceptJournal journal(dir / "t.hdb.journal");
    for (int i = 0; i < 40; ++i) {
      CJournalEntry entry;
      entry.event = event;
      journal.Append(entry);
    }
  };
  std::thread service(append, "lost-events");
  std::thread person(append, "accept");
  service.join();
  person.join();
  std::vector<CJournalEntry> entries = CAcceptJournal(dir / "t.hdb.journal").Read();
  ASSERT_EQ(80u, entries.size());
  for (size_t i = 0; i < entries.size(); ++i) EXPECT_EQ(i + 1, entries[i].sequence);
}

class ToolJournalTest : public ToolTest {};

TEST_F(ToolJournalTest, EveryAcceptanceIsJournalledWithWhoWhatAndTheHashes) {
  ScanSample();
  Write("etc/hosts", "10.0.0.9 changed\n");
  Write("etc/new.conf", "new\n");
  CToolRun update = Tool("update t etc/hosts");
  ASSERT_EQ(update.status, 0) << update.err;
  EXPECT_THAT(update.out, HasSubstr("journalled in " + Data("t.hdb.journal") + " (entry 2"));
  CToolRun journal = Tool("journal t --json");
  ASSERT_EQ(journal.status, 0) << journal.err;
  std::vector<std::string> lines = journal.OutLines();
  ASSERT_EQ(2u, lines.size()) << journal.out;
  EXPECT_EQ("scan", Parsed(lines[0])->getValue<std::string>("event"));
  Poco::JSON::Object::Ptr accepted = Parsed(lines[1]);
  EXPECT_EQ("accept", accepted->getValue<std::string>("event"));
  EXPECT_EQ(::geteuid(), accepted->getObject("who")->getValue<uint64_t>("uid"));
  EXPECT_THAT(accepted->getValue<std::string>("command"), AllOf(StartsWith("signdb "), HasSubstr("update t etc/hosts")));
  Poco::JSON::Array::Ptr changes = accepted->getArray("changes");
  ASSERT_EQ(1u, changes->size());  // what was not chosen is not journalled
  Poco::JSON::Object::Ptr change = changes->getObject(0);
  EXPECT_EQ("etc/hosts", change->getValue<std::string>("path"));
  EXPECT_EQ("hash changed", change->getValue<std::string>("change"));
  EXPECT_EQ(Sha256("127.0.0.1 localhost\n"), change->getValue<std::string>("old_hash"));
  EXPECT_EQ(Sha256("10.0.0.9 changed\n"), change->getValue<std::string>("new_hash"));
  CToolRun text = Tool("journal t");
  EXPECT_THAT(text.out, AllOf(HasSubstr("#2 "), HasSubstr(" accept revision "),
                              HasSubstr("hash changed etc/hosts  " + Sha256("127.0.0.1 localhost\n"))));
}

TEST_F(ToolJournalTest, AJournalCutEditedOrDeletedKeepsTheBaselineFromBeingUsed) {
  ScanSample();
  Write("etc/hosts", "changed\n");
  ASSERT_EQ(Tool("update t").status, 0);
  std::string path = Data("t.hdb.journal");
  std::string whole = CTempDir::Read(path);
  std::vector<std::string> lines = Lines(whole);
  ASSERT_EQ(2u, lines.size());
  auto refused = [&](const std::string& why) {
    CToolRun check = Tool("check t");
    EXPECT_EQ(check.status, 2) << why;
    EXPECT_THAT(check.err, HasSubstr("the baseline of policy 't' is not used: ")) << why;
    EXPECT_THAT(check.err, HasSubstr("signdb scan t --replace")) << why;
    return check.err;
  };
  WriteLines(path, {lines[0]});
  EXPECT_THAT(refused("cut"), HasSubstr("entries were cut"));
  std::string edited = lines[1];
  edited.replace(edited.find("\"hash changed\""), 14, "\"mode changed\"");
  WriteLines(path, {lines[0], edited});
  EXPECT_THAT(refused("edited"), HasSubstr("entry 2 differs"));
  std::string first = lines[0];
  first.replace(first.find("\"scan\""), 6, "\"scam\"");
  WriteLines(path, {first, lines[1]});
  EXPECT_THAT(refused("an earlier entry edited"), HasSubstr("is broken at line 2"));
  boost::filesystem::remove(path);
  EXPECT_THAT(refused("deleted"), HasSubstr("is missing"));
  // Put back, it holds again.
  WriteLines(path, lines);
  EXPECT_EQ(Tool("check t").status, 0);
  // A replacement starts afresh and keeps the broken journal aside.
  WriteLines(path, {first, lines[1]});
  CToolRun replaced = Tool("scan t --replace");
  ASSERT_EQ(replaced.status, 0) << replaced.err;
  std::vector<std::string> fresh = Tool("journal t --json").OutLines();
  ASSERT_EQ(1u, fresh.size());
  Poco::JSON::Object::Ptr entry = Parsed(fresh[0]);
  EXPECT_EQ("replace", entry->getValue<std::string>("event"));
  EXPECT_THAT(entry->getValue<std::string>("note"),
              AllOf(HasSubstr("replaced the baseline of revision "), HasSubstr("set aside as " + path + ".broken-")));
  EXPECT_EQ(Tool("check t").status, 0);
}

}  // namespace
