#pragma once

#include <stdexcept>
#include <string>

// The tool's exit status: 0 nothing to report, 1 differences (or nothing found), 2 an error.
inline constexpr int kExitOk = 0;
inline constexpr int kExitDifferences = 1;
inline constexpr int kExitError = 2;

// An error that the user can fix; its text says what to do. Leaves the command with status 2.
class CToolError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};
