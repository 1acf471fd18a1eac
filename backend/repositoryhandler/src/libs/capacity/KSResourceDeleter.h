#pragma once

// Deletes a resource directory recursively: 0 on success (a missing path counts as deleted),
// 8 on failure (also for a null or empty path and for the root "/"; trailing slashes are ignored).
// Reports a completed deletion to the study callback when `callback` is not empty. Never follows a
// symbolic link out of the tree: a link is removed, not its target.

#include <string>

int deleteRes(const char* path, const std::string& callback, const char* shortName,
              const char* repositoryName);
