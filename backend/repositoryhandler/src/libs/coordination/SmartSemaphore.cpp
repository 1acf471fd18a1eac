#include "SmartSemaphore.h"

#include <exception>

#include "KSException.h"
#include "KSLogger.h"
#include "KSSemaphoreGlobal.h"

SmartSemaphore::SmartSemaphore(bool global, const char* name, kelp::db::DBConnector* connector) {
    if (name == nullptr) return;
    if (global)
        semaphore_ = std::make_unique<KSSemaphoreGlobal>(name, connector);
    else
        semaphore_ = std::make_unique<KSSemaphore>(name);
}

// The semaphore's own destructor releases a held lock unless release-on-destruction was
// cleared (explicit resource locks outlive this object on purpose).
SmartSemaphore::~SmartSemaphore() = default;

bool SmartSemaphore::lock() {
    if (!semaphore_) return false;
    try {
        return semaphore_->lock_ms(30000, 10, 1.5, 1000, 0.4);
    } catch (const KSException& e) {
        rh_logger.errorLog("SmartSemaphore.lock() : KSException caught: '%s' (%d)",
                           e.getMessage().c_str(), e.getCode());
    } catch (const std::exception& e) {
        rh_logger.errorLog("SmartSemaphore.lock() : std::exception caught: '%s'", e.what());
    } catch (...) {
        rh_logger.errorLog("SmartSemaphore.lock() : unknown exception caught");
    }
    return false;
}

void SmartSemaphore::unlock() {
    if (semaphore_) semaphore_->unlock();
}
