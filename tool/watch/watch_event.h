#pragma once

#include <string>

// One change below a policy's root, as a watcher of the kernel's file events reports it. Paths
// are relative to the root ("" is the root itself), with "/" between components.
struct CWatchEvent {
  enum class CKind {
    kWritten,     // content written: read and hash it once the writing settles
    kAttributes,  // mode, owner, ACL, extended attributes or times changed
    kCreated,     // a new object (a file is read once its writing settles)
    kRemoved,     // gone, with everything below it
    kMoved,       // renamed or moved within the tree: "from" is where it was
    kLost,        // the kernel dropped events (its queue overflowed): what changed is unknown
  };

  CKind kind = CKind::kWritten;
  std::string path;
  std::string from;
  bool directory = false;
};

// The event's name in the change log and the status ("written", "moved"...).
const char* EventKindName(CWatchEvent::CKind kind);
