#include "VerifyFinding.h"

const char* verifyKindName(VerifyKind kind) {
    switch (kind) {
        case VerifyKind::kDuplicate:
            return "duplicate";
        case VerifyKind::kStaleDirty:
            return "staleDirty";
        case VerifyKind::kMisplaced:
            return "misplaced";
        case VerifyKind::kEmptyHashLevel:
            return "emptyHashLevel";
        case VerifyKind::kNotDirectory:
            return "notDirectory";
        case VerifyKind::kDanglingLink:
            return "danglingLink";
        case VerifyKind::kForeignLink:
            return "foreignLink";
        case VerifyKind::kStaleLockFile:
            return "staleLockFile";
        case VerifyKind::kStaleLockRow:
            return "staleLockRow";
        case VerifyKind::kPartialCopy:
            return "partialCopy";
        case VerifyKind::kLockScope:
            return "lockScope";
    }
    return "unknown";
}
