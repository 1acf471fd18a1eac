#pragma once

// Symbolic links of the legacy directory, where resources lie flat under their names.
// All report through their result and an error log line; none throws.

#include <string>

// false when the path cannot be lstat-ed. For a link sets isLink and, when `target` is given,
// stores the fully resolved target (empty when it cannot be resolved).
bool checkLink(const char* path, bool& isLink, std::string* target);
// (Re)points the link at `linkPath` to `target`; refuses to replace anything but a link.
bool setLink(const char* target, const char* linkPath);
