#include <gtest/gtest.h>

#include "hdbfile/big_endian.h"
#include "hdbfile/hdb_header.h"
#include "hdbfile/hdb_record.h"

namespace {
std::vector<uint8_t> Hex(const std::string& text) {
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i + 1 < text.size(); i += 2) {
    if (text[i] == ' ') {
      --i;
      continue;
    }
    bytes.push_back(static_cast<uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}
}  // namespace

TEST(BigEndianTest, FieldsAreMostSignificantByteFirst) {
  uint8_t bytes[8];
  EncodeBigEndian64(bytes, 0xE525EA2D6D0E4424ull);
  EXPECT_EQ(Hex("E525EA2D6D0E4424"), std::vector<uint8_t>(bytes, bytes + 8));
  EXPECT_EQ(0xE525EA2D6D0E4424ull, DecodeBigEndian64(bytes));
  EncodeBigEndian32(bytes, 0xFAFBFCFD);
  EXPECT_EQ(Hex("FAFBFCFD"), std::vector<uint8_t>(bytes, bytes + 4));
  EncodeBigEndian16(bytes, 0x0102);
  EXPECT_EQ(0x0102, DecodeBigEndian16(bytes));
}

TEST(HdbHeaderTest, EncodesEveryFieldAtItsOffset) {
  CHdbHeader header;
  header.platform_flag = 1;
  header.second_flag = 1;
  header.policy_number = 256;
  header.policy_value = 672;
  header.node_count = 3;
  header.revision = 0x0102030405060708ull;
  uint8_t bytes[48];
  header.EncodeTo(bytes);
  EXPECT_EQ(Hex("E525EA2D6D0E4424 00000082 00000001 00000001 00000030 00000100 000002A0"
                " 0000000000000003 0102030405060708"),
            std::vector<uint8_t>(bytes, bytes + 48));
  CHdbHeader back = CHdbHeader::DecodeFrom(bytes);
  EXPECT_EQ(header.revision, back.revision);
  EXPECT_EQ(header.node_count, back.node_count);
  EXPECT_EQ(header.policy_value, back.policy_value);
}

TEST(HdbRecordTest, EncodesTheFixedPartExactly) {
  CHdbRecordHeader record;
  record.directory = 1;
  record.attributes = 0x41ED;
  record.time_1 = 1;
  record.time_2 = 2;
  record.hash_length = 32;
  record.path_length = 5;
  record.security_length = 0x1234;
  record.target_length = 7;
  record.size = 0x10;
  uint8_t bytes[41];
  record.EncodeTo(bytes);
  EXPECT_EQ(Hex("29 01 000041ED 0000000000000001 0000000000000002 20 0005 1234 0007"
                " 0000000000000010 FAFBFCFD"),
            std::vector<uint8_t>(bytes, bytes + 41));
  EXPECT_EQ(32u + 5u + 0x1234u + 7u, CHdbRecordHeader::DecodeFrom(bytes).VariableLength());
}

TEST(HdbRecordTest, ARecordStartNeedsTheMarkTheEndMarkAnd41Bytes) {
  std::vector<uint8_t> data(100, 0);
  CHdbRecordHeader().EncodeTo(data.data() + 10);
  EXPECT_TRUE(IsRecordStart(data.data() + 10, data.data() + data.size()));
  EXPECT_FALSE(IsRecordStart(data.data() + 10, data.data() + 50));  // 40 bytes left
  EXPECT_TRUE(IsRecordStart(data.data() + 10, data.data() + 51));
  EXPECT_EQ(data.data() + 10, FindRecordStart(data.data(), data.data() + data.size()));
  EXPECT_EQ(data.data() + 100, FindRecordStart(data.data() + 11, data.data() + data.size()));
  data[10] = 0x28;
  EXPECT_FALSE(IsRecordStart(data.data() + 10, data.data() + data.size()));
  data[10] = 0x29;
  data[47] = 0;
  EXPECT_FALSE(IsRecordStart(data.data() + 10, data.data() + data.size()));
  EXPECT_EQ(data.data() + 5, FindRecordStart(data.data() + 5, data.data() + 5));
}
