#pragma once

#include <stdexcept>
#include <string>

// An object name that the tree refuses: empty, ".", "..", or illegal for the host.
class CBadObjNameError : public std::runtime_error {
 public:
  explicit CBadObjNameError(const std::string& message)
      : std::runtime_error(message), message_(message) {}
  ~CBadObjNameError() override = default;
  // The text of the exception's own copy of the message.
  virtual const char* Message() const noexcept { return message_.c_str(); }

 private:
  std::string message_;
};
