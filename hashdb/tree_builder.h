#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "hashdb/shared_text.h"

class CHashNode;

// What rebuilding a database's tree from saved records needs of the database: the HDB file loader
// receives these operations, and nothing else of the database, for one load. Restore tasks call
// them from several threads at once while the loading thread holds the tree lock exclusively;
// node creation relies on the nodes' own locks.
class CTreeBuilder {
 public:
  // A node and the (non-empty) hash object that a record gave it, with the text's first bytes
  // packed for sorting.
  struct CAssignment {
    uint64_t prefix = 0;
    std::weak_ptr<CHashNode> node;
    CSharedText hash;
  };
  // What one restore task read: its assignments, and whether a record gave a hash to a node that
  // held one already (two records of one path, in a damaged file): then each assignment must be
  // checked against the hash its node holds in the end.
  struct CPiece {
    std::vector<CAssignment> assignments;
    bool reassigned = false;
  };

  virtual ~CTreeBuilder() = default;

  // The root of the tree being built.
  virtual std::shared_ptr<CHashNode> Root() = 0;
  // The node at a relative path, with missing directories made on the way and a file on the way
  // replaced by a directory. Throws CBadObjNameError for an illegal name.
  virtual std::shared_ptr<CHashNode> MakePath(std::wstring_view relative) = 0;
  // The child "component" of "parent", made as a directory when missing (a file there is
  // replaced); "path" names the position in messages. Throws CBadObjNameError.
  virtual std::shared_ptr<CHashNode> MakeChild(const std::shared_ptr<CHashNode>& parent,
                                               std::wstring_view component, std::wstring_view path) = 0;
  // Readies one piece's assignments for the index (a restore task calls it on its own piece when
  // it ends, so that the pieces are prepared in parallel).
  virtual void PreparePiece(CPiece& piece) = 0;
  // Indexes the hashes that the records gave, once every piece has been read and prepared.
  virtual void IndexRestored(std::vector<CPiece>& pieces) = 0;
  // A security text equal to "text", shared with the other nodes that carry it.
  virtual CCompactText SecurityText(std::string_view text) = 0;
};
