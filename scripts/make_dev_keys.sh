#!/usr/bin/env bash
# Makes a development CA, a signing certificate and a local identity for signdb, with OpenSSL.
#
#   scripts/make_dev_keys.sh OUT_DIR [CSTM_ID] [SIGNER_LCS_ID] [LOCAL_LCS_ID]
#
# The signer's cstm_id is its subject organizationName (O), its lcs_id its subject serialNumber.
# The local identity must share the cstm_id and differ in lcs_id, or signed files are refused.
# Writes OUT_DIR/{ca.pem,ca.key,signer.pem,signer.key,identity.json}; never overwrites a key.
set -euo pipefail

out="${1:?usage: make_dev_keys.sh OUT_DIR [CSTM_ID] [SIGNER_LCS_ID] [LOCAL_LCS_ID]}"
cstm_id="${2:-signdb development}"
signer_lcs_id="${3:-1001}"
local_lcs_id="${4:-1002}"

case "$signer_lcs_id$local_lcs_id" in
  *[!0-9]*) echo "make_dev_keys: lcs_id values must be decimal numbers" >&2; exit 2 ;;
esac
mkdir -p "$out"
cd "$out"
if [ -e ca.key ] || [ -e signer.key ]; then
  echo "make_dev_keys: $out already holds keys; remove them first to make new ones" >&2
  exit 2
fi
umask 077

openssl req -x509 -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -sha256 -days 3650 \
  -keyout ca.key -out ca.pem -subj "/O=${cstm_id}/CN=signdb development CA" \
  -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign" \
  2>/dev/null
openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -sha256 \
  -keyout signer.key -out signer.csr -subj "/O=${cstm_id}/serialNumber=${signer_lcs_id}/CN=signdb signer" \
  2>/dev/null
printf 'basicConstraints=CA:FALSE\nkeyUsage=critical,digitalSignature\n' > signer.ext
openssl x509 -req -in signer.csr -CA ca.pem -CAkey ca.key -CAcreateserial -sha256 -days 3650 \
  -out signer.pem -extfile signer.ext 2>/dev/null
rm -f signer.csr signer.ext ca.srl
chmod 644 ca.pem signer.pem

cat > identity.json <<JSON
{ "cstm_id": "${cstm_id}", "lcs_id": "${local_lcs_id}" }
JSON
echo "made ${out}/ca.pem, signer.pem, signer.key (cstm_id '${cstm_id}', signer lcs_id ${signer_lcs_id}) and identity.json (local lcs_id ${local_lcs_id})"
