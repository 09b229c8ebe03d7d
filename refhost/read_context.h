#pragma once

#include <memory>
#include <string>

#include "host/cfg_service.h"
#include "host/read_context.h"

// The reference host's read context only remembers the description it was built from.
class CRefReadContext : public CReadContext {
 public:
  explicit CRefReadContext(std::string name) : name_(std::move(name)) {}
  std::string Name() override { return name_; }

 private:
  std::string name_;
};

class CRefReadContextBuilder : public CReadContextBuilder {
 public:
  std::shared_ptr<CReadContext> Build(const std::shared_ptr<CDescription>& description) override {
    return std::make_shared<CRefReadContext>(description ? description->Name() : std::string());
  }
};
