#pragma once

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "tests/temp_dir.h"

// What one run of the signdb tool printed and how it ended.
struct CToolRun {
  int status = -1;
  std::string out;
  std::string err;
  std::vector<std::string> OutLines() const {
    std::vector<std::string> lines;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }
};

// Runs the built tool on real folders: a tree to watch, and a configuration made by "signdb init"
// with one policy "t" over the tree.
class ToolTest : public ::testing::Test {
 protected:
  ToolTest() : tree_(dir_ / "tree"), config_(dir_ / "cfg/signdb.json") {
    boost::filesystem::create_directories(tree_);
  }

  // Runs "signdb ARGS" in the work folder; "as_nobody" drops to uid/gid 65534 first (when root),
  // for files that only root could read.
  CToolRun Run(const std::string& args, bool as_nobody = false) const {
    std::string prefix = as_nobody && ::geteuid() == 0 ? "setpriv --reuid=65534 --regid=65534 --clear-groups " : "";
    return RunShell(prefix + "'" SIGNDB_TOOL_PATH "' " + args);
  }
  // Runs a shell command line in the work folder.
  CToolRun RunShell(const std::string& command_line) const {
    std::string out = dir_ / "stdout.txt";
    std::string err = dir_ / "stderr.txt";
    std::string command = "cd '" + dir_.path().string() + "' && " + command_line + " >'" + out + "' 2>'" + err +
                          "' </dev/null";
    int raw = std::system(command.c_str());
    CToolRun run;
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    run.out = CTempDir::Read(out);
    run.err = CTempDir::Read(err);
    return run;
  }
  // "signdb --config CONFIG ARGS".
  CToolRun Tool(const std::string& args, bool as_nobody = false) const {
    return Run("--config '" + config_ + "' " + args, as_nobody);
  }

  void Init() {
    CToolRun run = Run("init --config '" + config_ + "' --policy t=tree");
    ASSERT_EQ(run.status, 0) << run.out << run.err;
  }
  // A small tree with a nested folder, a symbolic link and a non-ASCII name, then init and scan.
  void ScanSample() {
    Write("etc/hosts", "127.0.0.1 localhost\n");
    Write("etc/passwd", "root:x:0:0::/root:/bin/sh\n");
    Write("etc/motd", "welcome\n");
    Write("bin/tool", "#!/bin/sh\necho tool\n");
    Write("docs/r\xc3\xa9sum\xc3\xa9.txt", "caf\xc3\xa9\n");
    Symlink("etc/hosts", "hosts-link");
    Init();
    CToolRun run = Tool("scan t");
    ASSERT_EQ(run.status, 0) << run.out << run.err;
  }

  std::string Write(const std::string& relative, const std::string& content) const {
    return dir_.Write("tree/" + relative, content);
  }
  void Append(const std::string& relative, const std::string& content) const {
    std::ofstream(Tree(relative), std::ios::app) << content;
  }
  void Symlink(const std::string& target, const std::string& relative) const {
    ASSERT_EQ(::symlink(target.c_str(), Tree(relative).c_str()), 0);
  }
  std::string Tree(const std::string& relative) const { return tree_ + "/" + relative; }
  std::string Data(const std::string& name) const { return dir_ / ("cfg/data/" + name); }

  // The SHA-256 of "content" as lowercase hex, as the tool records it.
  static std::string Sha256(const std::string& content) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(content.data(), content.size(), digest, &length, EVP_sha256(), nullptr);
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned int i = 0; i < length; ++i) {
      hex += kDigits[digest[i] >> 4];
      hex += kDigits[digest[i] & 15];
    }
    return hex;
  }

  // The report line about "path" (the words come first, the path after them), or "".
  // The report line about "path" without its severity column (its first 10 characters), or "".
  static std::string LineAbout(const CToolRun& run, const std::string& path) {
    for (const std::string& line : run.OutLines()) {
      if (line.size() < 10) continue;
      std::string rest = line.substr(10);
      std::istringstream words(rest.substr(std::min<size_t>(28, rest.size())));
      std::string first;
      words >> first;
      if (first == path) return rest;
    }
    return std::string();
  }
  // The severity a report gives the line about "path", or "".
  static std::string SeverityAbout(const CToolRun& run, const std::string& path) {
    for (const std::string& line : run.OutLines()) {
      if (line.size() < 10) continue;
      std::istringstream words(line.substr(std::min<size_t>(38, line.size())));
      std::string first;
      words >> first;
      if (first == path) {
        std::string severity = line.substr(0, 9);
        return severity.substr(0, severity.find(' '));
      }
    }
    return std::string();
  }

  CTempDir dir_;
  std::string tree_;
  std::string config_;
};
