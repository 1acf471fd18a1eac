#pragma once

#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <queue>
#include <thread>

// One long-lived thread that runs the tasks it is given, one at a time, so a test can act as the
// same thread again later (per-thread statement caches are keyed by thread id). run() waits for
// the task and rethrows what it threw. Joined on destruction.
class DbWorker {
  public:
    DbWorker() : thread_([this] { loop(); }) {}
    ~DbWorker() {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            done_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }
    DbWorker(const DbWorker&) = delete;
    DbWorker& operator=(const DbWorker&) = delete;

    void run(std::function<void()> work) {
        std::packaged_task<void()> task(std::move(work));
        std::future<void> done = task.get_future();
        {
            std::lock_guard<std::mutex> guard(mutex_);
            tasks_.push(std::move(task));
        }
        wake_.notify_all();
        done.get();
    }

  private:
    void loop() {
        for (;;) {
            std::packaged_task<void()> task;
            {
                std::unique_lock<std::mutex> guard(mutex_);
                wake_.wait(guard, [this] { return done_ || !tasks_.empty(); });
                if (tasks_.empty()) return;
                task = std::move(tasks_.front());
                tasks_.pop();
            }
            task();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::queue<std::packaged_task<void()>> tasks_;
    bool done_ = false;
    std::thread thread_;
};
