// The signature check of HDB data: plausible sizes, a signer of the same customer but not the
// local installation itself, and a valid detached PKCS#7 signature over every byte.

#include "hashdb/hash_db_impl.h"
#include "hdbfile/hdb_format.h"
#include "host/buffer.h"
#include "host/crypto_service.h"
#include "host/message.h"
#include "host/utility_service.h"

bool CHashDBImpl::VerifySignature(const std::string& hdb_path, const std::shared_ptr<CBuffer>& hdb,
                                  const std::shared_ptr<CBuffer>& signature) {
  if (!hdb || !signature) {
    LogError(*log_, Compose(*this, "[hdbi,hpv] Bad logic! [HDB]=", hdb_path));
    return false;
  }
  if (hdb->Size() < kHeaderSize) {
    LogError(*log_, Compose(*this, "HDB file size NOT correct,current=", hdb->Size(),
                            LKey{",expected="}, kHeaderSize, LKey{" [HDB]="}, hdb_path));
    return false;
  }
  if (signature->Empty()) {
    LogError(*log_, Compose(*this, "HDB PKCS#7 digital signature file size NOT correct,current=",
                            signature->Size(), LKey{" [HDB]="}, hdb_path));
    return false;
  }
  std::shared_ptr<CPkcs7Verifier> verifier = crypto_->MakeVerifier();
  if (!verifier || !verifier->ReadSignerInfo(signature->Data(), signature->Size())) {
    LogError(*log_, Compose(*this, "HDB file PKCS#7 digital signature verify failure! HDB file damaged!",
                            LKey{" [HDB]="}, hdb_path));
    return false;
  }
  std::string signer_lcs_id = utility_->FormatNumber(verifier->SignerLcsId());
  std::string signer_cstm_id;
  bool same_customer = verifier->SignerCstmIdMatches(signer_cstm_id);
  std::string local_cstm_id = crypto_->LocalCstmId();
  if (!same_customer) {
    LogCritical(*log_, Compose(*this, "The cstm_id of HDB signer is NOT same with local! [local cstm_id]=",
                               local_cstm_id, LKey{" [signer cstm_id]="}, signer_cstm_id,
                               LKey{" [signer lcs_id]="}, signer_lcs_id, LKey{" [HDB]="}, hdb_path));
    return false;
  }
  // A file signed under the local lcs_id is refused on purpose: files must come from another
  // signer of the same customer.
  std::string local_lcs_id = crypto_->LocalLcsId();
  if (local_lcs_id == signer_lcs_id) {
    LogCritical(*log_, Compose(*this, "The cstm_id and lcs_id of HDB signer must NOT the same with local!",
                               LKey{" [local cstm_id]="}, local_cstm_id, LKey{" [local lcs_id]="},
                               local_lcs_id, LKey{" [signer cstm_id]="}, signer_cstm_id,
                               LKey{" [signer lcs_id]="}, signer_lcs_id, LKey{" [HDB]="}, hdb_path));
    return false;
  }
  if (!verifier->Verify(hdb->Data(), hdb->Size())) {
    LogError(*log_, Compose(*this, "HDB file PKCS#7 digital signature verify failure! HDB file damaged!",
                            LKey{" [signer cstm_id]="}, signer_cstm_id, LKey{" [signer lcs_id]="},
                            signer_lcs_id, LKey{" [HDB]="}, hdb_path));
    return false;
  }
  LogInformation(*log_, Compose(*this, "HDB file PKCS#7 digital signature verify passed.",
                                LKey{" [signer cstm_id]="}, signer_cstm_id,
                                LKey{" [signer lcs_id]="}, signer_lcs_id, LKey{" [HDB]="}, hdb_path));
  return true;
}
