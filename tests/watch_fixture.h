#pragma once

// The watch service run for real by a test: started on the test's configuration, asked through
// its socket, stopped by a signal.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <Poco/JSON/Object.h>

#include "tool/watch/query_server.h"
#include "tests/tool_fixture.h"
#include "tests/tool_json.h"

extern char** environ;

using namespace std::chrono_literals;

inline constexpr auto kWithin = 1s;  // how soon a change must be visible

inline Poco::JSON::Object::Ptr Parse(const std::string& line) { return ParseJson(line); }

// Tests that run the service derive from this; "watcher_" chooses the watcher.
class WatchFixture : public ToolTest {
 protected:
  ~WatchFixture() override { Stop(SIGKILL); }

  std::string Socket() const { return Data("watch.sock"); }

  // Starts "signdb watch ARGS" and waits until it answers.
  void Start(const std::string& args = "") {
    std::string command = "exec '" SIGNDB_TOOL_PATH "' --config '" + config_ + "' watch " + watcher_ + " " + args + " >'" +
                          (dir_ / "watch.out") + "' 2>'" + (dir_ / "watch.err") + "'";
    const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
    ASSERT_EQ(0, ::posix_spawn(&pid_, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ));
    auto deadline = std::chrono::steady_clock::now() + 30s;
    while (std::chrono::steady_clock::now() < deadline) {
      int status = 0;
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        FAIL() << "the service ended: " << CTempDir::Read(dir_ / "watch.err");
      }
      try {
        if (Parse(AskService(Socket(), "{\"request\":\"status\"}"))->optValue<bool>("ok", false)) return;
      } catch (const std::exception&) {
      }
      std::this_thread::sleep_for(20ms);
    }
    FAIL() << "the service did not answer: " << CTempDir::Read(dir_ / "watch.err");
  }

  // Sends "signal" and waits for the service to end; returns its exit status.
  int Stop(int signal = SIGTERM) {
    if (pid_ < 0) return -1;
    ::kill(pid_, signal);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  Poco::JSON::Object::Ptr Ask(const std::string& request) { return Parse(AskService(Socket(), request)); }

  // What the running service records at "relative", or null when it records nothing there.
  Poco::JSON::Object::Ptr Shown(const std::string& relative) {
    Poco::JSON::Object::Ptr answer = Ask("{\"request\":\"show\",\"policy\":\"t\",\"path\":" + JsonText(relative) + "}");
    return answer->optValue<bool>("ok", false) ? answer->getObject("object") : nullptr;
  }

  // Whether "holds" becomes true within "within", asking again and again.
  bool Eventually(const std::function<bool()>& holds, std::chrono::milliseconds within = kWithin) {
    auto deadline = std::chrono::steady_clock::now() + within;
    for (;;) {
      try {
        if (holds()) return true;
      } catch (const std::exception&) {
        // busy (a reconcile of a large tree answers nothing meanwhile): asked again
      }
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(10ms);
    }
  }
  bool EventuallyRecorded(const std::string& relative, const std::string& hash,
                          std::chrono::milliseconds within = kWithin) {
    return Eventually(
        [&] {
          Poco::JSON::Object::Ptr object = Shown(relative);
          return object && object->optValue<std::string>("hash", "") == hash;
        },
        within);
  }
  bool EventuallyGone(const std::string& relative) {
    return Eventually([&] { return Shown(relative).isNull(); });
  }

  static std::string JsonText(const std::string& text) { return "\"" + text + "\""; }

  // Takes policy t's lock shared, as a run that reads its saved files does; closing the
  // descriptor returned lets it go. -1 when it is held exclusively elsewhere.
  // A lock on one of the policy's records ("t.hdb" the baseline, "t.live.hdb" the service's live
  // record), as another run of the tool takes it: shared for a reader, exclusive for a writer.
  int HoldLock(const std::string& record, bool writer) const {
    int fd = ::open(Data(record + ".lock").c_str(), (writer ? O_RDWR : O_RDONLY) | O_CLOEXEC);
    struct flock shared {};
    shared.l_type = writer ? F_WRLCK : F_RDLCK;
    shared.l_whence = SEEK_SET;
    if (fd >= 0 && ::fcntl(fd, F_SETLK, &shared) != 0) {
      int error = errno;
      ::close(fd);
      errno = error;
      return -1;
    }
    return fd;
  }

  // The changes the service logged, in order.
  std::vector<Poco::JSON::Object::Ptr> ChangeLog() const {
    std::vector<Poco::JSON::Object::Ptr> lines;
    std::istringstream in(CTempDir::Read(Data("watch-changes.ndjson")));
    for (std::string line; std::getline(in, line);) lines.push_back(Parse(line));
    return lines;
  }
  // The last change the service logged about "path", or null.
  Poco::JSON::Object::Ptr Logged(const std::string& path) const {
    Poco::JSON::Object::Ptr last;
    for (const Poco::JSON::Object::Ptr& line : ChangeLog()) {
      if (line->getObject("signdb")->optValue<std::string>("relative_path", "") == path) last = line;
    }
    return last;
  }

  std::string watcher_;  // "" (the default watcher) or "--inotify"
  pid_t pid_ = -1;
};
