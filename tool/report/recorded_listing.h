#pragma once

#include <Poco/JSON/Object.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tool/change/object_state.h"

class CHashDB;
struct CRefPolicySettings;

// One object of a listing of what a database records (signdb ls).
struct CListedObject {
  std::string relative;  // its path relative to the policy's root
  CObjectState state;
};

// The objects recorded in "directory" (relative to the root, "" for the root itself), or at every
// depth below it with "recursive", by path. Throws CToolError when no such directory is recorded.
std::vector<CListedObject> ListRecorded(const CRefPolicySettings& policy, CHashDB& database,
                                        const std::string& directory, bool recursive);

// One object as a JSON line of `ls --json`: path, kind, size, hash, attributes (when known),
// target (a link's).
std::string ListedJson(const CListedObject& object);
// The object back from such a line, as the watch service sends it.
CListedObject ListedFromJson(const Poco::JSON::Object::Ptr& line);
// One object as a line of `ls`: mode, size, hash (blank for none, "hash_width" wide), path.
std::string ListedText(const CListedObject& object, size_t hash_width);
