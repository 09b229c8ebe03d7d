// What an attacker changes on a monitored tree, each reported as what it is with its old and new
// value, in text and JSON; and names that try to forge or hide report lines.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "util/account_names.h"
#include "cli/command_line.h"
#include "tool/session/session.h"
#include "hashdb/hash_db.h"
#include "refhost/file_obj_info.h"
#include "refhost/ref_host.h"
#include "util/text_conversion.h"
#include "tests/tool_fixture.h"
#include "tests/tool_json.h"

namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

// The text for uid or gid 65534 as reports show it.
std::string Nobody(bool group) {
  std::string name = group ? GroupName(65534) : UserName(65534);
  return name.empty() ? "65534" : name + " (65534)";
}

class ToolAttackTest : public ToolTest {
 protected:
  void SetUp() override {
    Write("etc/shadow", "root:*:19000:0:99999:7:::\n");
    Write("bin/tar",
          "\x7f"
          "ELF tar\n");
    Write("etc/hosts", "127.0.0.1 localhost\n");
  }
  void Scan() {
    Init();
    CToolRun run = Tool("scan t");
    ASSERT_EQ(run.status, 0) << run.out << run.err;
  }
  // The text line and the JSON line of "check" about one path.
  void CheckAbout(const std::string& path, std::string& line, Poco::JSON::Object::Ptr& json) {
    CToolRun text = Tool("check t");
    EXPECT_EQ(text.status, 1) << text.out << text.err;
    line = LineAbout(text, path);
    CToolRun lines = Tool("check t --json");
    json = JsonAbout(lines, path);
    ASSERT_TRUE(json) << lines.out;
  }
};

TEST_F(ToolAttackTest, ACapabilityAddedToABinaryIsReportedAsSuch) {
  Scan();
  if (std::system(
          ("setcap cap_dac_read_search+ep '" + Tree("bin/tar") + "' 2>/dev/null").c_str()) != 0) {
    GTEST_SKIP()
        << "file capabilities cannot be set here (setcap missing, no CAP_SETFCAP, or no xattrs)";
  }
  std::string line;
  Poco::JSON::Object::Ptr json;
  CheckAbout("bin/tar", line, json);
  EXPECT_THAT(line, AllOf(StartsWith("capabilities changed"),
                          HasSubstr("capabilities none -> cap_dac_read_search=ep")));
  EXPECT_EQ(Action(json), "capabilities changed");
  EXPECT_EQ(OldAndNew(json, "capabilities"),
            std::make_pair(std::string("<none>"), std::string("cap_dac_read_search=ep")));
  EXPECT_EQ(json->getObject("signdb")->getValue<std::string>("capabilities"),
            "cap_dac_read_search=ep");
  // The database's own status names the first field it compares that differs; setcap also set
  // the status-change time, which it compares before the security attributes.
  EXPECT_EQ(Status(json), kCheckTime1Changed);
}

TEST_F(ToolAttackTest, AUserExtendedAttributeIsReportedWithItsValue) {
  Scan();
  if (::setxattr(Tree("etc/hosts").c_str(), "user.note", "hello world", 11, 0) != 0) {
    GTEST_SKIP() << "this file system takes no user extended attributes: " << std::strerror(errno);
  }
  std::string line;
  Poco::JSON::Object::Ptr json;
  CheckAbout("etc/hosts", line, json);
  EXPECT_THAT(line, AllOf(StartsWith("xattrs changed"),
                          HasSubstr("xattr user.note none -> \"hello world\"")));
  EXPECT_EQ(OldAndNew(json, "xattr.user.note"),
            std::make_pair(std::string("<none>"), std::string("\"hello world\"")));
  // Binary values are shown in hex.
  ASSERT_EQ(::setxattr(Tree("etc/hosts").c_str(), "user.note", "\x01\xff", 2, 0), 0);
  CheckAbout("etc/hosts", line, json);
  EXPECT_THAT(line, HasSubstr("xattr user.note none -> 0x01ff"));
}

TEST_F(ToolAttackTest, ASecurityLabelIsReportedAsSuch) {
  Scan();
  const char label[] = "system_u:object_r:shadow_t:s0";
  if (::setxattr(Tree("etc/shadow").c_str(), "security.selinux", label, sizeof label, 0) != 0) {
    GTEST_SKIP() << "security labels cannot be set here: " << std::strerror(errno);
  }
  std::string line;
  Poco::JSON::Object::Ptr json;
  CheckAbout("etc/shadow", line, json);
  EXPECT_THAT(line, AllOf(StartsWith("selinux label changed"),
                          HasSubstr("selinux label none -> " + std::string(label))));
  EXPECT_EQ(OldAndNew(json, "selinux").second, label);
}

TEST_F(ToolAttackTest, TheImmutableFlagIsReportedAsAFlagChange) {
  Scan();
  int fd = ::open(Tree("etc/shadow").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  int flags = 0;
  bool set = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 &&
             (flags |= FS_IMMUTABLE_FL, ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0);
  std::string reason = std::strerror(errno);
  // Cleared whatever happens below, or the test's folder could not be removed.
  std::shared_ptr<void> clear(nullptr, [fd, set](void*) {
    int now = 0;
    if (set && ::ioctl(fd, FS_IOC_GETFLAGS, &now) == 0) {
      now &= ~FS_IMMUTABLE_FL;
      ::ioctl(fd, FS_IOC_SETFLAGS, &now);
    }
    ::close(fd);
  });
  if (!set) GTEST_SKIP() << "inode flags cannot be set here: " << reason;
  std::string line;
  Poco::JSON::Object::Ptr json;
  CheckAbout("etc/shadow", line, json);
  EXPECT_THAT(line, AllOf(StartsWith("flags changed"), HasSubstr("flags none -> i (immutable)")));
  EXPECT_EQ(OldAndNew(json, "flags"), std::make_pair(std::string("<none>"), std::string("i")));
  Poco::JSON::Array::Ptr attributes = json->getObject("file")->getArray("attributes");
  ASSERT_TRUE(attributes);
  EXPECT_EQ(attributes->getElement<std::string>(0), "immutable");
}

TEST_F(ToolAttackTest, AHardLinkMadeToAFileRaisesItsLinkCount) {
  Scan();
  ASSERT_EQ(::link(Tree("etc/shadow").c_str(), Tree("shadow.bak").c_str()), 0);
  std::string line;
  Poco::JSON::Object::Ptr json;
  CheckAbout("etc/shadow", line, json);
  EXPECT_THAT(line, AllOf(StartsWith("link count changed"), HasSubstr("link count 1 -> 2")));
  EXPECT_EQ(OldAndNew(json, "link_count"), std::make_pair(std::string("1"), std::string("2")));
  EXPECT_EQ(json->getObject("signdb")->getValue<std::string>("link_count"), "2");
}

TEST_F(ToolAttackTest, AnOwnerChangeNamesTheOldAndNewOwnerAndGroup) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  Scan();
  ASSERT_EQ(::chown(Tree("etc/shadow").c_str(), 65534, 65534), 0);
  std::string line;
  Poco::JSON::Object::Ptr json;
  CheckAbout("etc/shadow", line, json);
  EXPECT_THAT(line,
              AllOf(StartsWith("owner changed"), HasSubstr("owner root (0) -> " + Nobody(false)),
                    HasSubstr("group root (0) -> " + Nobody(true))));
  EXPECT_THAT(line, Not(HasSubstr("times changed")));
  EXPECT_EQ(OldAndNew(json, "uid"), std::make_pair(std::string("0"), std::string("65534")));
  EXPECT_EQ(OldAndNew(json, "gid"), std::make_pair(std::string("0"), std::string("65534")));
  EXPECT_EQ(json->getObject("file")->getValue<std::string>("uid"), "65534");
}

TEST_F(ToolAttackTest, AnAddedAclIsShownWithItsEntries) {
  Scan();
  if (std::system(("setfacl -m u:65534:r '" + Tree("etc/shadow") + "' 2>/dev/null").c_str()) != 0) {
    GTEST_SKIP() << "ACLs cannot be set here (setfacl missing or the file system has none)";
  }
  std::string line;
  Poco::JSON::Object::Ptr json;
  CheckAbout("etc/shadow", line, json);
  EXPECT_THAT(line, AllOf(StartsWith("acl changed"),
                          HasSubstr("acl none -> u::rw-,u:65534:r--,g::r--,m::r--,o::r--")));
  EXPECT_EQ(OldAndNew(json, "acl.access").second, "u::rw-,u:65534:r--,g::r--,m::r--,o::r--");
}

TEST_F(ToolAttackTest, ACharacterDeviceSwappedForAnotherIsADeviceChangeEvenWithItsTimesKept) {
  if (::mknod(Tree("null").c_str(), S_IFCHR | 0666, makedev(1, 3)) != 0) {
    GTEST_SKIP() << "device nodes cannot be made here: " << std::strerror(errno);
  }
  Scan();
  struct stat before {};
  ASSERT_EQ(::lstat(Tree("null").c_str(), &before), 0);
  ASSERT_EQ(::unlink(Tree("null").c_str()), 0);
  ASSERT_EQ(::mknod(Tree("null").c_str(), S_IFCHR | 0666, makedev(1, 1)), 0);
  struct timespec times[2] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(::utimensat(AT_FDCWD, Tree("null").c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  std::string line;
  Poco::JSON::Object::Ptr json;
  CheckAbout("null", line, json);
  EXPECT_THAT(line, AllOf(StartsWith("device changed"), HasSubstr("device 1,3 -> 1,1")));
  EXPECT_EQ(OldAndNew(json, "device"), std::make_pair(std::string("1,3"), std::string("1,1")));
  EXPECT_EQ(json->getObject("file")->getValue<std::string>("type"), "char_device");
}

TEST_F(ToolAttackTest, ANewDeviceFifoAndSocketAreReportedAsWhatTheyAreAndNeverRead) {
  Scan();
  ASSERT_EQ(::mkfifo(Tree("pipe").c_str(), 0600), 0);
  int sock = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(sock, 0);
  struct sockaddr_un address {};
  address.sun_family = AF_UNIX;
  std::string socket_path = Tree("sock");
  ASSERT_LT(socket_path.size(), sizeof address.sun_path);
  std::strcpy(address.sun_path, socket_path.c_str());
  ASSERT_EQ(::bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(sock);
  bool device = ::mknod(Tree("disk").c_str(), S_IFBLK | 0660, makedev(7, 0)) == 0;
  // A FIFO that were opened for reading would hold the check until a writer came: it finishes.
  CToolRun check = Tool("check t --long");
  EXPECT_EQ(check.status, 1) << check.err;
  EXPECT_THAT(LineAbout(check, "pipe"),
              AllOf(StartsWith("new"), HasSubstr("kind fifo; mode prw------- (0600)")));
  EXPECT_THAT(LineAbout(check, "sock"), AllOf(StartsWith("new"), HasSubstr("kind socket")));
  if (device) {
    EXPECT_THAT(LineAbout(check, "disk"),
                AllOf(StartsWith("new"), HasSubstr("kind block device"), HasSubstr("device 7,0")));
  }
  CToolRun json = Tool("check t --json");
  EXPECT_EQ(JsonAbout(json, "pipe")->getObject("file")->getValue<std::string>("type"), "fifo");
  EXPECT_EQ(JsonAbout(json, "sock")->getObject("file")->getValue<std::string>("type"), "socket");
  EXPECT_FALSE(JsonAbout(json, "pipe")->getObject("file")->has("hash"));
  // Recorded, they compare clean; a FIFO that became a file is a change of kind.
  ASSERT_EQ(Tool("update t").status, 0);
  EXPECT_EQ(Tool("check t").status, 0);
  ASSERT_EQ(::unlink(Tree("pipe").c_str()), 0);
  Write("pipe", "now a file\n");
  EXPECT_THAT(LineAbout(Tool("check t"), "pipe"),
              AllOf(StartsWith("kind changed"), HasSubstr("kind fifo -> file")));
}

TEST_F(ToolAttackTest, ANewSetuidFileShowsItsModeAndIsFlagged) {
  Scan();
  Write("bin/su2", "#!/bin/sh\n");
  ASSERT_EQ(::chmod(Tree("bin/su2").c_str(), 04755), 0);
  Write("bin/open", "x");
  ASSERT_EQ(::chmod(Tree("bin/open").c_str(), 0666), 0);
  CToolRun check = Tool("check t --long");
  EXPECT_THAT(LineAbout(check, "bin/su2"),
              AllOf(StartsWith("new"), HasSubstr("mode -rwsr-xr-x (4755)"), HasSubstr("owner "),
                    HasSubstr("[setuid]")));
  EXPECT_THAT(LineAbout(check, "bin/open"), HasSubstr("[world-writable]"));
  Poco::JSON::Object::Ptr json = JsonAbout(Tool("check t --json"), "bin/su2");
  ASSERT_TRUE(json);
  EXPECT_EQ(json->getObject("file")->getValue<std::string>("mode"), "4755");
  EXPECT_EQ(json->getObject("signdb")->getArray("warnings")->getElement<std::string>(0), "setuid");
  EXPECT_EQ(json->getObject("event")->getArray("type")->getElement<std::string>(0), "creation");
}

// Every line of "out" that starts with "words" (a report line, not an escaped name inside one).
std::vector<std::string> LinesStartingWith(const std::string& out, const std::string& words) {
  std::vector<std::string> found;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(words, 0) == 0) found.push_back(line);
  }
  return found;
}

TEST_F(ToolAttackTest, ANameCannotForgeHideOrRecolourAReportLineAnywhere) {
  const std::string forged = "x\ngone                        etc/passwd";
  const std::string coloured = "red\x1b[31m\x1b[2Kname";
  Write(forged, "forged\n");
  Scan();
  Write(coloured, "coloured\n");
  Write(forged, "edited\n");
  std::string escaped_forged = "\"x\\ngone                        etc/passwd\"";
  std::string escaped_coloured = "red\\e[31m\\e[2Kname";
  for (const char* command : {"check t", "update t"}) {
    CToolRun run = Tool(command);
    EXPECT_THAT(LinesStartingWith(run.out, "gone"), testing::IsEmpty()) << command << "\n"
                                                                        << run.out;
    EXPECT_THAT(run.out, AllOf(HasSubstr(escaped_forged), HasSubstr(escaped_coloured))) << command;
    EXPECT_EQ(run.out.find('\x1b'), std::string::npos) << command;
  }
  CToolRun diff = Tool("diff t");
  EXPECT_THAT(diff.out, AllOf(HasSubstr(escaped_forged), HasSubstr(escaped_coloured)));
  EXPECT_THAT(LinesStartingWith(diff.out, "gone"), testing::IsEmpty());
  CToolRun ls = Tool("ls t");
  EXPECT_THAT(ls.out, AllOf(HasSubstr("\"x\\ngone                        etc\"/"),
                            HasSubstr(escaped_coloured)));
  EXPECT_EQ(ls.OutLines().size(), 4u) << ls.out;  // bin/, etc/, and the two names
  CToolRun recursive = Tool("ls t --recursive");
  EXPECT_THAT(recursive.out, AllOf(HasSubstr(escaped_forged), HasSubstr(escaped_coloured)));
  EXPECT_EQ(recursive.OutLines().size(), 8u) << recursive.out;
  EXPECT_EQ(recursive.out.find('\x1b'), std::string::npos);
  CToolRun lookup = Tool("lookup " + Sha256("edited\n"));
  EXPECT_EQ(lookup.status, 0) << lookup.err;
  EXPECT_EQ(lookup.out, "\"" + Tree("") + "x\\ngone                        etc/passwd\"\n");
  CToolRun show = Run("--config '" + config_ + "' show t \"$(printf 'red\\033[31m\\033[2Kname')\"");
  EXPECT_EQ(show.status, 0) << show.err;
  EXPECT_THAT(show.out, HasSubstr(escaped_coloured));
  EXPECT_EQ(show.out.find('\x1b'), std::string::npos);
  CToolRun dump = Tool("dump '" + Data("t.hdb") + "'");
  EXPECT_THAT(dump.out,
              AllOf(HasSubstr("path=\"x\\ngone"), HasSubstr("path=\"" + escaped_coloured + "\"")));
  EXPECT_EQ(dump.out.find('\x1b'), std::string::npos);
  EXPECT_THAT(LinesStartingWith(dump.out, "gone"), testing::IsEmpty());
  // JSON lines stay one per object, with the names as they are.
  CToolRun json = Tool("check t --json");
  for (const std::string& line : json.OutLines()) EXPECT_NO_THROW(ParseJson(line)) << line;
}

TEST_F(ToolAttackTest, LookupListsEveryHolderOfAHashAndVerifiesEach) {
  Write("a", "same\n");
  Write("sub/b", "same\n");
  Write("sub/deeper/c", "same\n");
  Scan();
  CToolRun all = Tool("lookup " + Sha256("same\n"));
  EXPECT_EQ(all.status, 0) << all.err;
  EXPECT_THAT(all.OutLines(),
              testing::UnorderedElementsAre(Tree("a"), Tree("sub/b"), Tree("sub/deeper/c")));
  Write("sub/b", "changed\n");
  CToolRun verified = Tool("lookup " + Sha256("same\n") + " --verify");
  EXPECT_EQ(verified.status, 0);
  EXPECT_THAT(verified.OutLines(), testing::UnorderedElementsAre(Tree("a"), Tree("sub/deeper/c")));
  EXPECT_THAT(verified.err, HasSubstr(Tree("sub/b") + " no longer carries it"));
  CToolRun json = Tool("lookup " + Sha256("same\n") + " --verify --json");
  Poco::JSON::Array::Ptr holders = ParseJson(json.out)->getArray("holders");
  ASSERT_TRUE(holders);
  EXPECT_EQ(holders->size(), 3u);
}

// Records the tree the way the tool did before it kept every security attribute: owner, group
// and mode only ("owner=0 group=0 mode=0644").
class COlderSecurityInfo : public CObjInfo {
 public:
  explicit COlderSecurityInfo(std::shared_ptr<CRefFileObjInfo> info) : info_(std::move(info)) {}
  bool IsDirectory() override { return info_->IsDirectory(); }
  std::wstring RelativePath() override { return info_->RelativePath(); }
  std::wstring Path() override { return info_->Path(); }
  bool IsGone() override { return info_->IsGone(); }
  std::wstring TargetWidePath() override { return info_->TargetWidePath(); }
  uint64_t Size() override { return info_->Size(); }
  uint64_t Time1() override { return info_->Time1(); }
  uint64_t Time2() override { return info_->Time2(); }
  uint32_t Attributes() override { return info_->Attributes(); }
  std::string HashText() override { return info_->HashText(); }
  std::string SecurityAttributes() override {
    struct stat status {};
    ::lstat(WideToUtf8(info_->Path()).c_str(), &status);
    char text[96];
    std::snprintf(text, sizeof text, "owner=%u group=%u mode=%04o", status.st_uid, status.st_gid,
                  status.st_mode & 07777);
    return text;
  }
  std::string Description() override { return info_->Description(); }
  std::string TargetPath() override { return info_->TargetPath(); }
  void TakeRecordedHash(const std::shared_ptr<std::string>& hash) override {
    info_->TakeRecordedHash(hash);
  }

 private:
  std::shared_ptr<CRefFileObjInfo> info_;
};

TEST_F(ToolAttackTest, ADatabaseWithTheOlderSecurityFormLoadsReportsItOnceAndUpdateAcceptsIt) {
  Init();
  {
    CSessionOptions options;
    options.config_path = config_;
    CSession session(options);
    const CRefPolicySettings& policy = session.Policy("t");
    std::shared_ptr<CHashDB> database = session.NewDatabase(policy);
    CRefHost& host = session.host();
    for (const char* relative : {"", "bin", "bin/tar", "etc", "etc/hosts", "etc/shadow"}) {
      auto info = std::make_shared<COlderSecurityInfo>(
          CRefFileObjInfo::FromDisk(*host.Utility(), *host.Cfg(), Utf8ToWide(tree_),
                                    session.WideFullPath(policy, relative), 256));
      std::shared_ptr<CObjInfo> immediate;
      database->InsertObject(immediate, info);
    }
    session.Store(policy).Save(database);
  }
  CToolRun check = Tool("check t");
  EXPECT_EQ(check.status, 1) << check.out << check.err;
  EXPECT_THAT(LineAbout(check, "etc/hosts"), AllOf(StartsWith("security attributes changed"),
                                                   HasSubstr("recorded in an older form")));
  ASSERT_EQ(::chmod(Tree("etc/shadow").c_str(), 0600), 0);
  EXPECT_THAT(LineAbout(Tool("check t"), "etc/shadow"), StartsWith("mode changed"));
  EXPECT_EQ(Tool("update t").status, 0);
  CToolRun clean = Tool("check t");
  EXPECT_EQ(clean.status, 0) << clean.out;
}

}  // namespace
