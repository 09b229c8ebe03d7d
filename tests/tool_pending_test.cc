// What is pending in a policy: the differences between its baseline and the watch service's live
// record read exactly as those a walk of the disk finds, and the service's own account of them.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "hashdb/hash_db.h"
#include "tool/change/difference.h"
#include "tool/report/change_text.h"
#include "tool/report/report_event.h"
#include "tool/scan/difference_apply.h"
#include "tool/scan/record_check.h"
#include "tool/scan/tree_check.h"
#include "tool/session/session.h"
#include "tests/tool_fixture.h"

namespace {

using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::Not;

class RecordCheckTest : public ToolTest {
 protected:
  // Every line a report of "result" holds, text and JSON (without its time stamp).
  static std::vector<std::string> Lines(const CTreeCheckResult& result) {
    CReportContext context = CReportContext::Make("t", "/root-of-t", "check", 256);
    std::vector<std::string> lines;
    for (const CDifference& difference : result.differences) {
      lines.push_back(DifferenceText(difference));
      std::string json = DifferenceJson(difference, context, nullptr);
      size_t stamp = json.find("\"@timestamp\":\"");
      if (stamp != std::string::npos) json.erase(stamp, json.find('"', stamp + 14) + 2 - stamp);
      lines.push_back(json);
    }
    return lines;
  }
};

// The live record is what a walk of the disk records; compared with the baseline it must give
// the very lines the walk gives, whatever changed: content, mode, kind both ways (a directory
// with files below it where a file was, and a file where a directory with files was), a link's
// target, a rename, what is new below a new directory and what is gone below a gone one.
TEST_F(RecordCheckTest, TheLiveRecordAgainstTheBaselineGivesTheLinesAWalkGives) {
  Write("etc/passwd", "root:x:0:0::/root:/bin/sh\n");
  Write("etc/hosts", "127.0.0.1 localhost\n");
  Write("etc/motd", "welcome\n");
  Write("bin/tool", "#!/bin/sh\n");
  Write("was-file", "a file\n");
  Write("was-dir/inside", "below\n");
  Write("old/a", "a\n");
  Write("old/b", "b\n");
  Write("docs/long-report.txt", "unique content for a rename\n");
  Symlink("etc/hosts", "link");
  Init();
  ASSERT_EQ(Tool("scan t").status, 0);

  Write("etc/passwd", "root:x:0:0::/root:/bin/sh\ntoor::0:0::/:/bin/sh\n");
  ASSERT_EQ(0, ::chmod(Tree("bin/tool").c_str(), 04755));
  ASSERT_EQ(0, ::unlink(Tree("was-file").c_str()));
  Write("was-file/now-inside", "under a directory\n");
  ASSERT_EQ(0, RunShell("rm -rf tree/was-dir tree/old").status);
  Write("was-dir", "now a file\n");
  Write("new/deep/er/file", "new\n");
  ASSERT_EQ(0, ::unlink(Tree("link").c_str()));
  Symlink("etc/motd", "link");
  ASSERT_EQ(0, ::rename(Tree("docs/long-report.txt").c_str(), Tree("docs/renamed.txt").c_str()));

  CSessionOptions options;
  options.config_path = config_;
  CSession session(options);
  const CRefPolicySettings& policy = session.Policy("t");
  CTreeCheckResult walk = CheckTree(session, policy, session.Store(policy).Load(), true);
  ASSERT_THAT(walk.differences, Not(IsEmpty()));
  // The live record: the disk recorded as the service's first reconcile records it.
  std::shared_ptr<CHashDB> live = session.LiveStore(policy).New();
  CTreeCheckResult everything = CheckTree(session, policy, live, true);
  ApplyDifferences(session, policy, *live, everything.differences);

  CTreeCheckResult pending = CheckRecordAgainstBaseline(session, policy, session.Store(policy).Load(), live);
  EXPECT_THAT(Lines(pending), ElementsAreArray(Lines(walk)));
  // Asked twice of the same baseline copy, the answer is the same: the first comparison left
  // nothing behind that changes the second.
  std::shared_ptr<CHashDB> baseline = session.Store(policy).Load();
  std::vector<std::string> first = Lines(CheckRecordAgainstBaseline(session, policy, baseline, live));
  EXPECT_THAT(Lines(CheckRecordAgainstBaseline(session, policy, baseline, live)), ElementsAreArray(first));
}

// A file changed and changed back in the live record reads as a walk reads it (its times tell
// that it was rewritten; its content is the baseline's), even when the same baseline copy was
// compared while it differed.
TEST_F(RecordCheckTest, AFileChangedBackReadsAsAWalkReadsIt) {
  Write("etc/hosts", "127.0.0.1 localhost\n");
  Init();
  ASSERT_EQ(Tool("scan t").status, 0);
  CSessionOptions options;
  options.config_path = config_;
  CSession session(options);
  const CRefPolicySettings& policy = session.Policy("t");
  std::shared_ptr<CHashDB> baseline = session.Store(policy).Load();
  std::shared_ptr<CHashDB> live = session.Store(policy).Load(true, session.LiveStore(policy).New());
  auto record_now = [&] {
    CTreeCheckResult now = CheckTree(session, policy, live, true);
    ApplyDifferences(session, policy, *live, now.differences);
  };
  auto walk = [&] { return Lines(CheckTree(session, policy, session.Store(policy).Load(), true)); };
  Write("etc/hosts", "10.6.6.6 intruder\n");
  record_now();
  std::vector<std::string> changed = Lines(CheckRecordAgainstBaseline(session, policy, baseline, live));
  EXPECT_THAT(changed, ElementsAreArray(walk()));
  Write("etc/hosts", "127.0.0.1 localhost\n");
  record_now();
  std::vector<std::string> back = Lines(CheckRecordAgainstBaseline(session, policy, baseline, live));
  EXPECT_THAT(back, ElementsAreArray(walk()));
  EXPECT_THAT(back, Not(IsEmpty())) << "the rewrite's times are still a difference";
}

}  // namespace
