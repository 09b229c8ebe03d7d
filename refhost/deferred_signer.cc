#include "refhost/deferred_signer.h"

#include <vector>

#include "refhost/file_io.h"
#include "util/text_conversion.h"

bool CDeferredSigner::Sign(const std::wstring& path, std::string& result, uint32_t, uint32_t) {
  try {
    std::vector<uint8_t> bytes = ReadWholeFile(WideToUtf8(path));
    RemoveFile(candidate_path_);  // the candidate of an earlier save, if there is one
    WriteNewFile(candidate_path_, bytes.data(), bytes.size());
    result = "signing deferred: the candidate is " + candidate_path_;
  } catch (const std::exception& e) {
    result = e.what();
  }
  return false;  // the module must not put an unsigned file in place
}
