#include "tool/watch/query_server.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "tool/watch/query_protocol.h"

namespace {

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    throw std::runtime_error("the socket path " + path + " is too long for a local socket (" +
                             std::to_string(sizeof address.sun_path - 1) + " bytes at most)");
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

}  // namespace

CQueryServer::CQueryServer(std::string socket_path, CHandler handler)
    : path_(std::move(socket_path)), handler_(std::move(handler)) {
  sockaddr_un address = AddressOf(path_);
  listen_fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listen_fd_ < 0)
    throw std::runtime_error(std::string("cannot make a local socket: ") + std::strerror(errno));
  ::unlink(path_.c_str());
  // Owner-only from the start: no moment where another user could connect.
  mode_t before = ::umask(0077);
  int bound = ::bind(listen_fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
  int error = errno;
  ::umask(before);
  if (bound != 0 || ::listen(listen_fd_, 16) != 0) {
    if (bound == 0) error = errno;
    ::close(listen_fd_);
    throw std::runtime_error("cannot listen at " + path_ + ": " + std::strerror(error));
  }
  epoll_fd_ = ::epoll_create1(EPOLL_CLOEXEC);
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = listen_fd_;
  if (epoll_fd_ < 0 || ::epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, listen_fd_, &event) != 0) {
    error = errno;
    ::close(listen_fd_);
    if (epoll_fd_ >= 0) ::close(epoll_fd_);
    throw std::runtime_error(std::string("cannot wait for queries: ") + std::strerror(error));
  }
}

CQueryServer::~CQueryServer() {
  for (auto& [client, state] : clients_) ::close(client);
  ::close(epoll_fd_);
  ::close(listen_fd_);
  ::unlink(path_.c_str());
}

void CQueryServer::Process() {
  epoll_event ready[16];
  for (;;) {
    int count = ::epoll_wait(epoll_fd_, ready, 16, 0);
    if (count <= 0) return;
    for (int i = 0; i < count; ++i) {
      int fd = ready[i].data.fd;
      if (fd == listen_fd_) {
        Accept();
      } else if (!Serve(fd)) {
        Close(fd);
      }
    }
  }
}

void CQueryServer::Accept() {
  for (;;) {
    int client = ::accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (client < 0) return;
    if (clients_.size() >= kMostClients) {
      std::string refusal =
          ErrorAnswer(CQueryCode::kBusy, "too many connections to the service; try again") + "\n";
      (void)::send(client, refusal.data(), refusal.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      ::close(client);
      continue;
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = client;
    if (::epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, client, &event) != 0) {
      ::close(client);
      continue;
    }
    clients_[client];
  }
}

bool CQueryServer::Serve(int client) {
  CClient& state = clients_[client];
  if (!Send(client, state)) return false;
  char buffer[16 * 1024];
  // A client is read from only while it has taken every answer: one that sends without reading
  // waits in its own socket, and the service sends long answers as they are read.
  while (state.unsent.empty()) {
    size_t end = state.received.find('\n');
    if (end != std::string::npos && end <= kLongestRequest) {
      std::string request = state.received.substr(0, end);
      state.received.erase(0, end + 1);
      if (!request.empty() && request.back() == '\r') request.pop_back();
      if (request.empty()) continue;
      state.unsent = handler_(request) + "\n";
      if (!Send(client, state)) return false;
      continue;
    }
    if (state.received.size() > kLongestRequest) {
      state.unsent = ErrorAnswer(CQueryCode::kBadRequest, "request too long: at most " +
                                                              std::to_string(kLongestRequest) +
                                                              " bytes per line") +
                     "\n";
      Send(client, state);
      return false;
    }
    ssize_t length = ::recv(client, buffer, sizeof buffer, 0);
    if (length < 0) {
      if (errno == EINTR) continue;
      return errno == EAGAIN || errno == EWOULDBLOCK;
    }
    if (length == 0) return false;  // the client is done
    state.received.append(buffer, static_cast<size_t>(length));
  }
  return true;
}

bool CQueryServer::Send(int client, CClient& state) {
  while (!state.unsent.empty()) {
    ssize_t length = ::send(client, state.unsent.data(), state.unsent.size(), MSG_NOSIGNAL);
    if (length < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
      break;
    }
    state.unsent.erase(0, static_cast<size_t>(length));
  }
  // Waits for the client to take the rest, or for its next request.
  bool sending = !state.unsent.empty();
  if (sending != state.sending) {
    epoll_event event{};
    event.events = sending ? EPOLLOUT : EPOLLIN;
    event.data.fd = client;
    if (::epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, client, &event) != 0) return false;
    state.sending = sending;
  }
  return true;
}

void CQueryServer::Close(int client) {
  ::epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, client, nullptr);
  ::close(client);
  clients_.erase(client);
}

std::string AskService(const std::string& socket_path, const std::string& request, int timeout_ms) {
  sockaddr_un address = AddressOf(socket_path);
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0)
    throw std::runtime_error(std::string("cannot make a local socket: ") + std::strerror(errno));
  timeval timeout{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    int error = errno;
    ::close(fd);
    throw std::runtime_error("no service answers at " + socket_path + ": " + std::strerror(error));
  }
  std::string line = request + "\n";
  if (::send(fd, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size())) {
    ::close(fd);
    throw std::runtime_error("cannot send to the service at " + socket_path);
  }
  std::string answer;
  char buffer[64 * 1024];
  for (;;) {
    ssize_t length = ::recv(fd, buffer, sizeof buffer, 0);
    if (length <= 0) break;
    size_t searched = answer.size();  // a long answer is searched once, not again per piece
    answer.append(buffer, static_cast<size_t>(length));
    size_t end = answer.find('\n', searched);
    if (end != std::string::npos) {
      answer.resize(end);
      ::close(fd);
      return answer;
    }
  }
  ::close(fd);
  throw std::runtime_error("the service at " + socket_path + " did not answer");
}
