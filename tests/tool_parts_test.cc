// The tool's parts that need no disk: its command line, its words for differences, its HDB dump.

#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli/command_line.h"
#include "cli/difference.h"
#include "cli/exit_status.h"
#include "cli/hdb_dump.h"
#include "cli/text_format.h"
#include "hdbfile/hdb_header.h"
#include "tests/persistence_fixture.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

TEST(ToolCommandLine, OptionsMayStandAnywhereAndTakeTheirValues) {
  CCommandLine line = ParseCommandLine({"--config", "a.json", "check", "etc", "--json", "-q", "--policy=x=/y"});
  EXPECT_EQ(line.command, "check");
  EXPECT_THAT(line.arguments, ElementsAre("etc"));
  EXPECT_EQ(line.Value("--config"), "a.json");
  EXPECT_EQ(line.Value("--policy"), "x=/y");
  EXPECT_TRUE(line.Has("--json"));
  EXPECT_TRUE(line.Has("--quiet"));
  EXPECT_FALSE(line.Has("--verify"));
}

TEST(ToolCommandLine, DoubleDashEndsTheOptions) {
  CCommandLine line = ParseCommandLine({"show", "t", "--", "--odd-name"});
  EXPECT_THAT(line.arguments, ElementsAre("t", "--odd-name"));
}

TEST(ToolCommandLine, UnknownOptionsAndMissingValuesAreRefused) {
  EXPECT_THROW(ParseCommandLine({"check", "--colour"}), CToolError);
  EXPECT_THROW(ParseCommandLine({"check", "--config"}), CToolError);
  EXPECT_THROW(ParseCommandLine({"check", "--json=yes"}), CToolError);
}

TEST(ToolCommandLine, ACommandRefusesOptionsAndArgumentsItDoesNotTake) {
  CCommandLine line = ParseCommandLine({"scan", "etc", "--json"});
  EXPECT_THROW(RequireShape(line, {}, 1, 1), CToolError);
  EXPECT_NO_THROW(RequireShape(line, {"--json"}, 1, 1));
  EXPECT_THROW(RequireShape(line, {"--json"}, 2, 2), CToolError);
  EXPECT_THROW(RequireShape(line, {"--json"}, 0, 0), CToolError);
}

CDifference Difference(CChange change, const std::string& path, const std::string& recorded,
                       const std::string& current) {
  CDifference difference;
  difference.change = change;
  difference.path = path;
  difference.recorded_hash = recorded;
  difference.current_hash = current;
  return difference;
}

TEST(ToolDifferences, AGoneAndANewFileWithTheSameContentAreOneRename) {
  std::vector<CDifference> differences = {Difference(CChange::kNew, "b/new-name", "", "aa"),
                                          Difference(CChange::kGone, "a/old-name", "aa", ""),
                                          Difference(CChange::kNew, "c", "", "bb")};
  PairRenamesAndSort(differences);
  ASSERT_EQ(differences.size(), 2u);
  EXPECT_EQ(differences[0].path, "b/new-name");
  EXPECT_EQ(differences[0].change, CChange::kRenamed);
  EXPECT_EQ(differences[0].from, "a/old-name");
  EXPECT_EQ(differences[1].change, CChange::kNew);
}

TEST(ToolDifferences, ContentThatSeveralFilesShareIsNotTakenForARename) {
  std::vector<CDifference> differences = {Difference(CChange::kGone, "a", "ee", ""),
                                          Difference(CChange::kNew, "b", "", "ee"),
                                          Difference(CChange::kNew, "c", "", "ee")};
  PairRenamesAndSort(differences);
  ASSERT_EQ(differences.size(), 3u);
  for (const CDifference& difference : differences) EXPECT_NE(difference.change, CChange::kRenamed);
}

TEST(ToolDifferences, ALineSaysWhatChangedThenWhereThenTheDetail) {
  CDifference difference = Difference(CChange::kAttributesChanged, "etc/passwd", "", "");
  difference.detail = "mode 100644 -> 100600";
  difference.also = {"change time", "security attributes"};
  EXPECT_EQ(DifferenceText(difference),
            "attributes changed          etc/passwd  (mode 100644 -> 100600)  also: change time, security attributes");
  CDifference directory = Difference(CChange::kGone, "", "", "");
  directory.is_dir = true;
  EXPECT_EQ(DifferenceText(directory), "gone                        ./");
}

TEST(ToolDifferences, JsonEscapesPathsAndNamesTheKind) {
  CDifference difference = Difference(CChange::kNew, "a \"quoted\"\nname", "", "ff");
  EXPECT_EQ(DifferenceJson(difference),
            "{\"change\":\"new\",\"code\":0,\"path\":\"a \\\"quoted\\\"\\nname\",\"kind\":\"file\","
            "\"current_hash\":\"ff\",\"also\":[]}");
}

TEST(ToolText, NumbersSizesAndTimesReadWell) {
  EXPECT_EQ(GroupedNumber(0), "0");
  EXPECT_EQ(GroupedNumber(1234567), "1,234,567");
  EXPECT_EQ(ByteSize(512), "512 B");
  EXPECT_EQ(ByteSize(3u << 20), "3.0 MiB");
  EXPECT_EQ(TimeText(1000000001ull), "1970-01-01 00:00:01.000000001 UTC");
  EXPECT_EQ(TimeText(~0ull), "unknown");
}

std::string HeaderBytes(uint64_t nodes) {
  CHdbHeader header;
  header.platform_flag = 1;
  header.policy_number = 256;
  header.policy_value = 672;
  header.node_count = nodes;
  header.revision = 7;
  std::string bytes(kHeaderSize, '\0');
  header.EncodeTo(reinterpret_cast<uint8_t*>(bytes.data()));
  return bytes;
}

bool Dump(const std::string& bytes, bool json, std::string& out, std::string& problem) {
  std::ostringstream stream;
  bool ok = DumpHdb(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), json, stream, problem);
  out = stream.str();
  return ok;
}

TEST(ToolHdbDump, EveryFieldOfTheHeaderAndTheRecordsIsShown) {
  std::string file = HeaderBytes(2) + HdbRecordBytes("", true) +
                     HdbRecordBytes("etc/hosts", false, std::string("\x01\xab", 2), 20, "owner=0", "target");
  std::string out, problem;
  ASSERT_TRUE(Dump(file, false, out, problem)) << problem;
  EXPECT_THAT(out, HasSubstr("platform       1 (POSIX)\n"));
  EXPECT_THAT(out, HasSubstr("digest         672 (SHA256)\n"));
  EXPECT_THAT(out, HasSubstr("revision       7\n"));
  EXPECT_THAT(out, HasSubstr("@48 d 100644 size=1 time_1=11 time_2=22 hash=- path=\"\""));
  EXPECT_THAT(out, HasSubstr("f 100644 size=20 time_1=11 time_2=22 hash=01ab path=\"etc/hosts\" "
                             "security=\"owner=0\" target=\"target\"\n"));
  ASSERT_TRUE(Dump(file, true, out, problem));
  EXPECT_THAT(out, HasSubstr("\"nodes\":2,\"revision\":7}}\n"));
  EXPECT_THAT(out, HasSubstr("\"hash\":\"01ab\",\"path\":\"etc/hosts\""));
}

TEST(ToolHdbDump, AShortFileIsNotAnHdbFile) {
  std::string out, problem;
  EXPECT_FALSE(Dump("E5", false, out, problem));
  EXPECT_THAT(problem, HasSubstr("fewer than the 48-byte header"));
}

TEST(ToolHdbDump, ARecordWhoseEndMarkIsWrongIsRefusedWithItsOffset) {
  std::string record = HdbRecordBytes("a");
  record[kRecordEndMarkOffset] = 0;
  std::string out, problem;
  EXPECT_FALSE(Dump(HeaderBytes(2) + HdbRecordBytes("") + record, false, out, problem));
  EXPECT_THAT(problem, HasSubstr("record 1 at offset 89: end mark"));
}

TEST(ToolHdbDump, TextsThatRunPastTheEndAreRefused) {
  std::string record = HdbRecordBytes("abc");
  std::string out, problem;
  EXPECT_FALSE(Dump(HeaderBytes(1) + record.substr(0, record.size() - 1), false, out, problem));
  EXPECT_THAT(problem, HasSubstr("run past the end of the file"));
}

TEST(ToolHdbDump, ANodeCountThatDisagreesWithTheRecordsIsReported) {
  std::string out, problem;
  EXPECT_FALSE(Dump(HeaderBytes(3) + HdbRecordBytes(""), false, out, problem));
  EXPECT_THAT(problem, HasSubstr("counts 3 nodes, the file holds 1 records"));
  EXPECT_TRUE(Dump(HeaderBytes(0) + HdbRecordBytes(""), false, out, problem)) << problem;
}

}  // namespace

namespace {

TEST(ToolText, JsonStaysValidForNamesThatAreNotUtf8) {
  EXPECT_EQ(JsonString("caf\xc3\xa9"), "\"caf\xc3\xa9\"");
  EXPECT_EQ(JsonString("bad\xffname"), "\"bad\xef\xbf\xbdname\"");
  EXPECT_EQ(ValidUtf8("\xc3"), "\xef\xbf\xbd");  // a sequence cut short
}

}  // namespace
