#pragma once

#include <cstdint>
#include <string>
#include <vector>

// One monitored root directory.
struct CRefPolicySettings {
  std::string name;
  std::string root;
  uint64_t touch_period_s = 0;
  uint64_t db_touch_period_s = 0;
  bool fold_case = false;
  bool index_enabled = true;
};

// Everything the reference host is configured with. Defaults are usable as they stand.
struct CRefSettings {
  std::string data_dir = ".";
  // Digest of file hashes and identifier of the HDB header: the digest's length in bits
  // (160 SHA-1, 224, 256, 384, 512 SHA-2).
  uint32_t policy_number = 256;
  uint64_t restore_time_limit_ms = 600000;
  uint32_t threads = 0;  // 0: the hardware threads
  std::string log_file;  // empty: no file
  bool log_console = true;
  std::string log_level = "information";
  std::string catalogue;  // message catalogue (JSON object key -> text); empty: English keys
  std::string signer_certificate;
  std::string signer_key;
  std::string signer_chain;  // the trust anchor: CA certificate(s)
  std::string local_cstm_id;
  std::string local_lcs_id;
  std::string sed_text;  // empty: a text naming this host
  std::vector<CRefPolicySettings> policies;
};

// Reads a configuration file (".json", or ".ini"/".properties" through POCO Util). Relative file
// names inside it are taken relative to the file's own folder. Throws std::runtime_error with the
// file name and the reason when the file is missing or malformed.
CRefSettings LoadSettings(const std::string& file);
