#include "tool/report/hdb_dump.h"

#include <openssl/objects.h>

#include <cstdio>

#include "hdbfile/hdb_format.h"
#include "hdbfile/hdb_header.h"
#include "hdbfile/hdb_record.h"
#include "util/json_line.h"
#include "util/safe_text.h"
#include "util/text_conversion.h"
#include "util/text_format.h"

namespace {

std::string HexNumber(uint64_t value, int width) {
  char text[24];
  std::snprintf(text, sizeof text, "%0*llx", width, static_cast<unsigned long long>(value));
  return text;
}

std::string DigestName(uint32_t nid) {
  const char* name = OBJ_nid2sn(static_cast<int>(nid));
  return name ? name : "unknown";
}

void PrintHeader(const CHdbHeader& header, bool json, std::ostream& out) {
  std::string revision = header.revision == kNoRevision ? "none" : std::to_string(header.revision);
  std::string platform = header.platform_flag == 1   ? "POSIX"
                         : header.platform_flag == 0 ? "Windows"
                                                     : "unknown";
  if (json) {
    CJsonLine line;
    line.Open().Open("header").String("magic", HexNumber(header.magic, 16));
    line.Number("version", header.version).Number("platform", header.platform_flag);
    line.Number("second_flag", header.second_flag).Number("header_length", header.header_length);
    line.Number("policy_number", header.policy_number).Number("digest", header.policy_value);
    line.String("digest_name", DigestName(header.policy_value)).Number("nodes", header.node_count);
    if (header.revision == kNoRevision) {
      line.Null("revision");
    } else {
      line.Number("revision", header.revision);
    }
    out << line.Close().Close().Take() << "\n";
    return;
  }
  out << "magic          " << HexNumber(header.magic, 16)
      << (header.magic == kHdbMagic ? "" : " (not an HDB file)") << "\nversion        "
      << header.version << "\nplatform       " << header.platform_flag << " (" << platform
      << ")\nsecond flag    " << header.second_flag << "\nheader length  " << header.header_length
      << "\npolicy number  " << header.policy_number << "\ndigest         " << header.policy_value
      << " (" << DigestName(header.policy_value) << ")\nnodes          " << header.node_count
      << "\nrevision       " << revision << "\n";
}

}  // namespace

bool DumpHdb(const uint8_t* data, uint64_t size, bool json, std::ostream& out,
             std::string& problem) {
  if (size < kHeaderSize) {
    problem = "the file has " + std::to_string(size) + " bytes, fewer than the " +
              std::to_string(kHeaderSize) + "-byte header";
    return false;
  }
  CHdbHeader header = CHdbHeader::DecodeFrom(data);
  PrintHeader(header, json, out);
  if (header.magic != kHdbMagic) {
    problem = "the file does not start with the HDB magic number";
    return false;
  }
  uint64_t offset = kHeaderSize;
  uint64_t records = 0;
  while (offset < size) {
    std::string where =
        "record " + std::to_string(records) + " at offset " + std::to_string(offset);
    CHdbRecordView view;
    size_t available = static_cast<size_t>(size - offset);
    switch (DecodeRecord(data + offset, available, view)) {
      case CHdbRecordFault::kNone:
        break;
      case CHdbRecordFault::kMark:
        if (available < kRecordHeaderSize) {
          problem = where + ": " + std::to_string(available) + " bytes left, a record needs " +
                    std::to_string(kRecordHeaderSize);
        } else {
          problem = where + ": record mark " + HexNumber(data[offset + kRecordMarkOffset], 2) +
                    " is not " + HexNumber(kRecordMark, 2);
        }
        return false;
      case CHdbRecordFault::kEndMark:
        problem = where + ": end mark " + HexNumber(view.header.end_mark, 8) + " is not " +
                  HexNumber(kRecordEndMark, 8);
        return false;
      case CHdbRecordFault::kTruncated:
        problem = where + ": its texts run past the end of the file";
        return false;
    }
    const CHdbRecordHeader& record = view.header;
    std::string hash =
        HexText(reinterpret_cast<const uint8_t*>(view.hash.data()), view.hash.size());
    std::string path(view.path);
    std::string security(view.security);
    std::string target(view.target);
    if (json) {
      CJsonLine line;
      line.Open().Open("record").Number("offset", offset).Bool("directory", record.directory);
      line.Number("attributes", record.attributes).Number("time_1", record.time_1);
      line.Number("time_2", record.time_2).Number("size", record.size).String("hash", hash);
      line.String("path", path).String("security", security).String("target", target);
      out << line.Close().Close().Take() << "\n";
    } else {
      out << "@" << offset << (record.directory ? " d " : " f ")
          << AttributesText(record.attributes) << " size=" << record.size
          << " time_1=" << record.time_1 << " time_2=" << record.time_2
          << " hash=" << (hash.empty() ? "-" : hash) << " path=" << QuotedText(path)
          << " security=" << QuotedText(security);
      if (!target.empty()) out << " target=" << QuotedText(target);
      out << "\n";
    }
    offset += view.length;
    ++records;
  }
  // Every node is saved, the root included; a header that counts none may still carry the root.
  bool counted = records == header.node_count || (header.node_count == 0 && records == 1);
  if (!counted) {
    problem = "the header counts " + std::to_string(header.node_count) + " nodes, the file holds " +
              std::to_string(records) + " records";
    return false;
  }
  return true;
}
