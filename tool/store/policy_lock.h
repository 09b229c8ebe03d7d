#pragma once

#include <stdexcept>
#include <string>

// A policy's lock is held elsewhere: who holds it, for the caller to say more than the message
// ("... try again when it has finished, or add --wait") does.
class CPolicyLockBusy : public std::runtime_error {
 public:
  // "holder": the holder's process id, or 0 when unknown.
  CPolicyLockBusy(const std::string& policy_name, int holder, bool writer);
  int holder() const { return holder_; }
  // "policy 'NAME' is being read by process N" (written, another process).
  const std::string& holding() const { return holding_; }

 private:
  CPolicyLockBusy(std::string holding, int holder);

  int holder_;
  std::string holding_;
};

// An advisory lock on one policy's files in the data folder, held for as long as the object
// lives: exclusive for a run that writes the database (scan, update), shared for runs that only
// read it, so that a reader never sees a save half done and two writers never interleave.
//
// The lock is a POSIX record lock (fcntl) on "HDB_PATH.lock", which is created owner-only and
// never followed when it is a symbolic link. A lock that is held elsewhere is reported with the
// holder's process id, or waited for. The kernel releases the lock when its process ends, however
// it ends, so a killed run never leaves a stale lock behind.
class CPolicyLock {
 public:
  enum class CMode { kShared, kExclusive };

  // Takes the lock for the database at "hdb_path". Without "wait", throws CPolicyLockBusy
  // naming the holder when another process holds a conflicting lock. A shared lock on a data
  // folder where the lock file cannot be created (a read-only medium) is not taken: nobody can
  // write the database there.
  CPolicyLock(const std::string& hdb_path, const std::string& policy_name, CMode mode, bool wait);
  ~CPolicyLock();
  CPolicyLock(const CPolicyLock&) = delete;
  CPolicyLock& operator=(const CPolicyLock&) = delete;

  CMode mode() const { return mode_; }
  // Turns the lock held into the other mode: a long-running writer that lets readers in between
  // its saves holds it shared and makes it exclusive while it saves. Without "wait", returns false
  // when another process holds a conflicting lock (the lock held stays as it was); with it, waits.
  // Throws std::runtime_error when there is no lock to change (see the constructor).
  bool Change(CMode mode, bool wait);

 private:
  int fd_ = -1;
  CMode mode_;
};
