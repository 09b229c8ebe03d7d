#pragma once

#include <map>
#include <string>
#include <vector>

// The fleet spool in the data folder (DATA/fleet-spool, owner-only): batches written whole before
// they are sent, and taken out only once the store took them, oldest first. A batch is a folder
// of TabSeparated bodies, one per table it fills ("records.tsv", "holders.tsv", "changes.tsv",
// "hosts.tsv"), written aside and moved in whole: a batch in the spool is always complete.
//
// Processes share the spool (a scan and the watch service): who writes to it holds its write lock
// (flock on DATA/fleet-spool/lock), so that a policy's publications are spooled in the order of
// their sequence, and who delivers holds its delivery lock (DATA/fleet-spool/delivery), so that a
// batch is sent by one at a time. A batch may be dropped (the spool's bound) while it is sent:
// what was sent stands, and the next publication is whole.
class CFleetSpool {
 public:
  // The tables in the order a batch is sent: the host's publication last, so that a question
  // never sees a publication before its records.
  static const std::vector<std::string>& Tables();

  explicit CFleetSpool(std::string data_folder);

  const std::string& folder() const { return folder_; }

  // Writes a batch (table name -> body; empty bodies are left out) and returns its name. Names
  // sort in the order batches were written. Throws std::runtime_error when it cannot be written.
  std::string Write(const std::map<std::string, std::string>& bodies);

  // The batches waiting, oldest first.
  std::vector<std::string> Batches() const;
  // Whether the batch holds a snapshot of records (a batch of change lines only does not).
  bool HoldsRecords(const std::string& batch) const;
  // The body of one table of a batch ("" when the batch has none or is gone).
  std::string Body(const std::string& batch, const std::string& table) const;
  void Remove(const std::string& batch);

  // A file of the spool's own (a policy's published state, its sequence).
  std::string PathOf(const std::string& name) const { return folder_ + "/" + name; }

 private:
  void Make() const;

  std::string folder_;
};

// One of the spool's locks, held while it lives: kWrite while batches and states are written
// (briefly), kDelivery while batches are sent (one sender at a time; a writer does not wait for
// the network). "wait": blocks until free; without it, Held() says whether it was taken.
class CFleetSpoolLock {
 public:
  enum class CKind { kWrite, kDelivery };
  CFleetSpoolLock(const CFleetSpool& spool, CKind kind, bool wait = true);
  ~CFleetSpoolLock();
  CFleetSpoolLock(const CFleetSpoolLock&) = delete;
  CFleetSpoolLock& operator=(const CFleetSpoolLock&) = delete;

  bool Held() const { return held_; }

 private:
  int fd_ = -1;
  bool held_ = false;
};
