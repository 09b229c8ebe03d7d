#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>

// A local socket that answers one JSON request per line with one JSON line: the running watch
// service's query interface. The socket is made owner-only (the data folder's owner may ask; a
// query reveals what the databases record).
//
// Requests are read without blocking and answers sent without blocking: a long answer goes out as
// the client reads it, and a client's next request is read once it has taken the last answer. A
// line longer than kLongestRequest is refused and its connection closed, and at most kMostClients
// are connected at once. The server waits on its own epoll descriptor, which the service waits on
// in turn.
//
// Not thread-safe: the service's one thread drives it.
class CQueryServer {
 public:
  static constexpr size_t kLongestRequest = 64 * 1024;
  static constexpr size_t kMostClients = 64;
  // Answers one request line (which may be anything a client sent) with one JSON object.
  using CHandler = std::function<std::string(const std::string& request)>;

  // Binds and listens at "socket_path" (whatever is there is replaced: the caller holds the
  // service lock). Throws std::runtime_error when it cannot.
  CQueryServer(std::string socket_path, CHandler handler);
  ~CQueryServer();
  CQueryServer(const CQueryServer&) = delete;
  CQueryServer& operator=(const CQueryServer&) = delete;

  // Readable when a client connects, sends, or can take more of its answer.
  int fd() const { return epoll_fd_; }
  // Accepts and answers whatever is waiting, without blocking.
  void Process();
  const std::string& path() const { return path_; }

 private:
  void Accept();
  struct CClient {
    std::string received;  // what it sent that is not answered yet
    std::string unsent;    // the rest of its answer
    bool sending = false;  // waits for room to send (else for its next request)
  };
  // Sends the rest of one client's answer, then reads and answers its complete lines while it
  // takes them; false when it is to be closed.
  bool Serve(int client);
  void Close(int client);
  // Sends what the client takes now of its answer and waits for what fits its state (more room
  // to send, or its next request); false when it is gone.
  bool Send(int client, CClient& state);

  std::string path_;
  CHandler handler_;
  int listen_fd_ = -1;
  int epoll_fd_ = -1;
  std::map<int, CClient> clients_;  // by descriptor
};

// Sends one request line to the service at "socket_path" and returns its answer line. Throws
// std::runtime_error when no service listens there or it does not answer within "timeout_ms".
std::string AskService(const std::string& socket_path, const std::string& request,
                       int timeout_ms = 5000);
