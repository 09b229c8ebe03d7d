#pragma once

#include <memory>
#include <string>

class CHost;

// Counts the live instances of a class by tag in the host's process-wide map and reports each
// change as "[After New][n]:TAG" / "[After Del][n]:TAG" through the host's message output.
// One member of each counted object; the counts themselves belong to the host.
class CClassCounter {
 public:
  // Throws std::runtime_error "[kvxcc] bad glb cls!" when "host" is empty.
  CClassCounter(const std::shared_ptr<CHost>& host, const std::string& name);
  ~CClassCounter();

  CClassCounter(const CClassCounter&) = delete;
  CClassCounter& operator=(const CClassCounter&) = delete;

 private:
  // Hands "text" to the host's utility service, or to standard output without a host.
  void Report(const std::string& text) const;

  std::shared_ptr<CHost> host_;
  std::string name_;
};
