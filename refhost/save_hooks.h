#pragma once

#include <cstdint>
#include <string>
#include <vector>

class CRefHost;

// What the tool asks of the reference host around a save of the module, beyond what any host
// offers. The module saves, signs and names revisions through the host's services; the tool,
// which must be able to tell an interrupted save from a database put back, to sign on another
// host, and to say why a load was refused, steers those services through these hooks alone.
class CSaveHooks {
 public:
  explicit CSaveHooks(CRefHost& host) : host_(host) {}

  // The revision the next save writes is "revision": the tool learns it before the save, so that
  // a save killed half way is recognised by its revision afterwards.
  void PresetNextRevision(uint64_t revision);
  // Until SignHere, the module's signature only keeps the file to be signed as "candidate_path",
  // for signing on another host; the save then declines at its signature.
  void DeferSigningTo(const std::string& candidate_path);
  void SignHere();
  // The passphrase of a protected signer key, given to every signer the module makes from now on.
  void SetSignerPassphrase(const std::string& passphrase);
  // The module's warnings and errors are kept from now on, for TakeProblems.
  void KeepProblems();
  // The warnings and errors kept since the last call, one per line.
  std::vector<std::string> TakeProblems();

 private:
  CRefHost& host_;
};
