#pragma once

// Status values shared by the mount, repository and resource operations.

// Mount status bits (KSMountPointHandler::checkStatus) and repository status flags
// (KSRepositoryHandler::checkRepositoryStatus).
enum KSMountStatus : int {
    MOUNT_REMIND = 0x001,
    MOUNT_WARN = 0x002,
    MOUNT_WARN2 = 0x004,
    MOUNT_WARN3 = 0x008,
    MOUNT_SWITCH = 0x010,
    MOUNT_FULL = 0x020,
    MOUNT_CLEAN = 0x040,
    MOUNT_MOVE = 0x080,  // on the repository: incomplete (some mount is dead)
    MOUNT_DEAD = 0x100,  // on the repository: missing (no live mount)
    MOUNT_HARDFULL = 0x200,
};

// The repository cannot take a moved resource: no live mount is below its full or clean limit.
constexpr int REPOSITORY_CANNOTMOVE = MOUNT_FULL;
constexpr int REPOSITORY_INCOMPLETE = MOUNT_MOVE;
constexpr int REPOSITORY_MISSING = MOUNT_DEAD;

// Lookup and removal status codes (removals OR them together).
enum KSResourceStatus : int {
    RESOURCE_STATUS_FOUND = 0,
    RESOURCE_STATUS_DIRTY = 1,
    RESOURCE_STATUS_CONFLICT = 2,
    RESOURCE_STATUS_MISSING = 4,
    RESOURCE_STATUS_ERRONEOUS = 8,
    RESOURCE_STATUS_LOCK_FAILED = 16,
    RESOURCE_STATUS_NOT_PRESENT = 36,
};
