// Fuzzes the readers of what a fleet store answers (it is a server on the network, and may answer
// anything): holders, hosts, change lines and drift rows, with their escapes and arrays.

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "tool/fleet/clickhouse_client.h"
#include "tool/fleet/fleet_questions.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string answer(reinterpret_cast<const char*>(data), size);
  size_t seen = 0;
  try {
    for (const CFleetHolder& holder : ReadFleetHolders(answer)) seen += holder.path.size();
  } catch (const std::runtime_error&) {
  }
  try {
    for (const CFleetHost& host : ReadFleetHosts(answer, 1800000000)) seen += host.groups.size();
  } catch (const std::runtime_error&) {
  }
  try {
    for (const CFleetChangeLine& line : ReadFleetChanges(answer)) seen += line.text.size();
  } catch (const std::runtime_error&) {
  }
  try {
    for (const CDriftPath& path : ReadFleetDrift(answer, "t", {"a", "b", "c"}))
      seen += path.others.size();
  } catch (const std::runtime_error&) {
  }
  try {
    for (const std::string& item : CClickHouseClient::ArrayItems(answer))
      seen += CClickHouseClient::UnquotedText(item).size();
  } catch (const std::runtime_error&) {
  }
  for (const std::string& field : CClickHouseClient::TabFields(answer)) seen += field.size();
  volatile size_t sink = seen;  // keeps the reads
  (void)sink;
  return 0;
}
