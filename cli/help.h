#pragma once

#include <ostream>
#include <string>

// The overview of every command, with examples.
void PrintUsage(std::ostream& out);
// The help of one command; false when there is no such command.
bool PrintCommandHelp(const std::string& command, std::ostream& out);
