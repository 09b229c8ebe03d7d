#pragma once

#include <cstdint>
#include <string>

#include "refhost/security_text.h"
#include "tool/change/object_state.h"

struct CDifference;
struct CReportSummary;

// Where a report's JSON lines come from: the same for every line of one report.
class CJsonLine;

struct CReportContext {
  std::string timestamp;  // the report's time, ISO 8601 in UTC with milliseconds
  std::string host_name;
  std::string policy;
  std::string root;       // the policy's root folder
  std::string dataset;    // "check", "update" or "diff"
  std::string hash_name;  // the digest's name in file.hash: "sha256", "sha1", ...

  static CReportContext Make(const std::string& policy, const std::string& root,
                             const std::string& dataset, uint32_t policy_number);
};

// One JSON object (one line, no newline) for a difference, in the field names of a widely used
// event schema so that log shippers index it as it is:
//   @timestamp, host.name, event.{kind,category,type,action,code,module,dataset},
//   file.{path,type,mode,uid,gid,owner,group,size,inode,mtime,ctime,target_path,attributes,hash.NAME}
//   (the object as it is now, or as it was recorded when it is gone), and signdb.{policy,root,
//   relative_path,change,status,from,capabilities,device,link_count,selinux,warnings,changes},
//   where "changes" lists every difference as {attribute, old, new} (absent values are null; owners
//   and groups carry old_name and new_name too), the most important first.
// A change the watch service applied carries watch.event too: the file event that led to it.
std::string DifferenceJson(const CDifference& difference, const CReportContext& context,
                           const char* watch_event = nullptr);

// The same kind of line for an object that could not be read.
std::string UnreadableJson(const std::string& relative_path, const std::string& reason,
                           const CReportContext& context);

// A report's last line: {"@timestamp", "host", "summary": {policy, root, checked, bytes, seconds,
// differences, unreadable, accepted, changes: {WORDS: COUNT}}}.
std::string SummaryJson(const CReportSummary& summary, const CReportContext& context);

// The ECS "file" object of a report line for an object in "state" at "full_path": type, mode,
// uid, gid, owner, group, size, inode, mtime, ctime, target_path, attributes, hash.
void AddFile(CJsonLine& line, const CObjectState& state, const security_text::CSecurityItems& items,
             const std::string& full_path, const CReportContext& context);
