#pragma once

#include <memory>
#include <string>

class CDescription;

// What the host builds for the front from a description; opaque to the module.
class CReadContext {
 public:
  virtual ~CReadContext() = default;
  virtual std::string Name() = 0;  // slot 0: the name of the description it was built from
};

class CReadContextBuilder {
 public:
  virtual ~CReadContextBuilder() = default;
  // slot 0: builds a read context from a description.
  virtual std::shared_ptr<CReadContext> Build(const std::shared_ptr<CDescription>& description) = 0;
};
