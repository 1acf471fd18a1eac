#pragma once

namespace kelp {
namespace db {

// What the connector's retry loop saw while it ran one statement, for the callers whose
// statement is not safe to run twice. A connection lost after the statement was handed to the
// server leaves its outcome unknown: the server may have run (and committed) it and only the
// reply was lost, so the attempt that follows may meet the statement's own effect.
struct RetryRecord {
    // Attempts made, the last one included.
    unsigned long attempts = 0;
    // True when an earlier attempt failed after the statement had been sent, with the
    // connection lost (or an error without a code): the statement may already have run.
    bool mayHaveRunBefore = false;
};

}  // namespace db
}  // namespace kelp
