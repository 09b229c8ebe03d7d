#pragma once

// A place between two changes to the data folder where a run may die. Tests of crash safety set
// SIGNDB_TEST_KILL_AT_STEP=N in the environment: the run then kills itself (SIGKILL, as an
// out-of-memory killer or a power cut would end it) on reaching the N-th such place, so that every
// step of a save can be interrupted in turn. Without the variable, nothing happens.
void CrashPoint();
