#pragma once

#include <memory>
#include <stdexcept>

// Texts of the failures when the host does not offer a service that an owner needs.
inline constexpr const char* kBadUtilityInit = "bad utility init!";
inline constexpr const char* kBadCryptoInit = "bad crypto init!";
inline constexpr const char* kBadCfgInit = "bad cfg init!";
inline constexpr const char* kBadLocaleInit = "bad locale init!";
inline constexpr const char* kBadLogInit = "bad log init!";
inline constexpr const char* kBadCfgExInit = "bad cfgex init!";

// Copies a service pointer that the host returned; an empty one throws "missing" as
// std::runtime_error, so the owner under construction is not built.
template <typename Service>
std::shared_ptr<Service> FetchService(const std::shared_ptr<Service>& from_host,
                                      const char* missing) {
  std::shared_ptr<Service> copy = from_host;
  if (!copy) throw std::runtime_error(missing);
  return copy;
}
