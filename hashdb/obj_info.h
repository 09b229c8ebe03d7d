#pragma once

#include <cstdint>
#include <memory>
#include <string>

// What the client knows about one file-system object, handed to insert and to the object check.
// Implemented by the client; the database calls only the operations below (slot order).
class CObjInfo {
 public:
  virtual ~CObjInfo() = default;
  virtual bool IsDirectory() = 0;                  // slot 2
  virtual std::wstring RelativePath() = 0;         // slot 5: relative to the database's root
  virtual std::wstring Path() = 0;                 // slot 6: for messages
  virtual bool IsGone() = 0;                       // slot 7: the object no longer exists
  virtual std::wstring TargetWidePath() = 0;       // slot 8: the link target as a path
  virtual uint64_t Size() = 0;                     // slot 17
  virtual uint64_t Time1() = 0;                    // slot 18
  virtual uint64_t Time2() = 0;                    // slot 19
  virtual uint32_t Attributes() = 0;               // slot 20
  virtual std::string HashText() = 0;              // slot 22: may be empty
  virtual std::string SecurityAttributes() = 0;    // slot 23
  virtual std::string Description() = 0;           // slot 25: names the object in messages
  virtual std::string TargetPath() = 0;            // slot 26: usually empty
  // slot 36: receives the hash that the database recorded for the object.
  virtual void TakeRecordedHash(const std::shared_ptr<std::string>& hash) = 0;
};
