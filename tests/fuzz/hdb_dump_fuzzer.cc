// Fuzzes the tool's HDB dump, which reads any file a user names: whole files, header included.

#include <cstdint>
#include <sstream>
#include <string>

#include "tool/report/hdb_dump.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  for (bool json : {false, true}) {
    std::ostringstream out;
    std::string problem;
    bool ok = DumpHdb(data, size, json, out, problem);
    if (ok != problem.empty()) __builtin_trap();  // a refusal always says why, and only a refusal
  }
  return 0;
}
