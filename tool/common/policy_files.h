#pragma once

#include <string>

// The files the tool keeps beside a policy's database, named here and nowhere else. The module
// names the database itself (NAME.hdb in the data folder), the file a save writes before it
// replaces it (NAME.hdb.tmp) and the revision file (NAME.hdb.dff); the host names a file's
// signature (FILE.p7s). Each name below is made from the database's path, so a candidate
// (NAME.hdb.candidate) has its own binding (NAME.hdb.candidate.bind) the same way.

// The signed record that ties the database to its policy, root, host and revisions.
inline std::string BindingFileOf(const std::string& hdb_path) { return hdb_path + ".bind"; }

// Which package owned each path when the database was saved.
inline std::string PackageOwnersFileOf(const std::string& hdb_path) { return hdb_path + ".owners"; }

// The marker that a save is under way (the revisions before and being saved).
inline std::string SaveMarkerFileOf(const std::string& hdb_path) { return hdb_path + ".saving"; }

// The advisory lock that readers and writers of the policy take.
inline std::string LockFileOf(const std::string& hdb_path) { return hdb_path + ".lock"; }

// A database saved here that waits for its signature from another host.
inline std::string CandidateFileOf(const std::string& hdb_path) { return hdb_path + ".candidate"; }

// The accept journal: who accepted what into the baseline, and when.
inline std::string JournalFileOf(const std::string& hdb_path) { return hdb_path + ".journal"; }

// The name under which the module keeps the watch service's live record of a policy (NAME.live.hdb
// beside NAME.hdb): what the service sees of the tree now, never the baseline.
inline std::string LiveRecordName(const std::string& policy_name) { return policy_name + ".live"; }

// The name under which the module keeps the database that the last save replaced
// (NAME.previous.hdb beside NAME.hdb).
inline std::string PreviousDatabaseName(const std::string& policy_name) {
  return policy_name + ".previous";
}
