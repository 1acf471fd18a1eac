#pragma once

// A named lock held across every process that uses the same database: a row of the lock table
// (kelp::db::LockDB) whose actor is a token of this take alone (KSLockToken). Waiting is the
// same as for KSSemaphore.
//
// The connector repeats a statement whose connection was lost, and the server may have run the
// first one: the token makes both statements safe to repeat. A repeated insert that meets a row
// with this token has taken the lock; a release deletes only the row with this token, so a
// repetition cannot remove a lock that another process took meanwhile. A take whose insert
// failed with an error, and a release that failed, leave their token to KSLockReleaseQueue,
// which deletes the row once the lock table answers again.

#include <memory>
#include <string>

#include "KSSemaphore.h"

namespace kelp {
namespace db {
class DBConnector;
}
}  // namespace kelp

class KSSemaphoreGlobal : public KSSemaphore {
  public:
    // `connector` may be null: one is created on first use (a lock attempt or a release) and
    // owned. Not owned otherwise; it must outlive this object.
    KSSemaphoreGlobal(const std::string& name, kelp::db::DBConnector* connector);
    ~KSSemaphoreGlobal() override;

    // One attempt: inserts the lock row with a new token. KSException when no connector can be
    // made; database errors pass as kelp::db::DBException.
    bool lockResource() override;
    // If this object holds the lock: deletes the row with its token. When it was only marked as
    // holding (setLocked, for a lock another took), deletes the row of whoever holds it now,
    // by that holder's token.
    void unlock() override;
    // The token of the lock this object took; empty when it took none.
    const std::string& token() const { return token_; }
    // The connector the lock is taken through: the given one, or one made on first use and
    // owned. KSException when none can be made.
    kelp::db::DBConnector* connector();

  private:

    kelp::db::DBConnector* connector_;
    std::unique_ptr<kelp::db::DBConnector> ownConnector_;
    std::string token_;
};
