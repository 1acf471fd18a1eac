#pragma once

// Moving one resource between mounts without ever losing the only copy: the origin goes only
// after a verified copy, or after every entry of a directory has been moved. Every first copy
// (of the resource, or of an entry a merge destination lacks) is made under the staging path of
// the top-level destination and renamed into place once complete (KSPartialCopy.h), so a
// process killed during a copy never leaves a half copy at a destination.

#include "KSMountPointHandler.h"

class KSRepositoryHandler;

// 0 success, 2 conflict (the destination holds a different copy), 8 failure, else the
// result of mountRename. Throws KSAssertionException when the origin does not exist.
// A destination that is the origin directory itself (reached by another path) is left alone,
// logged, and answers 0. A symbolic link whose name exists at the destination is compared and
// removed like a file; the directory it points at is never merged.
int moveRes(KSRepositoryHandler* repository, const char* origin, const char* destination,
            KSMoveFunction copy, const char* copyParams, const char* callback,
            const char* shortName, const char* repositoryName, bool verbose);
// First copy onto a mount where the resource does not exist yet: copy to
// partialCopyPath(destination), compare, rename into place, remove the origin. A null origin
// throws KSAssertionException; a null destination or one without a parent gives -1. A failed
// cp or compare removes the staged copy (the origin is untouched), a rename that fails (an entry
// appeared at the destination) too, with 8. A copy plug-in copies straight to the destination
// and its failure is left as the plug-in leaves it. A caller that copies into a
// hash level reserves it first (prepareHashLevels), so that no clean-up removes it meanwhile.
int mountRename(const char* origin, const char* destination, KSMoveFunction copy,
                const char* copyParams);
// Tells the study callback ($TASKD_HOME/runjavacmd) of a move or a deletion. Either path may
// be null.
void moveCallback(const char* callback, const char* destination, const char* shortName,
                  const char* repositoryName, const char* origin);
