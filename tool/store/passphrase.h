#pragma once

#include <string>

// The passphrase of a protected key: read from the file descriptor "fd_text" names (a number, as
// --passphrase-fd gives it; up to the first newline), or else asked on the terminal without echo.
// Throws CToolError when there is neither, or the descriptor cannot be read.
std::string ReadPassphrase(const std::string& prompt, const std::string& fd_text);

// The same, asked twice on a terminal when it is a new one (init --protect-key).
std::string ReadNewPassphrase(const std::string& prompt, const std::string& fd_text);

// Overwrites the passphrase's bytes before it goes.
void ForgetPassphrase(std::string& passphrase);
