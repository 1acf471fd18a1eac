#include "KSTimedLock.h"

#include <cstdio>
#include <exception>
#include <memory>

#include "KSException.h"
#include "KSLogger.h"
#include "KSPathUtils.h"

std::string KSTimedLock::lockId(const std::string& repository, const std::string& resource) {
    std::unique_ptr<char[]> id(toResourceID(repository.c_str(), resource.c_str()));
    return id ? id.get() : "";
}

KSTimedLock::KSTimedLock(bool global, const std::string& repository, const std::string& resource,
                         kelp::db::DBConnector* connector)
    : id_(lockId(repository, resource)), semaphore_(global, id_.c_str(), connector) {
    // The release is ours (release()), so that its errors are logged rather than lost.
    if (semaphore_.semaphore() != nullptr) semaphore_.semaphore()->setReleaseOnDestruction(false);
}

KSTimedLock::~KSTimedLock() {
    release();
}

bool KSTimedLock::acquire(bool verbose) {
    held_ = semaphore_.lock();
    if (!held_) {
        const std::string text = "The resource \"" + id_ + "\" could not be locked.";
        if (verbose) puts(text.c_str());
        rh_logger.errorLog("%s", text.c_str());
    }
    return held_;
}

void KSTimedLock::release() {
    if (!held_) return;
    held_ = false;
    try {
        semaphore_.unlock();
    } catch (const KSException& e) {
        rh_logger.errorLog("SmartSemaphore.unlock() : KSException caught: '%s' (%d)",
                           e.getMessage().c_str(), e.getCode());
    } catch (const std::exception& e) {
        rh_logger.errorLog("SmartSemaphore.unlock() : std::exception caught: '%s'", e.what());
    } catch (...) {
        rh_logger.errorLog("SmartSemaphore.unlock() : unknown exception caught");
    }
}
