#pragma once

#include <string>

// Two archive servers that share one repository on network-like storage, simulated on one
// machine. The whole site runs in a forked child with a mount namespace of its own (and, for
// GlusterFS, a network namespace whose loopback carries glusterd and its brick); each server is
// a further child with its own mount namespace in which it mounts the storage, so each has the
// attribute cache of its own client, as two machines would. Both lock through the private
// MariaDB server of the environment (over its socket, which every namespace reaches).
//
// Server A marks and clears names "a-0", "a-1", ... and server B "b-0", ... with setDirty_, at
// the same time: every odd name is marked and stays, every even name is marked and cleared
// again right after the next mark. When both are done and a quiet period longer than the
// attribute cache has passed, the dirty file is read through a third client that was mounted
// the whole time (an observer that never took part) and compared with what must be there.
//
// Nothing is left behind: every mount lives in a namespace that ends with the site, the
// processes the site started (glusterd, its brick, FUSE daemons) are ended by their ids, and
// the work directory under /tmp is removed. A site that hangs is stopped after `limitSeconds`.
//
// Needs root, /dev/fuse, bindfs and glusterfs-server (scripts/deps); a site that cannot be set
// up reports why in TwoServerOutcome::failure.

enum class SharedStorage {
    PlainDirectory,  // a bind mount of one directory: no attribute cache at all
    Bindfs,          // a FUSE passthrough with attr_timeout and entry_timeout
    GlusterFs,       // a one-brick GlusterFS volume, its FUSE client with default options
};

struct TwoServerRun {
    SharedStorage storage = SharedStorage::PlainDirectory;
    int attributeCacheSeconds = 0;  // Bindfs only
    bool coarseTimestamps = false;  // the storage's backing directory is on ramfs
    // GlusterFs only: options of its FUSE client's mount ("attribute-timeout=0,..."), and the
    // volume's client-side caches (metadata, content, read-ahead, write-behind) switched off.
    std::string glusterMountOptions;
    bool glusterClientCachesOff = false;
    // Server B mounts the share at another path; repository.cfg then names the repository with
    // a repositoryId so that both still lock under one name.
    bool differentPaths = false;
    int namesPerServer = 100;  // even: half of them stay marked
    int limitSeconds = 240;
};

struct TwoServerOutcome {
    std::string failure;        // empty when the site ran to the end
    int marksLost = -1;         // names that must stay marked but are missing
    int clearedMarksBack = -1;  // names cleared but present
    int mustStay = 0;
    int cleared = 0;
    double seconds = 0;  // the servers' working time
};

TwoServerOutcome runTwoServers(const TwoServerRun& run);

// Whether this machine can hold the site at all: root, /dev/fuse, and mount and network
// namespaces that a child may create. `why` names what is missing.
bool twoServerSiteAvailable(std::string& why);
// The programs of the site that are missing (bindfs, glusterd, gluster, mount.glusterfs),
// with what installs them; empty when all are there.
std::string twoServerProgramsMissing();
