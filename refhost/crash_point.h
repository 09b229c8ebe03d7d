#pragma once

#include <functional>

// A place between two changes to the data folder where a run may die. Tests of crash safety set
// SIGNDB_TEST_KILL_AT_STEP=N in the environment: the run then kills itself (SIGKILL, as an
// out-of-memory killer or a power cut would end it) on reaching the N-th such place, so that every
// step of a save can be interrupted in turn. Without the variable, nothing happens.
void CrashPoint();

// In-process tests force an interleaving the same way: the hook, when set, runs at every such
// place (a link planted just after a delete, say). Not thread-safe to set while a save runs.
void SetCrashPointHook(std::function<void()> hook);
