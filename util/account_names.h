#pragma once

#include <cstdint>
#include <string>

// The names of numeric owners and groups, looked up once each (getpwuid_r, getgrgid_r) and kept;
// empty when the system has no name for the number. Safe from several threads.
std::string UserName(uint32_t uid);
std::string GroupName(uint32_t gid);

// The same for a numeric id given as text, as the security attributes carry it; empty for a text
// that is not a number or has no name.
std::string UserNameOf(const std::string& uid);
std::string GroupNameOf(const std::string& gid);
