#include "refhost/file_status.h"

#include <acl/libacl.h>
#include <sys/acl.h>

#include <cstdio>

namespace {

std::string OwnerText(const struct stat& status) {
  char text[96];
  std::snprintf(text, sizeof text, "owner=%u group=%u mode=%04o", static_cast<unsigned>(status.st_uid),
                static_cast<unsigned>(status.st_gid), static_cast<unsigned>(status.st_mode & 07777));
  return text;
}

// Appends " acl=..." and frees the ACL; nothing when there is none.
void AppendAcl(std::string& text, acl_t acl) {
  if (acl == nullptr) return;
  char* acl_text = acl_to_any_text(acl, nullptr, ',', TEXT_ABBREVIATE | TEXT_NUMERIC_IDS);
  if (acl_text != nullptr) {
    text += " acl=";
    text += acl_text;
    acl_free(acl_text);
  }
  acl_free(acl);
}

}  // namespace

std::string SecurityAttributesText(const std::string& path, const struct stat& status) {
  std::string result = OwnerText(status);
  if (!S_ISLNK(status.st_mode) && acl_extended_file_nofollow(path.c_str()) == 1) {
    AppendAcl(result, acl_get_file(path.c_str(), ACL_TYPE_ACCESS));
  }
  return result;
}

std::string SecurityAttributesTextOfOpenFile(int fd, const struct stat& status) {
  std::string result = OwnerText(status);
  if (acl_extended_fd(fd) == 1) AppendAcl(result, acl_get_fd(fd));
  return result;
}
