#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Who did something to a policy's baseline, as the process can tell.
struct CJournalActor {
  uint64_t uid = 0;
  std::string user;      // the name of uid, or "" when it has none
  std::string login;     // the person behind sudo (SUDO_USER), or ""
  std::string terminal;  // the controlling terminal of standard input, or ""

  // The actor of this process.
  static CJournalActor Current();
};

// One object whose change was accepted.
struct CJournalChange {
  std::string path;    // relative to the policy's root
  std::string change;  // the report's words: "new", "hash changed", "renamed", ...
  std::string from;    // a rename's old path, or ""
  std::string old_hash;
  std::string new_hash;
};

// One entry: what was done to the baseline (or to the service that keeps its live record).
struct CJournalEntry {
  uint64_t sequence = 0;  // 1 for the first entry; set by Append
  std::string time;       // ISO 8601 UTC; set by Append when empty
  std::string event;      // "scan", "replace", "accept", "accept-candidate", ...
  std::string policy;
  uint64_t revision = 0;  // the baseline's revision it made, or 0
  CJournalActor who;
  std::string command;  // the command line that did it
  std::string note;     // what else a reader needs ("replaced revision ...")
  std::vector<CJournalChange> changes;
};

// Where the journal stood: how many entries it held and the SHA-256 of the last one's line. The
// baseline's signed binding records it at every save, so that a journal that was cut, edited or
// swapped is told at the next load.
struct CJournalHead {
  uint64_t entries = 0;
  std::string hash;  // "" when there are no entries

  bool operator==(const CJournalHead&) const = default;
};

// A policy's accept journal: one JSON line per entry, appended, never rewritten. Each line holds
// the SHA-256 of the line before it ("prev"), so that an entry edited or taken out breaks the
// chain. Names that are not valid UTF-8 are kept in hexadecimal beside their readable form, so a
// hostile name reads back exactly and can forge no line.
//
// Appends take turns on the journal's own lock (flock), whoever makes them; readers need none (a
// line being written is not an entry until its newline is there).
class CAcceptJournal {
 public:
  explicit CAcceptJournal(std::string path) : path_(std::move(path)) {}
  const std::string& path() const { return path_; }

  // Appends the entry (its sequence and, when empty, its time are set here), synced to disk;
  // returns the head after it. Throws std::runtime_error when the journal cannot be read or
  // written, or its chain is broken (nothing is appended to a broken journal).
  CJournalHead Append(CJournalEntry& entry);
  // Every entry, in order; throws std::runtime_error naming the first line that breaks the chain
  // or cannot be read. A journal that does not exist has no entries.
  std::vector<CJournalEntry> Read() const;
  // The head now (every entry); throws as Read does.
  CJournalHead Head() const;
  // What keeps the journal from being the one "expected" was recorded with (its first
  // "expected.entries" entries ending in "expected.hash"), as a sentence; "" when it is.
  std::string Mismatch(const CJournalHead& expected) const;

 private:
  // The lines, each checked against the one before; the head after each is in "heads", and the
  // bytes the whole lines take in "whole_bytes".
  std::vector<std::string> CheckedLines(std::vector<CJournalHead>* heads,
                                        uint64_t* whole_bytes) const;
  std::vector<std::string> ChainedLines(std::string text, std::vector<CJournalHead>* heads,
                                        uint64_t* whole_bytes) const;

  std::string path_;
};
