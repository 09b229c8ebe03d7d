#pragma once

#include <memory>
#include <string>

#include "host/cfg_service.h"

struct CRefSettings;

// A description with a name; the reference host keeps nothing else in it.
class CRefDescription : public CDescription {
 public:
  std::string Name() override { return name_; }
  void SetName(const std::string& name) override { name_ = name; }

 private:
  std::string name_;
};

class CRefDescriptionFactory : public CDescriptionFactory {
 public:
  void NewDescription(std::shared_ptr<CDescription>& out) override {
    out = std::make_shared<CRefDescription>();
  }
};

// Path rules are lexical, on normalised components ("." dropped, ".." applied, repeated and
// trailing separators ignored); nothing touches the disk.
class CRefCfgService : public CCfgService {
 public:
  explicit CRefCfgService(const CRefSettings& settings);

  std::wstring SignerCertificate() override;
  std::wstring SignerKey() override;
  std::wstring SignerChain() override;
  // Identity, or Unicode lower case when the policy's volume folds case.
  std::string NormaliseName(const std::string& name, bool fold_case) override;
  std::wstring RelativePath(const std::wstring& root, const std::wstring& full) override;
  bool SamePath(const std::wstring& a, const std::wstring& b) override;
  bool PathAtOrBelow(const std::wstring& base, const std::wstring& path) override;
  const std::shared_ptr<CDescriptionFactory>& DescriptionFactory() override;

 private:
  std::wstring certificate_;
  std::wstring key_;
  std::wstring chain_;
  std::shared_ptr<CDescriptionFactory> description_factory_;
};
