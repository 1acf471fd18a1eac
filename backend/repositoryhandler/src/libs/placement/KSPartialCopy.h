#pragma once

// Partial copies. A first copy onto a mount ("cp -rp", then "diff -q -r" against the origin) is
// made under a staging name and renamed to its destination only once it compared equal, so a
// destination never holds half a copy, whenever the copying process is killed. The staging
// entry of a resource R on a mount lies in R's own hash level, beside R's location, and is
// named ".rh-partial." followed by R (a name longer than a file name may be is shortened, see
// partialCopyName). Every first copy of R or of one of its entries (a merge copies the entries
// a destination lacks) is staged there, one at a time under R's lock.
//
// Because the rename is the copy's last step, such an entry is by construction incomplete
// whenever nobody holds R's lock: a holder of the lock may remove it (what lookups of a dirty
// resource, removals and the move pass do), and a new copy removes a leftover before it starts.
// Resource names that begin with the prefix are refused (isSafeResourceName), so a staging
// entry is never a resource.
//
// Stateless and thread-safe.

#include <string>

// ".rh-partial."
extern const char kPartialCopyPrefix[];

// The staging name for the entry `leaf`: kPartialCopyPrefix + leaf when that is shorter than
// 255 bytes; otherwise exactly 255 bytes: the prefix, the start of `leaf`, "~" and 16
// hexadecimal digits of a hash of all of it.
std::string partialCopyName(const std::string& leaf);
// Where the first copy to `destination` is staged: its directory + "/" + partialCopyName(leaf).
std::string partialCopyPath(const std::string& destination);
// True when the last component of `path` begins with kPartialCopyPrefix.
bool isPartialCopy(const std::string& path);
// The resource whose staging entry is named `name`; empty when `name` is no staging name or
// a shortened one.
std::string resourceOfPartialCopy(const std::string& name);
// Removes the staging entry at `path` ("rm -fr") if there is one; true when one was removed.
// The caller holds the lock of the resource it belongs to.
bool discardPartialCopy(const std::string& path);
