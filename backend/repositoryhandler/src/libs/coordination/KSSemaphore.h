#pragma once

// A named lock held across threads and processes of one machine: the exclusive creation of the
// file $LOCK_VAR/semaphore_<name> ("." when LOCK_VAR is unset). Not re-entrant.
// One object is used by one thread at a time.

#include <string>

class KSSemaphore {
  public:
    explicit KSSemaphore(const std::string& name);
    KSSemaphore(const KSSemaphore&) = delete;
    KSSemaphore& operator=(const KSSemaphore&) = delete;

    // One attempt. false when somebody else holds it; KSIOException on any other error.
    // Declared first so that it takes the class's first virtual slot.
    virtual bool lockResource();
    // Releases a held lock when release-on-destruction is set; never throws.
    virtual ~KSSemaphore();
    // Random steps of 10..989 ms for at most `seconds` (0: for ever); KSTimeoutException after.
    bool lock(int seconds);
    // Growing, jittered steps within `timeoutMs` (0: no budget); KSTimeoutException when the
    // budget is spent. The first step is about initialDelay / 2; each step grows by `growth`
    // until it passes `maxDelay`, then stays at `maxDelay`. Steps are whole milliseconds, at
    // least 1, so they add up to the budget exactly and never spin.
    bool lock_ms(int timeoutMs, float initialDelay, float growth, float maxDelay, float jitter);
    // Releases the lock if this object holds it; KSIOException when that fails.
    virtual void unlock();

    const std::string& name() const { return name_; }
    bool isLocked() const { return locked_; }
    void setLocked(bool locked) { locked_ = locked; }
    void setReleaseOnDestruction(bool release) { releaseOnDestruction_ = release; }

  protected:
    std::string name_;
    std::string lockDirectory_;
    bool locked_ = false;
    bool releaseOnDestruction_ = true;
};
