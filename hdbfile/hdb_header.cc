#include "hdbfile/hdb_header.h"

#include "hdbfile/big_endian.h"

void CHdbHeader::EncodeTo(uint8_t* out) const {
  EncodeBigEndian64(out + kHeaderMagicOffset, magic);
  EncodeBigEndian32(out + kHeaderVersionOffset, version);
  EncodeBigEndian32(out + kHeaderPlatformOffset, platform_flag);
  EncodeBigEndian32(out + kHeaderSecondFlagOffset, second_flag);
  EncodeBigEndian32(out + kHeaderLengthOffset, header_length);
  EncodeBigEndian32(out + kHeaderPolicyNumberOffset, policy_number);
  EncodeBigEndian32(out + kHeaderPolicyValueOffset, policy_value);
  EncodeBigEndian64(out + kHeaderNodeCountOffset, node_count);
  EncodeBigEndian64(out + kHeaderRevisionOffset, revision);
}

CHdbHeader CHdbHeader::DecodeFrom(const uint8_t* in) {
  CHdbHeader header;
  header.magic = DecodeBigEndian64(in + kHeaderMagicOffset);
  header.version = DecodeBigEndian32(in + kHeaderVersionOffset);
  header.platform_flag = DecodeBigEndian32(in + kHeaderPlatformOffset);
  header.second_flag = DecodeBigEndian32(in + kHeaderSecondFlagOffset);
  header.header_length = DecodeBigEndian32(in + kHeaderLengthOffset);
  header.policy_number = DecodeBigEndian32(in + kHeaderPolicyNumberOffset);
  header.policy_value = DecodeBigEndian32(in + kHeaderPolicyValueOffset);
  header.node_count = DecodeBigEndian64(in + kHeaderNodeCountOffset);
  header.revision = DecodeBigEndian64(in + kHeaderRevisionOffset);
  return header;
}
