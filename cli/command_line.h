#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

// One command line: the command, its arguments and its options. Options may stand anywhere;
// "--" ends them.
struct CCommandLine {
  std::string command;
  std::vector<std::string> words;  // everything after the program's name, as given
  std::vector<std::string> arguments;
  std::map<std::string, std::vector<std::string>> values;  // --config FILE, --policy N=R, ...
  std::set<std::string> flags;                             // --json, --quiet, ...

  bool Has(const std::string& flag) const { return flags.count(flag) != 0; }
  // The last value given for "option", or "fallback".
  std::string Value(const std::string& option, const std::string& fallback = "") const;
  const std::vector<std::string>& Values(const std::string& option) const;
};

// Reads argv. Throws CToolError for an unknown option or an option without its value.
CCommandLine ParseCommandLine(const std::vector<std::string>& args);

// Throws CToolError unless every option given is one that "command" takes and the number of
// arguments lies in [min_arguments, max_arguments].
void RequireShape(const CCommandLine& line, const std::set<std::string>& options,
                  size_t min_arguments, size_t max_arguments);
