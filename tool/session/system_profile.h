#pragma once

#include <Poco/JSON/Array.h>

// The policies that monitor an installed Linux system sensibly (signdb init --system): "/" and,
// for each of /boot, /usr, /var and /opt that is a file system of its own, a policy of its own
// (a policy stays on its root's file system). Each carries the rules below, re-rooted at it, and
// package awareness (dpkg) where /var/lib/dpkg/status exists. Why each rule is there is in the
// README ("init --system").
Poco::JSON::Array::Ptr SystemPolicies();
