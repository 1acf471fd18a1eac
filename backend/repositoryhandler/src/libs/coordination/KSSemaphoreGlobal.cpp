#include "KSSemaphoreGlobal.h"

#include <exception>

#include "DBConnector.h"
#include "KSException.h"
#include "KSLockReleaseQueue.h"
#include "KSLockToken.h"
#include "LockDB.h"

KSSemaphoreGlobal::KSSemaphoreGlobal(const std::string& name, kelp::db::DBConnector* connector)
    : KSSemaphore(name), connector_(connector) {}

// The base destructor cannot reach this class's unlock (the derived part is gone by then), so
// the lock row is given back here.
KSSemaphoreGlobal::~KSSemaphoreGlobal() {
    if (!releaseOnDestruction_ || !locked_) return;
    try {
        KSSemaphoreGlobal::unlock();
    } catch (...) {
        // A destructor must not throw; the row stays until releaseLock removes it.
    }
    locked_ = false;
}

// The unique key on the lock id makes exactly one of several concurrent inserts succeed, so the
// insert itself is the atomic test-and-set; a busy lock answers false at once. Each attempt
// carries a fresh token: a statement of an earlier take that the server runs late can never
// match this take's row.
//
// An insert that ends in an error may still have been run by the server (its reply lost, the
// repetition finding the server away): the caller is told "not locked", so its row, if any, is
// nobody's and goes onto the release list (KSLockReleaseQueue), as does the row of a release
// that failed. The list is worked off whenever the lock table answers again.
bool KSSemaphoreGlobal::lockResource() {
    kelp::db::DBConnector* db = connector();
    KSLockReleaseQueue::flush(db);
    std::string token = KSLockToken::next();
    try {
        locked_ = db->lockDB()->lockFirstTime(name_, name_, token, 0);
    } catch (...) {
        locked_ = false;
        token_.clear();
        KSLockReleaseQueue::add(name_, token);
        throw;
    }
    token_ = locked_ ? token : std::string();
    return locked_;
}

void KSSemaphoreGlobal::unlock() {
    if (!locked_) return;
    locked_ = false;
    std::string token;
    token.swap(token_);
    if (token.empty()) {
        connector()->lockDB()->releaseLock(name_);
        return;
    }
    try {
        connector()->lockDB()->releaseLockOf(name_, token);
    } catch (...) {
        KSLockReleaseQueue::add(name_, token);
        throw;
    }
    KSLockReleaseQueue::flush(connector());
}

// An explicit unlock marks a fresh object as holding a lock that another took, so releasing
// may be the first use of the database, just as locking is.
kelp::db::DBConnector* KSSemaphoreGlobal::connector() {
    if (connector_ != nullptr) return connector_;
    try {
        ownConnector_.reset(kelp::db::DBConnector::createConnector(false));
    } catch (const std::exception&) {
        ownConnector_.reset();
    }
    if (!ownConnector_)
        throw KSException("KSSemaphoreGlobal::lockResource : connector could not be created");
    connector_ = ownConnector_.get();
    return connector_;
}
