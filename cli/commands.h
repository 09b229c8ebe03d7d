#pragma once

#include "tool/common/tool_version.h"

struct CCommandLine;

// The tool's commands; each returns the exit status and throws CToolError for what the user can
// fix.
int RunInit(const CCommandLine& line);
int RunScan(const CCommandLine& line);
int RunCheck(const CCommandLine& line);
int RunUpdate(const CCommandLine& line);
int RunDiff(const CCommandLine& line);
int RunLookup(const CCommandLine& line);
int RunList(const CCommandLine& line);
int RunShow(const CCommandLine& line);
int RunVerify(const CCommandLine& line);
int RunDump(const CCommandLine& line);
int RunSelfTest(const CCommandLine& line);
int RunRenew(const CCommandLine& line);
int RunSign(const CCommandLine& line);
int RunAccept(const CCommandLine& line);
int RunJournal(const CCommandLine& line);
int RunRules(const CCommandLine& line);
int RunWatch(const CCommandLine& line);
int RunStatus(const CCommandLine& line);
int RunFleet(const CCommandLine& line);
