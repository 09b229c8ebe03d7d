#pragma once

#include <map>
#include <span>
#include <string>
#include <string_view>

// The security attributes text that the reference host records for each object on POSIX: every
// property an attacker may change besides content and times, as `key=value` items in ascending
// byte order of their keys, separated by one space:
//
//   acl.access=u::rw-,u:1000:r--,g::r--,m::r--,o::r-- caps=cap_net_raw=ep flags=ai gid=0
//   inode=1234 mode=4755 nlink=2 uid=0 xattr.user.note="hello%20world"
//
// Keys and values are escaped so that the text stays one line of printable ASCII that no value
// can forge: every byte below 0x21 or above 0x7E, and '%', is written as %XX (two uppercase hex
// digits); a key also escapes '='. A reader splits items at spaces and each item at its first '='.
//
// clang-format off
// Keys, each present only when it applies:
//   uid, gid              numeric owner and group
//   mode                  permission bits with setuid, setgid and sticky, four octal digits
//   nlink                 hard-link count (not for directories, whose count follows their subfolders)
//   inode                 inode number
//   device                major,minor of a character or block device
//   acl.access            extended POSIX access ACL (entries as getfacl abbreviates them, numeric ids)
//   acl.default           default ACL of a directory
//   caps                  file capabilities as getcap shows them ("cap_net_raw=ep")
//   selinux               the SELinux label
//   flags                 inode flags as lsattr letters, in lsattr's order ("ia": immutable, append-only)
//   xattr.NAMESPACE.NAME  any other extended attribute in the security., trusted. and user.
//                         namespaces: "text" in double quotes when printable, else 0x and hex
// clang-format on
namespace security_text {

constexpr const char* kUid = "uid";
constexpr const char* kGid = "gid";
constexpr const char* kMode = "mode";
constexpr const char* kLinkCount = "nlink";
constexpr const char* kInode = "inode";
constexpr const char* kDevice = "device";
constexpr const char* kAccessAcl = "acl.access";
constexpr const char* kDefaultAcl = "acl.default";
constexpr const char* kCapabilities = "caps";
constexpr const char* kSelinux = "selinux";
constexpr const char* kFlags = "flags";
constexpr const char* kXattrPrefix = "xattr.";

// The inode flags that "flags" records, in lsattr's order: the FS_IOC_GETFLAGS bit, the letter
// and the word of lsattr -l. Three that the file system sets by itself as an object grows are left
// out, since they say nothing about what someone did: extents (e), an indexed directory (I) and
// inline data (N).
struct CInodeFlag {
  unsigned long bit;
  char letter;
  const char* name;
};
std::span<const CInodeFlag> InodeFlags();
// The word of a flag's letter; "unknown" for a letter that is none of them.
const char* InodeFlagName(char letter);

// Escapes a key (which also escapes '=') or a value.
std::string EscapeKey(std::string_view key);
std::string EscapeValue(std::string_view value);
// Undoes either escape; a '%' not followed by two hex digits stays as it is.
std::string Unescape(std::string_view text);

// An extended attribute's value as recorded: "text" when every byte is printable ASCII (one
// trailing NUL, as labels carry, is dropped), else 0x followed by lowercase hex.
std::string XattrValueText(std::string_view bytes);

// Key -> value (unescaped). Built in any order; Text() writes it sorted, escaped.
using CSecurityItems = std::map<std::string, std::string>;
std::string Text(const CSecurityItems& items);

// The items of a recorded text. An older form that the tool wrote before
// ("owner=UID group=GID mode=OOOO[ acl=...]") is read into the same keys (uid, gid, mode,
// acl.access) with "legacy" set, so that a report can still say what changed.
CSecurityItems Parse(std::string_view text, bool* legacy = nullptr);

}  // namespace security_text
