#pragma once

// What "signdb version" says, and what a fleet publication names.
inline constexpr const char* kToolVersion = "0.2.0";
