#pragma once

#include <atomic>
#include <memory>
#include <mutex>

namespace kelp {
namespace db {

// Owns one lazily created facet of a connector. get() creates it once, under the slot's mutex
// with a second test after locking; readers that find it made pay one atomic load.
template <class T>
class FacetSlot {
  public:
    FacetSlot() = default;
    FacetSlot(const FacetSlot&) = delete;
    FacetSlot& operator=(const FacetSlot&) = delete;

    // The facet, made with make() (returning std::unique_ptr<T>) on the first call. If make()
    // throws, nothing is stored and the next call tries again.
    template <class Make>
    T* get(Make make) {
        T* facet = facet_.load(std::memory_order_acquire);
        if (facet) return facet;
        std::lock_guard<std::mutex> guard(mutex_);
        facet = facet_.load(std::memory_order_relaxed);
        if (facet) return facet;
        owner_ = make();
        facet_.store(owner_.get(), std::memory_order_release);
        return owner_.get();
    }

    // The facet if it was created, else null.
    T* peek() const { return facet_.load(std::memory_order_acquire); }

  private:
    std::mutex mutex_;
    std::unique_ptr<T> owner_;
    std::atomic<T*> facet_{nullptr};
};

}  // namespace db
}  // namespace kelp
