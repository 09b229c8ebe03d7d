#pragma once

#include <string>

#include <boost/filesystem/operations.hpp>

#include "host/utility_service.h"

// Whether something exists at "path" in any form: the file status is neither an error nor
// "not found". The wide path reaches the file system through the host's narrowing, never through
// the process locale.
inline bool PathExistsInAnyForm(const std::wstring& path, [[maybe_unused]] CUtilityService& utility) {
  boost::system::error_code error;
#ifdef _WIN32
  boost::filesystem::file_status status = boost::filesystem::status(path, error);
#else
  boost::filesystem::file_status status = boost::filesystem::status(utility.ToNarrow(path), error);
#endif
  return status.type() != boost::filesystem::status_error &&
         status.type() != boost::filesystem::file_not_found;
}
