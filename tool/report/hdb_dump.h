#pragma once

#include <cstdint>
#include <ostream>
#include <string>

// Prints an HDB file's header and every record, in words or as one JSON object per line. Reads
// only; any file is safe to give it. Returns false, after printing what could be read, when the
// file is not a well-formed HDB file; "problem" then says where and why.
bool DumpHdb(const uint8_t* data, uint64_t size, bool json, std::ostream& out,
             std::string& problem);
