#pragma once

#include <memory>

// The process-wide strong reference to the module's one instance of T. Empty until set once by
// init; released only when the module is unloaded (static destruction).
template <typename T>
class global_cls_base {
 public:
  static std::shared_ptr<T>& instance() { return instance_; }

 private:
  inline static std::shared_ptr<T> instance_;
};
