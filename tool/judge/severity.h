#pragma once

#include <string>
#include <string_view>

struct CDifference;
struct CSelection;

// Grades a difference, from what changed and where, and names what stands out about it:
//
//   critical  a setuid or setgid bit, a capability or world-writability added (to a new object or
//             an existing one), a file turned into a device or a symbolic link;
//   high      the content of an executable, a library or a kernel module, or any change in a place
//             where an intruder leaves persistence (start-up scripts, cron, systemd units, SSH
//             keys, PAM, sudoers, the account files, ld.so.preload, shell start files);
//   medium    the content of other files, who may do what with an object, what is new or gone;
//   low       times alone, and directories.
//
// A rule's severity for the path replaces the grade (what stands out is still named). The
// difference's selection has been applied: only what it reports is graded. "full_path" is the
// object's path on this system (the policy's root joined with its relative path).
void Grade(CDifference& difference, std::string_view full_path, const CSelection& selection);

// Whether an intruder's persistence is a reason to watch "full_path" (see Grade).
bool IsPersistencePlace(std::string_view full_path);
