#pragma once

#include <memory>
#include <string>

#include "hashdb/hash_db.h"

class CHashNode;

// What writing a database's tree out needs of the database: the HDB file saver receives these
// operations, and nothing else of the database, for one save. The caller holds the tree lock
// shared for the whole save.
class CTreeSource {
 public:
  virtual ~CTreeSource() = default;

  // Visits every node, the root included, on the worker pool; returns when all have been visited.
  virtual void VisitAll(const std::string& prefix, const std::shared_ptr<CNodeVisitor>& visitor) = 0;
};
