#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class CHashNode;

// What rebuilding a database's tree from saved records needs of the database: the HDB file loader
// receives these operations, and nothing else of the database, for one load. Restore tasks call
// them from several threads at once while the loading thread holds the tree lock exclusively;
// node creation relies on the nodes' own locks.
class CTreeBuilder {
 public:
  // A node and the hash object that a record gave it.
  using CAssignments = std::vector<std::pair<std::shared_ptr<CHashNode>, std::shared_ptr<std::string>>>;

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
  virtual void PreparePiece(CAssignments& piece) = 0;
  // Indexes the hashes that the records gave, once every piece has been read and prepared.
  virtual void IndexRestored(std::vector<CAssignments>& pieces) = 0;
};
