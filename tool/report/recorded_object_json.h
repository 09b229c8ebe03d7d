#pragma once

#include <string>

class CHashDB;

// What the database records of the object at "full_path" (narrow "full_text", "relative" to the
// root), as one JSON object: path, relative, kind, size, hash, attributes, both times, security
// text and its items, link target, whether it lies under a link target and was touched recently.
// The object must be recorded.
std::string RecordedObjectJson(CHashDB& database, const std::wstring& full_path,
                               const std::string& full_text, const std::string& relative);
