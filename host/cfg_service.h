#pragma once

#include <memory>
#include <string>

// A named description from which the host builds objects for the module.
class CDescription {
 public:
  virtual ~CDescription() = default;
  virtual std::string Name() = 0;                     // slot 0
  virtual void SetName(const std::string& name) = 0;  // slot 5
};

class CDescriptionFactory {
 public:
  virtual ~CDescriptionFactory() = default;
  // slot 10: fills "out" with a new description.
  virtual void NewDescription(std::shared_ptr<CDescription>& out) = 0;
};

// The host's configuration: path rules and the signer's files. Safe for concurrent use.
class CCfgService {
 public:
  virtual ~CCfgService() = default;
  // slots 26-28: the signer's certificate, private key and CA chain files.
  virtual std::wstring SignerCertificate() = 0;  // slot 26
  virtual std::wstring SignerKey() = 0;          // slot 27
  virtual std::wstring SignerChain() = 0;        // slot 28
  // slot 36 (host's choice): the key under which a name is kept among its siblings; two names
  // with one key are one object. "fold_case" is the policy's volume setting.
  virtual std::string NormaliseName(const std::string& name, bool fold_case) = 0;
  // slot 37 (host's choice): "full" relative to "root"; empty for the root itself. A path that does
  // not lie below the root comes back unchanged.
  virtual std::wstring RelativePath(const std::wstring& root, const std::wstring& full) = 0;
  // slot 39: whether two paths name the same place.
  virtual bool SamePath(const std::wstring& a, const std::wstring& b) = 0;
  // slot 40: whether "path" lies at or below "base".
  virtual bool PathAtOrBelow(const std::wstring& base, const std::wstring& path) = 0;
  // slot 107: the factory of description objects.
  virtual const std::shared_ptr<CDescriptionFactory>& DescriptionFactory() = 0;
};
