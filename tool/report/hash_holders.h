#pragma once

#include <string>
#include <vector>

class CHashDB;

// Every unmarked file of the database that carries "hash", as full paths: the database answers
// one at a time, so each answer is marked until none is left. With "unmark", the marks are taken
// back afterwards (a database that lives on, the watch service's); otherwise they stay (a run's
// own copy, never saved).
std::vector<std::wstring> HoldersOf(CHashDB& database, const std::string& hash, bool unmark);
