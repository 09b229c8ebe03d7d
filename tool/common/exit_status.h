#pragma once

#include <stdexcept>
#include <string>
#include <vector>

// The tool's exit status: 0 nothing to report, 1 differences (or nothing found), 2 an error.
inline constexpr int kExitOk = 0;
inline constexpr int kExitDifferences = 1;
inline constexpr int kExitError = 2;

// An error that the user can fix; its text says what to do. Leaves the command with status 2.
// The hints are printed as lines of their own below it; each line, like the error, is printed
// with its control characters escaped, so that a file name cannot add a line of its own.
class CToolError : public std::runtime_error {
 public:
  explicit CToolError(const std::string& what, std::vector<std::string> hints = {})
      : std::runtime_error(what), hints_(std::move(hints)) {}
  const std::vector<std::string>& hints() const { return hints_; }

 private:
  std::vector<std::string> hints_;
};
