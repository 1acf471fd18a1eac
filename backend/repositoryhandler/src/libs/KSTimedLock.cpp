#include "KSTimedLock.h"

#include <exception>

#include "KSException.h"
#include "KSLogger.h"
#include "KSSemaphore.h"
#include "KSSemaphoreGlobal.h"

namespace {
constexpr int kTimeoutMs = 30000;
constexpr float kInitialDelayMs = 10.0f;
constexpr float kGrowth = 1.5f;
constexpr float kMaxDelayMs = 1000.0f;
constexpr float kJitter = 0.4f;
}  // namespace

KSTimedLock::KSTimedLock(bool global, const std::string& id, kelp::db::DBConnector* connector) {
    if (global)
        semaphore_ = std::make_unique<KSSemaphoreGlobal>(id, connector);
    else
        semaphore_ = std::make_unique<KSSemaphore>(id);
    // The release is ours (release()), so that its errors are logged rather than lost.
    semaphore_->setReleaseOnDestruction(false);
}

KSTimedLock::~KSTimedLock() {
    release();
}

bool KSTimedLock::acquire() {
    try {
        held_ = semaphore_->lock_ms(kTimeoutMs, kInitialDelayMs, kGrowth, kMaxDelayMs, kJitter);
    } catch (const KSException& e) {
        rh_logger.errorLog("SmartSemaphore.lock() : KSException caught: '%s' (%d)",
                           e.getMessage().c_str(), e.getCode());
        held_ = false;
    } catch (const std::exception& e) {
        rh_logger.errorLog("SmartSemaphore.lock() : std::exception caught: '%s'", e.what());
        held_ = false;
    } catch (...) {
        rh_logger.errorLog("SmartSemaphore.lock() : unknown exception caught");
        held_ = false;
    }
    return held_;
}

void KSTimedLock::release() {
    if (!held_) return;
    held_ = false;
    try {
        semaphore_->unlock();
    } catch (const KSException& e) {
        rh_logger.errorLog("SmartSemaphore.unlock() : KSException caught: '%s' (%d)",
                           e.getMessage().c_str(), e.getCode());
    } catch (const std::exception& e) {
        rh_logger.errorLog("SmartSemaphore.unlock() : std::exception caught: '%s'", e.what());
    } catch (...) {
        rh_logger.errorLog("SmartSemaphore.unlock() : unknown exception caught");
    }
}
