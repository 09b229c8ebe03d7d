#pragma once

#include <memory>

class CHost;

// Builds the module's front once and hands it to the host (host slot 66). A second call does
// nothing. When the front's constructor throws, the exception leaves to the caller, the module
// stays uninitialised and a later call tries again. Not guarded against two concurrent first calls.
void InitModule(const std::shared_ptr<CHost>& host);
