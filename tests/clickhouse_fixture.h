#pragma once

// A real ClickHouse server for a test: Debian's clickhouse-server, started on a loopback port with
// its own scratch folder, and stopped when the test ends. A machine without the package skips the
// test with the reason (the test command installs it, so CI never skips).

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tool/fleet/clickhouse_client.h"
#include "tests/temp_dir.h"

extern char** environ;

class CClickHouseServer {
 public:
  static constexpr const char* kServer = "/usr/sbin/clickhouse-server";

  static bool Installed() { return ::access(kServer, X_OK) == 0; }

  CClickHouseServer() : http_port_(FreePort()), tcp_port_(FreePort()) {}

  // Starts it; false (with why in "error") when it does not answer within 30 s. "extra" is more
  // of the server's configuration (a cluster's remote_servers).
  bool Start(std::string& error, const std::string& extra = std::string()) {
    int tcp_port = tcp_port_;
    std::string root = dir_.path().string();
    std::ofstream(root + "/config.xml")
        << "<?xml version=\"1.0\"?>\n<yandex>\n"
        << "  <logger><level>warning</level><log>" << root << "/server.log</log><errorlog>" << root
        << "/error.log</errorlog><console>0</console></logger>\n"
        << "  <http_port>" << http_port_ << "</http_port>\n  <tcp_port>" << tcp_port << "</tcp_port>\n"
        << "  <listen_host>127.0.0.1</listen_host>\n" << extra
        << "  <path>" << root << "/data/</path>\n  <tmp_path>" << root << "/tmp/</tmp_path>\n"
        << "  <user_files_path>" << root << "/user_files/</user_files_path>\n"
        << "  <users_config>users.xml</users_config>\n  <default_profile>default</default_profile>\n"
        << "  <default_database>default</default_database>\n  <mark_cache_size>5368709</mark_cache_size>\n"
        << "</yandex>\n";
    std::ofstream(root + "/users.xml")
        << "<?xml version=\"1.0\"?>\n<yandex>\n  <profiles><default></default></profiles>\n"
        << "  <users><default><password></password><networks><ip>127.0.0.1</ip></networks>"
        << "<profile>default</profile><quota>default</quota></default></users>\n"
        << "  <quotas><default></default></quotas>\n</yandex>\n";
    std::string config = "--config-file=" + root + "/config.xml";
    std::string out = root + "/out.log";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    const char* argv[] = {kServer, config.c_str(), nullptr};
    int spawned = ::posix_spawn(&pid_, kServer, &actions, nullptr, const_cast<char**>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
      error = "cannot start " + std::string(kServer);
      pid_ = -1;
      return false;
    }
    CClickHouseClient client(url(), "", "");
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline) {
      try {
        if (client.Run("SELECT 1").rfind("1", 0) == 0) return true;
      } catch (const std::exception&) {
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    error = "clickhouse-server did not answer within 30 s: " + CTempDir::Read(dir_ / "out.log") +
            CTempDir::Read(dir_ / "error.log");
    return false;
  }

  void Stop() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    int status = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (::waitpid(pid_, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    pid_ = -1;
  }

  ~CClickHouseServer() { Stop(); }

  std::string url() const { return "http://127.0.0.1:" + std::to_string(http_port_); }
  int tcp_port() const { return tcp_port_; }

  // The configuration of a cluster named "name" with one shard on each server (by TCP port).
  static std::string ClusterConfig(const std::string& name, const std::vector<int>& tcp_ports) {
    std::string xml = "  <remote_servers><" + name + ">";
    for (int port : tcp_ports) {
      xml += "<shard><replica><host>127.0.0.1</host><port>" + std::to_string(port) +
             "</port></replica></shard>";
    }
    return xml + "</" + name + "></remote_servers>\n";
  }

 static int FreePort() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    int port = ntohs(address.sin_port);
    ::close(fd);
    return port;
  }

 private:
  CTempDir dir_;
  pid_t pid_ = -1;
  int http_port_ = 0;
  int tcp_port_ = 0;
};
