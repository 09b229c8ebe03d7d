// Who can sign: the CA key kept off the host, a signer key behind a passphrase or in a store,
// and signer certificates that expire.

#include <gmock/gmock.h>
#include <signal.h>

#include <fstream>
#include <string>

#include "tool/store/dev_keys.h"
#include "refhost/pkcs7.h"
#include "util/text_conversion.h"
#include "tests/tool_fixture.h"

namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

class ToolKeysTest : public ToolTest {
 protected:
  std::string Keys(const std::string& name) const { return dir_ / ("cfg/keys/" + name); }
  std::string OfflineCaKey() const { return dir_ / "offline/ca.key"; }
  // Keys made before init, which keeps them, with the CA key on "offline" media.
  void MakeKeys(CDevKeyRequest request) {
    request.cstm_id = "signdb test";
    request.ca_key_path = OfflineCaKey();
    boost::filesystem::create_directories(dir_ / "offline");
    MakeDevelopmentKeys(dir_ / "cfg/keys", request);
  }
  // Moves the signer key to a "signing host" folder with a configuration of its own there, the
  // one place the key is; returns that configuration.
  std::string SigningHost() {
    boost::filesystem::create_directories(dir_ / "signing/data");
    boost::filesystem::permissions(dir_ / "signing/data", boost::filesystem::perms::owner_all);
    boost::filesystem::rename(Keys("signer.key"), dir_ / "signing/signer.key");
    std::string text = CTempDir::Read(config_);
    for (const std::string& name : {std::string("signer.pem"), std::string("ca.pem")}) {
      text.replace(text.find("\"keys/" + name + "\""), name.size() + 7, "\"" + Keys(name) + "\"");
    }
    text.replace(text.find("\"keys/signer.key\""), 17, "\"" + (dir_ / "signing/signer.key") + "\"");
    dir_.Write("signing/signdb.json", text);
    std::string signing = dir_ / "signing/signdb.json";
    EXPECT_EQ(::chmod(signing.c_str(), 0600), 0);
    return signing;
  }
  CToolRun Sign(const std::string& signing) const {
    return Run("--config '" + signing + "' sign '" + Data("t.hdb.candidate") + "'");
  }
  // Replaces one text in the configuration, keeping its owner and mode.
  void EditConfig(const std::string& from, const std::string& to) {
    std::string text = CTempDir::Read(config_);
    size_t at = text.find(from);
    ASSERT_NE(at, std::string::npos) << text;
    text.replace(at, from.size(), to);
    std::ofstream(config_, std::ios::trunc) << text;
  }
};

TEST_F(ToolKeysTest, InitWritesTheCaKeyStraightToTheMediaItIsGiven) {
  std::string media = dir_ / "media/signdb-ca.key";
  CToolRun init = Run("init --config '" + config_ + "' --policy t=tree --ca-key-out '" + media + "'");
  ASSERT_EQ(init.status, 0) << init.err;
  EXPECT_TRUE(boost::filesystem::exists(media));
  EXPECT_FALSE(boost::filesystem::exists(Keys("ca.key")));
  EXPECT_THAT(init.out, HasSubstr("the CA key went to " + media + ": keep it off this host"));
  Write("etc/hosts", "127.0.0.1 localhost\n");
  EXPECT_EQ(Tool("scan t").status, 0);
  EXPECT_EQ(Tool("check t").status, 0);
}

TEST_F(ToolKeysTest, InitThatKeepsTheCaKeyHereSaysToMoveItOff) {
  CToolRun init = Run("init --config '" + config_ + "' --policy t=tree");
  ASSERT_EQ(init.status, 0) << init.err;
  EXPECT_THAT(init.out, HasSubstr("the CA key is " + Keys("ca.key") + ": move it off this host now"));
}

TEST_F(ToolKeysTest, AProtectedSignerKeySignsWithItsPassphraseAndNeverWithout) {
  dir_.Write("passphrase", "correct horse battery\n");
  dir_.Write("wrong", "wrong horse\n");
  CToolRun init =
      Run("init --config '" + config_ + "' --policy t=tree --protect-key --passphrase-fd 3 3<passphrase");
  ASSERT_EQ(init.status, 0) << init.err;
  EXPECT_THAT(CTempDir::Read(Keys("signer.key")), HasSubstr("ENCRYPTED PRIVATE KEY"));
  Write("etc/hosts", "127.0.0.1 localhost\n");

  // setsid: no controlling terminal to ask on, as under cron.
  CToolRun unattended = RunShell("setsid -w '" SIGNDB_TOOL_PATH "' --config '" + config_ + "' scan t");
  EXPECT_EQ(unattended.status, 2);
  EXPECT_THAT(unattended.err, AllOf(HasSubstr("there is no terminal"), HasSubstr("--passphrase-fd")));
  EXPECT_FALSE(boost::filesystem::exists(Data("t.hdb")));

  CToolRun wrong = Tool("scan t --passphrase-fd 3 3<wrong");
  EXPECT_EQ(wrong.status, 2);
  EXPECT_THAT(wrong.err, HasSubstr("no private key in " + Keys("signer.key") + ": ")) << wrong.err;
  EXPECT_FALSE(boost::filesystem::exists(Data("t.hdb")));

  CToolRun right = Tool("scan t --passphrase-fd 3 3<passphrase");
  EXPECT_EQ(right.status, 0) << right.err;
  CToolRun check = Tool("check t");  // reading needs no key
  EXPECT_EQ(check.status, 0) << check.out << check.err;
}

TEST_F(ToolKeysTest, AnExpiredSignerCertificateSignsNothingUntilRenewed) {
  CDevKeyRequest request;
  request.signer_not_before_days = -30;
  request.signer_not_after_days = -1;
  MakeKeys(request);
  Write("etc/hosts", "127.0.0.1 localhost\n");
  Init();
  CToolRun scan = Tool("scan t");
  EXPECT_EQ(scan.status, 2);
  EXPECT_THAT(scan.err, AllOf(HasSubstr("the signer certificate " + Keys("signer.pem") + " expired on"),
                              HasSubstr("signdb renew --ca-key PATH")));
  EXPECT_FALSE(boost::filesystem::exists(Data("t.hdb")));

  CToolRun renew = Tool("renew --ca-key '" + OfflineCaKey() + "' --days 90");
  ASSERT_EQ(renew.status, 0) << renew.err;
  EXPECT_THAT(renew.out, HasSubstr("renewed " + Keys("signer.pem") + ": valid until "));
  CToolRun again = Tool("scan t");
  EXPECT_EQ(again.status, 0) << again.err;
  EXPECT_THAT(again.err, Not(HasSubstr("expire")));
}

TEST_F(ToolKeysTest, ASignerCertificateAboutToExpireIsAnnouncedBeforeItDoes) {
  CDevKeyRequest request;
  request.signer_not_after_days = 10;
  MakeKeys(request);
  Write("etc/hosts", "127.0.0.1 localhost\n");
  Init();
  CToolRun scan = Tool("scan t");
  EXPECT_EQ(scan.status, 0) << scan.err;
  EXPECT_THAT(scan.err, AllOf(HasSubstr("warning: the signer certificate " + Keys("signer.pem") + " expires on"),
                              HasSubstr("days); issue a new one")));
}

// A database whose signature was made with a certificate that has expired is refused, and the
// refusal names OpenSSL's reason.
TEST_F(ToolKeysTest, ADatabaseSignedWithAnExpiredCertificateIsRefusedWithOpenSslsReason) {
  MakeKeys(CDevKeyRequest());
  Write("etc/hosts", "127.0.0.1 localhost\n");
  Init();
  ASSERT_EQ(Tool("scan t").status, 0);
  std::string expired = dir_ / "expired.pem";
  IssueSignerCertificate(Keys("ca.pem"), OfflineCaKey(), Keys("signer.key"), "", "signdb test", "1001", -30, -1,
                         expired);
  CRefSigner signer(expired, Keys("signer.key"), Keys("ca.pem"));
  std::string result;
  ASSERT_TRUE(signer.Sign(Utf8ToWide(Data("t.hdb")), result, 0, 0)) << result;
  CToolRun check = Tool("check t");
  EXPECT_EQ(check.status, 2);
  EXPECT_THAT(check.err, AllOf(HasSubstr("was refused"), HasSubstr("OpenSSL: "), HasSubstr("certificate has expired")))
      << check.err;
}

TEST_F(ToolKeysTest, ASignerKeyNamedByAStoreUriSigns) {
  Write("etc/hosts", "127.0.0.1 localhost\n");
  Init();
  EditConfig("\"keys/signer.key\"", "\"file:" + Keys("signer.key") + "\"");
  CToolRun scan = Tool("scan t");
  EXPECT_EQ(scan.status, 0) << scan.err;
  EXPECT_EQ(Tool("check t").status, 0);
}

// The monitored host holds no signer key: a scan or update leaves a candidate that the signing
// host signs, and accepting it puts it in place as a save would; what was changed after its
// signature is never accepted.
TEST_F(ToolKeysTest, SignedElsewhereTheMonitoredHostNeedsNoKeyAndAcceptsOnlyWhatWasSigned) {
  Write("etc/hosts", "127.0.0.1 localhost\n");
  Init();
  std::string signing = SigningHost();
  std::string candidate = Data("t.hdb.candidate");
  auto sign = [&] { return Sign(signing); };

  CToolRun scan = Tool("scan t --sign-later");
  EXPECT_EQ(scan.status, 0) << scan.err;
  EXPECT_THAT(scan.out, AllOf(HasSubstr("waits for its signature"), HasSubstr("signdb accept t")));
  EXPECT_FALSE(boost::filesystem::exists(Data("t.hdb")));
  EXPECT_EQ(Tool("accept t").status, 2);  // not signed yet
  CToolRun signed_run = sign();
  EXPECT_EQ(signed_run.status, 0) << signed_run.err;
  EXPECT_THAT(signed_run.out, HasSubstr("signed its binding to policy 't'"));
  CToolRun accept = Tool("accept t");
  EXPECT_EQ(accept.status, 0) << accept.err;
  EXPECT_FALSE(boost::filesystem::exists(candidate));
  EXPECT_EQ(Tool("check t").status, 0);

  // An update the same way: the database in place stays until its successor is signed.
  Write("etc/hosts", "10.0.0.1 changed\n");
  CToolRun update = Tool("update t --sign-later");
  EXPECT_LT(update.status, 2) << update.err;
  EXPECT_EQ(Tool("check t").status, 1);
  ASSERT_EQ(sign().status, 0);
  std::string good = CTempDir::Read(candidate);
  std::ofstream(candidate, std::ios::app) << "x";  // changed after it was signed
  CToolRun tampered = Tool("accept t");
  EXPECT_EQ(tampered.status, 2);
  EXPECT_THAT(tampered.err, HasSubstr("was refused")) << tampered.err;
  std::ofstream(candidate, std::ios::trunc) << good;
  CToolRun accepted = Tool("accept t");
  EXPECT_EQ(accepted.status, 0) << accepted.err;
  CToolRun clean = Tool("check t");
  EXPECT_EQ(clean.status, 0) << clean.out << clean.err;
  EXPECT_TRUE(boost::filesystem::exists(Data("t.previous.hdb")));
}

// A kill at any step of an accept leaves a loadable signed pair, and the next accept finishes.
TEST_F(ToolKeysTest, AKillAtEveryStepOfAnAcceptLeavesALoadableSignedPair) {
  Write("etc/hosts", "127.0.0.1 localhost\n");
  Init();
  std::string signing = SigningHost();
  ASSERT_EQ(Tool("scan t --sign-later").status, 0);
  ASSERT_EQ(Sign(signing).status, 0);
  ASSERT_EQ(Tool("accept t").status, 0);
  int steps = 0;
  for (int step = 1; step < 200; ++step) {
    Write("etc/hosts", "changed " + std::to_string(step) + "\n");
    ASSERT_LT(Tool("update t --sign-later").status, 2);
    ASSERT_EQ(Sign(signing).status, 0);
    CToolRun killed = RunShell("SIGNDB_TEST_KILL_AT_STEP=" + std::to_string(step) + " '" SIGNDB_TOOL_PATH
                               "' --config '" + config_ + "' accept t");
    if (killed.status != 128 + SIGKILL) {
      ASSERT_EQ(killed.status, 0) << killed.err;
      steps = step - 1;
      break;
    }
    CToolRun check = Tool("check t");
    ASSERT_LE(check.status, 1) << "killed at step " << step << ": " << check.err;
    CToolRun again = Tool("accept t");
    ASSERT_EQ(again.status, 0) << "killed at step " << step << ": " << again.err;
    CToolRun clean = Tool("check t");
    ASSERT_EQ(clean.status, 0) << "killed at step " << step << ": " << clean.out << clean.err;
    ASSERT_EQ(Tool("diff t").status < 2, true) << "killed at step " << step;
  }
  EXPECT_GT(steps, 5) << "an accept has several steps to interrupt";
}

}  // namespace
