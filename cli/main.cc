// signdb: file-integrity monitoring on top of the signdb module, loaded as a plug-in.

#include <sys/stat.h>

#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/help.h"
#include "tool/common/exit_status.h"
#include "util/edit_distance.h"
#include "util/safe_text.h"

namespace {

constexpr const char* kVersion = kToolVersion;

int RunVersion(const CCommandLine& line) {
  RequireShape(line, {}, 0, 0);
  std::cout << "signdb " << kVersion << "\n";
  return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
  // Everything the tool writes (configuration, keys, databases, log) is its owner's alone, whatever
  // the umask it was started with.
  ::umask(077);
  static const std::map<std::string, int (*)(const CCommandLine&)> kCommands = {
      {"init", RunInit},     {"scan", RunScan},         {"check", RunCheck},
      {"update", RunUpdate}, {"diff", RunDiff},         {"lookup", RunLookup},
      {"ls", RunList},       {"show", RunShow},         {"verify", RunVerify},
      {"dump", RunDump},     {"selftest", RunSelfTest}, {"version", RunVersion},
      {"renew", RunRenew},   {"sign", RunSign},         {"accept", RunAccept},
      {"rules", RunRules},   {"watch", RunWatch},       {"status", RunStatus},
      {"fleet", RunFleet},   {"journal", RunJournal}};
  try {
    CCommandLine line = ParseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
    if (line.command == "help") {
      if (line.arguments.empty()) {
        PrintUsage(std::cout);
        return kExitOk;
      }
      line.command = line.arguments[0];
      line.flags.insert("--help");
    }
    if (line.command.empty()) {
      PrintUsage(line.Has("--help") ? std::cout : std::cerr);
      return line.Has("--help") ? kExitOk : kExitError;
    }
    auto command = kCommands.find(line.command);
    if (command == kCommands.end()) {
      std::vector<std::string> names;
      for (const auto& [name, run] : kCommands) names.push_back(name);
      std::vector<std::string> meant = NearestWords(line.command, names);
      std::cerr << "signdb: unknown command '" << EscapedText(line.command) << "'";
      for (size_t i = 0; i < meant.size(); ++i)
        std::cerr << (i == 0 ? "; did you mean " : (i + 1 == meant.size() ? " or " : ", ")) << "'"
                  << meant[i] << "'";
      std::cerr << (meant.empty() ? " (see signdb --help)\n" : "? (see signdb --help)\n");
      return kExitError;
    }
    if (line.Has("--help")) {
      PrintCommandHelp(line.command, std::cout);
      return kExitOk;
    }
    return command->second(line);
  } catch (const CToolError& e) {
    std::cerr << "signdb: " << EscapedText(e.what()) << "\n";
    for (const std::string& hint : e.hints()) std::cerr << "  " << EscapedText(hint) << "\n";
    return kExitError;
  } catch (const std::exception& e) {
    std::cerr << "signdb: " << EscapedText(e.what()) << "\n";
    return kExitError;
  }
}
