#include "refhost/file_status.h"

#include <acl/libacl.h>
#include <sys/acl.h>

#include <cstdio>

std::string SecurityAttributesText(const std::string& path, const struct stat& status) {
  char text[96];
  std::snprintf(text, sizeof text, "owner=%u group=%u mode=%04o", static_cast<unsigned>(status.st_uid),
                static_cast<unsigned>(status.st_gid), static_cast<unsigned>(status.st_mode & 07777));
  std::string result = text;
  if (!S_ISLNK(status.st_mode) && acl_extended_file_nofollow(path.c_str()) == 1) {
    acl_t acl = acl_get_file(path.c_str(), ACL_TYPE_ACCESS);
    if (acl != nullptr) {
      char* acl_text = acl_to_any_text(acl, nullptr, ',', TEXT_ABBREVIATE | TEXT_NUMERIC_IDS);
      if (acl_text != nullptr) {
        result += " acl=";
        result += acl_text;
        acl_free(acl_text);
      }
      acl_free(acl);
    }
  }
  return result;
}
