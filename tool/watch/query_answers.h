#pragma once

#include <memory>
#include <string>
#include <vector>

class CPolicyWatch;

// What the watch service answers to a query (see query_protocol.h), read from the databases it
// keeps: its status, the holders of a hash, one recorded object, a directory's listing, and what
// is pending.
//
// Not thread-safe: the service's one thread asks it, between its other work.
class CQueryAnswers {
 public:
  // "change_log": where the service logs its changes; "system_log" and "standard_output": whether
  // they reach the system log and standard output too; "change_lines": what the configuration
  // asked (a status says all of it).
  CQueryAnswers(const std::vector<std::unique_ptr<CPolicyWatch>>& watches, std::string change_log,
                bool system_log, bool standard_output, std::string change_lines)
      : watches_(watches),
        change_log_(std::move(change_log)),
        system_log_(system_log),
        standard_output_(standard_output),
        change_lines_(std::move(change_lines)) {}

  // One request line (which may be anything a client sent) → one answer line.
  std::string Answer(const std::string& line);

 private:
  std::string Status();
  // Every file of the watched policies that carries the hash.
  std::string Lookup(const std::string& hash);
  std::string Show(CPolicyWatch& watch, const std::string& path);
  std::string List(CPolicyWatch& watch, const std::string& path, bool recursive);
  // What differs between the policy's live record and its baseline.
  std::string Pending(CPolicyWatch& watch);
  CPolicyWatch* Find(const std::string& name);

  const std::vector<std::unique_ptr<CPolicyWatch>>& watches_;
  std::string change_log_;
  bool system_log_;
  bool standard_output_;
  std::string change_lines_;
};
