#include "tool/store/passphrase.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/ui.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

#include "tool/common/exit_status.h"

namespace {

constexpr size_t kLongestPassphrase = 1024;

std::string FromDescriptor(const std::string& fd_text) {
  int fd = -1;
  auto [end, error] = std::from_chars(fd_text.data(), fd_text.data() + fd_text.size(), fd);
  if (error != std::errc() || end != fd_text.data() + fd_text.size() || fd < 0) {
    throw CToolError("--passphrase-fd wants a file descriptor number (got '" + fd_text + "')");
  }
  std::string passphrase;
  char c = 0;
  for (;;) {
    ssize_t n = ::read(fd, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0)
      throw CToolError("cannot read the passphrase from descriptor " + fd_text + ": " +
                       std::strerror(errno));
    if (n == 0 || c == '\n') break;
    if (passphrase.size() == kLongestPassphrase)
      throw CToolError("the passphrase is longer than 1024 bytes");
    passphrase += c;
  }
  if (!passphrase.empty() && passphrase.back() == '\r') passphrase.pop_back();
  if (passphrase.empty()) throw CToolError("descriptor " + fd_text + " gave an empty passphrase");
  return passphrase;
}

bool HaveTerminal() {
  int fd = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return false;
  ::close(fd);
  return true;
}

std::string FromTerminal(const std::string& prompt, bool verify) {
  if (!HaveTerminal()) {
    throw CToolError("a passphrase is needed and there is no terminal to ask it on",
                     {"give it with --passphrase-fd N (e.g. 3<passphrase-file)"});
  }
  char buffer[kLongestPassphrase + 1] = {};
  // OpenSSL's reader turns echo off on the terminal and restores it, whatever happens.
  int result = EVP_read_pw_string(buffer, sizeof buffer, prompt.c_str(), verify ? 1 : 0);
  std::string passphrase(buffer);
  OPENSSL_cleanse(buffer, sizeof buffer);
  if (result != 0)
    throw CToolError(verify ? "the passphrases differ, or none was given"
                            : "no passphrase was given");
  if (passphrase.empty()) throw CToolError("an empty passphrase protects nothing");
  return passphrase;
}

}  // namespace

std::string ReadPassphrase(const std::string& prompt, const std::string& fd_text) {
  return fd_text.empty() ? FromTerminal(prompt, false) : FromDescriptor(fd_text);
}

std::string ReadNewPassphrase(const std::string& prompt, const std::string& fd_text) {
  return fd_text.empty() ? FromTerminal(prompt, true) : FromDescriptor(fd_text);
}

void ForgetPassphrase(std::string& passphrase) {
  if (!passphrase.empty()) OPENSSL_cleanse(passphrase.data(), passphrase.size());
  passphrase.clear();
}
