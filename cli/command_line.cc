#include "cli/command_line.h"

#include "tool/common/exit_status.h"

namespace {

// Options that take a value, and their short forms.
const std::set<std::string> kValueOptions = {
    "--config",        "--module",      "--dir",    "--policy", "--signature",
    "--passphrase-fd", "--ca-key-out",  "--ca-key", "--days",   "--except",
    "--report",        "--save-period", "--from",   "--since",  "--host",
    "--group",         "--path",        "--hosts",  "--limit"};
const std::set<std::string> kFlagOptions = {
    "--help",      "--json",     "--quiet",  "--verify",      "--force",
    "--recursive", "--wait",     "--bind",   "--protect-key", "--sign-later",
    "--all",       "--packages", "--system", "--interactive", "--rescan",
    "--inotify",   "--replace",  "--walk",   "--long"};
const std::map<std::string, std::string> kShortForms = {{"-h", "--help"},
                                                        {"-q", "--quiet"},
                                                        {"-R", "--recursive"},
                                                        {"-c", "--config"},
                                                        {"-i", "--interactive"}};

}  // namespace

std::string CCommandLine::Value(const std::string& option, const std::string& fallback) const {
  auto it = values.find(option);
  return it == values.end() || it->second.empty() ? fallback : it->second.back();
}

const std::vector<std::string>& CCommandLine::Values(const std::string& option) const {
  static const std::vector<std::string> kNone;
  auto it = values.find(option);
  return it == values.end() ? kNone : it->second;
}

CCommandLine ParseCommandLine(const std::vector<std::string>& args) {
  CCommandLine line;
  line.words = args;
  bool options_ended = false;
  for (size_t i = 0; i < args.size(); ++i) {
    std::string arg = args[i];
    if (!options_ended && arg == "--") {
      options_ended = true;
      continue;
    }
    if (!options_ended && arg.size() > 1 && arg[0] == '-') {
      std::string value;
      bool has_inline_value = false;
      if (size_t equals = arg.find('='); arg.rfind("--", 0) == 0 && equals != std::string::npos) {
        value = arg.substr(equals + 1);
        arg = arg.substr(0, equals);
        has_inline_value = true;
      }
      if (auto it = kShortForms.find(arg); it != kShortForms.end()) arg = it->second;
      if (kValueOptions.count(arg)) {
        if (!has_inline_value) {
          if (i + 1 >= args.size())
            throw CToolError("option " + arg + " needs a value (see signdb --help)");
          value = args[++i];
        }
        line.values[arg].push_back(value);
      } else if (kFlagOptions.count(arg) && !has_inline_value) {
        line.flags.insert(arg);
      } else {
        throw CToolError("unknown option " + args[i] + " (see signdb --help)");
      }
      continue;
    }
    if (line.command.empty()) {
      line.command = arg;
    } else {
      line.arguments.push_back(arg);
    }
  }
  return line;
}

void RequireShape(const CCommandLine& line, const std::set<std::string>& options,
                  size_t min_arguments, size_t max_arguments) {
  // Every command takes the global options.
  static const std::set<std::string> kGlobal = {"--config", "--module", "--help",
                                                "--quiet",  "--wait",   "--passphrase-fd"};
  auto check = [&](const std::string& option) {
    if (!kGlobal.count(option) && !options.count(option)) {
      throw CToolError("signdb " + line.command + " does not take " + option + " (see signdb " +
                       line.command + " --help)");
    }
  };
  for (const auto& [option, unused] : line.values) check(option);
  for (const std::string& flag : line.flags) check(flag);
  if (line.arguments.size() < min_arguments) {
    throw CToolError("signdb " + line.command + " needs more arguments (see signdb " +
                     line.command + " --help)");
  }
  if (line.arguments.size() > max_arguments) {
    throw CToolError("signdb " + line.command + ": unexpected argument '" +
                     line.arguments[max_arguments] + "' (see signdb " + line.command + " --help)");
  }
}
