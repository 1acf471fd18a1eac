#pragma once

// Small helpers shared by the placement operations (lookup, creation, removal, legacy).
// Stateless and thread-safe; texts returned as char* are new[] arrays owned by the caller.

#include <optional>
#include <string>

#include "SmartSemaphore.h"

class KSRepositoryHandler;
class KSMountPointHandler;
namespace kelp {
namespace db {
class DBConnector;
}
}  // namespace kelp

// A new[] copy of `text` (never null).
char* newText(const std::string& text);
// `resource` without its leading slashes; an empty text for null.
std::string stripLeadingSlashes(const char* resource);
// The mount of `repository` whose path is the repository path + "/" + `mountName` (the
// repository path alone for an empty name), first match in configuration order; null if none.
KSMountPointHandler* findMountByName(KSRepositoryHandler& repository, const char* mountName);
// The mount whose path is `path` itself or a directory above it (not a mere textual prefix:
// /data/p1 does not claim /data/p10); null if none.
KSMountPointHandler* findMountHolding(KSRepositoryHandler& repository, const std::string& path);
// Legacy path of `resource`: legacyDir + "/" + resource.
std::string legacyPathOf(const KSRepositoryHandler& repository, const char* resource);
// The status a lookup reports for a failed move: 2 (conflict) and 8 (failure) as they stand;
// anything else, such as the raw status of a failed or refused shell command, is reported as
// an unresolved conflict (2), so callers only ever see the small status codes.
int moveFailureStatus(int moveResult);
// The lock identity of `resource` in `repository`.
std::string resourceLockId(const KSRepositoryHandler& repository, const char* resource);
// Takes the resource's SmartSemaphore (of the repository's type) into `semaphore`, which then
// holds it until it goes. False, with the "could not be locked." error logged, when it cannot
// be taken.
bool lockResourceInto(std::optional<SmartSemaphore>& semaphore, KSRepositoryHandler& repository,
                      const char* resource, kelp::db::DBConnector* connection);
// True, with an error line naming `operation`, for a name that is not a single path component
// after its leading slashes (null, "", ".", "..", anything with a slash).
bool refuseUnsafeName(const char* resource, const char* operation);
// True, with an error line naming `operation`, for the empty name. The explicit locks and the
// dirty marks take any other name, but the empty one would make the identity of the
// repository's own maintenance lock (toResourceID(path, "")).
bool refuseEmptyName(const char* resource, const char* operation);
// `resource` without its leading slashes, for the operations that create: a null name, one that
// still holds a slash, or "", "." or ".." is a programming error (KSAssertionException; the
// expression "subDirectory.find( '/' ) == string::npos" for the slash).
std::string checkedResourceName(const char* resource);
