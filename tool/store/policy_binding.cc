#include "tool/store/policy_binding.h"

#include <Poco/Base64Decoder.h>
#include <Poco/Base64Encoder.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <sstream>
#include <stdexcept>

#include "refhost/file_io.h"
#include "refhost/pkcs7.h"
#include "tool/common/policy_files.h"
#include "tool/store/database_files.h"

namespace {

constexpr uint64_t kLargestBinding = 1 << 20;

std::string Base64(const std::string& bytes) {
  std::ostringstream out;
  Poco::Base64Encoder encoder(out);
  encoder.rdbuf()->setLineLength(0);  // one line
  encoder << bytes;
  encoder.close();
  return out.str();
}

std::string FromBase64(const std::string& text) {
  std::istringstream in(text);
  Poco::Base64Decoder decoder(in);
  std::string bytes((std::istreambuf_iterator<char>(decoder)), std::istreambuf_iterator<char>());
  return bytes;
}

std::string RecordLine(const CPolicyBinding& binding) {
  Poco::JSON::Object record(Poco::JSON_PRESERVE_KEY_ORDER);
  record.set("policy", binding.policy);
  record.set("root", binding.root);
  record.set("host", binding.host);
  Poco::JSON::Array revisions;
  for (uint64_t revision : binding.revisions) revisions.add(RevisionText(revision));
  record.set("revisions", revisions);
  if (binding.journal_entries != 0) {
    Poco::JSON::Object journal(Poco::JSON_PRESERVE_KEY_ORDER);
    journal.set("entries", binding.journal_entries);
    journal.set("head", binding.journal_hash);
    record.set("journal", journal);
  }
  std::ostringstream out;
  record.stringify(out);
  return out.str();
}

CPolicyBinding ParseRecord(const std::string& line, const std::string& path) {
  CPolicyBinding binding;
  try {
    Poco::JSON::Object::Ptr record =
        Poco::JSON::Parser().parse(line).extract<Poco::JSON::Object::Ptr>();
    binding.policy = record->getValue<std::string>("policy");
    binding.root = record->getValue<std::string>("root");
    binding.host = record->getValue<std::string>("host");
    Poco::JSON::Array::Ptr revisions = record->getArray("revisions");
    for (size_t i = 0; revisions && i < revisions->size(); ++i) {
      binding.revisions.push_back(
          std::stoull(revisions->getElement<std::string>(static_cast<unsigned>(i)), nullptr, 16));
    }
    if (Poco::JSON::Object::Ptr journal = record->getObject("journal")) {
      binding.journal_entries = journal->getValue<uint64_t>("entries");
      binding.journal_hash = journal->getValue<std::string>("head");
    }
  } catch (const std::exception&) {
    throw std::runtime_error("the policy binding " + path + " is damaged");
  }
  return binding;
}

void WriteSignedLine(const std::string& hdb_path, const std::string& line, CRefSigner& signer) {
  std::string signature;
  if (!signer.SignBytes(reinterpret_cast<const uint8_t*>(line.data()), line.size(), signature)) {
    throw std::runtime_error("cannot sign the policy binding " + BindingFileOf(hdb_path) + ": " +
                             signature);
  }
  std::string text = line + "\n" + Base64(signature) + "\n";
  WriteWholeFile(BindingFileOf(hdb_path), text.data(), text.size());
}

}  // namespace

bool CPolicyBinding::Vouches(uint64_t revision) const {
  return std::find(revisions.begin(), revisions.end(), revision) != revisions.end();
}

void WritePolicyBinding(const std::string& hdb_path, const CPolicyBinding& binding,
                        CRefSigner& signer) {
  WriteSignedLine(hdb_path, RecordLine(binding), signer);
}

void WriteUnsignedPolicyBinding(const std::string& hdb_path, const CPolicyBinding& binding) {
  std::string text = RecordLine(binding) + "\n";
  WriteWholeFile(BindingFileOf(hdb_path), text.data(), text.size());
}

CPolicyBinding SignPolicyBinding(const std::string& hdb_path, CRefSigner& signer) {
  std::string path = BindingFileOf(hdb_path);
  std::vector<uint8_t> bytes = ReadWholeFile(path, kLargestBinding);
  std::string text(bytes.begin(), bytes.end());
  std::string line = text.substr(0, text.find('\n'));
  CPolicyBinding binding = ParseRecord(line, path);
  WriteSignedLine(hdb_path, line, signer);
  return binding;
}

std::optional<CPolicyBinding> ReadPolicyBinding(const std::string& hdb_path,
                                                CRefPkcs7Verifier& verifier) {
  std::string path = BindingFileOf(hdb_path);
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0 && errno == ENOENT) return std::nullopt;
  std::vector<uint8_t> bytes = ReadWholeFile(path, kLargestBinding);
  std::string text(bytes.begin(), bytes.end());
  size_t end_of_record = text.find('\n');
  if (end_of_record == std::string::npos)
    throw std::runtime_error("the policy binding " + path + " is damaged");
  std::string line = text.substr(0, end_of_record);
  std::string signature_text = text.substr(end_of_record + 1);
  while (!signature_text.empty() && signature_text.back() == '\n') signature_text.pop_back();
  std::string signature = FromBase64(signature_text);
  if (!verifier.ReadSignerInfo(reinterpret_cast<const uint8_t*>(signature.data()),
                               signature.size()) ||
      !verifier.Verify(reinterpret_cast<const uint8_t*>(line.data()), line.size())) {
    throw std::runtime_error("the policy binding " + path +
                             " is not signed by a trusted signer: " + verifier.reason());
  }
  return ParseRecord(line, path);
}

std::string PolicyBindingMismatch(const CPolicyBinding& binding, const CPolicyBinding& expected) {
  if (binding.policy != expected.policy) return "it belongs to policy '" + binding.policy + "'";
  if (binding.root != expected.root)
    return "it records the root " + binding.root + ", not " + expected.root;
  if (binding.host != expected.host)
    return "it was made on host '" + binding.host + "', not '" + expected.host + "'";
  return std::string();
}
