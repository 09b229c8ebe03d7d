// Loading, saving and the signature check of HDB files.

#include <stdexcept>

#include "hashdb/hash_db_impl.h"

bool CHashDBImpl::VerifySignature(const std::string&, const std::shared_ptr<CBuffer>&,
                                  const std::shared_ptr<CBuffer>&) {
  throw std::logic_error("[hdbi,hpv] HDB signatures are not supported by this build");
}

bool CHashDBImpl::Load(const std::atomic<bool>*, bool, const std::string&,
                       const std::shared_ptr<CBuffer>&, const std::shared_ptr<CBuffer>&) {
  throw std::logic_error("[hdbi,rmhdfd] HDB loading is not supported by this build");
}

void CHashDBImpl::Save() {
  throw std::logic_error("[HDBI,smhdtd] HDB saving is not supported by this build");
}
