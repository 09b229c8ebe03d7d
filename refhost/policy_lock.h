#pragma once

#include <string>

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

  // Takes the lock for the database at "hdb_path". Without "wait", throws std::runtime_error
  // naming the holder when another process holds a conflicting lock. A shared lock on a data
  // folder where the lock file cannot be created (a read-only medium) is not taken: nobody can
  // write the database there.
  CPolicyLock(const std::string& hdb_path, const std::string& policy_name, CMode mode, bool wait);
  ~CPolicyLock();
  CPolicyLock(const CPolicyLock&) = delete;
  CPolicyLock& operator=(const CPolicyLock&) = delete;

  CMode mode() const { return mode_; }

 private:
  int fd_ = -1;
  CMode mode_;
};
