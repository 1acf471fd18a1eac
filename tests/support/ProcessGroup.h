#pragma once

#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

// Several forked processes working at once, for tests of what processes do to each other.
// Every child still running when the group goes is killed and reaped, even when the test fails.
// A child runs `body` and leaves with _exit(its result), 255 when it threw; it must not use
// GoogleTest assertions. Fork from a single-threaded point of the test. One owner.
class ProcessGroup {
  public:
    ProcessGroup() = default;
    ~ProcessGroup() {
        for (pid_t pid : running_) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    ProcessGroup(const ProcessGroup&) = delete;
    ProcessGroup& operator=(const ProcessGroup&) = delete;

    pid_t start(const std::function<int()>& body) {
        pid_t pid = fork();
        if (pid < 0) throw std::runtime_error("fork failed");
        if (pid == 0) {
            int code = 255;
            try {
                code = body();
            } catch (...) {
            }
            _exit(code);
        }
        running_.push_back(pid);
        return pid;
    }

    // Kills one child with SIGKILL and reaps it.
    void killNow(pid_t pid) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        forget(pid);
    }

    // Waits up to `seconds` for every child; true when all ended with exit code 0. Children still
    // running then are killed (a child stuck at a barrier whose partner died ends this way).
    bool waitAll(int seconds) {
        bool allZero = true;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (!running_.empty() && std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            pid_t pid = waitpid(-1, &status, WNOHANG);
            if (pid > 0) {
                if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) allZero = false;
                forget(pid);
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        }
        if (!running_.empty()) allZero = false;
        return allZero;
    }

  private:
    void forget(pid_t pid) {
        for (auto it = running_.begin(); it != running_.end(); ++it)
            if (*it == pid) {
                running_.erase(it);
                return;
            }
    }

    std::vector<pid_t> running_;
};

// One object of type T in memory shared by this process and the children it forks afterwards,
// constructed in place and unmapped at the end (T's destructor is not run: children may still
// map it). T must be usable across processes: atomics, or objects made process-shared.
template <typename T>
class SharedObject {
  public:
    SharedObject() {
        void* memory =
            mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) throw std::runtime_error("mmap failed");
        object_ = new (memory) T();
    }
    ~SharedObject() { munmap(object_, sizeof(T)); }
    SharedObject(const SharedObject&) = delete;
    SharedObject& operator=(const SharedObject&) = delete;

    T* operator->() const { return object_; }
    T& operator*() const { return *object_; }

  private:
    T* object_;
};

// A barrier for `count` processes, to live in a SharedObject.
class ProcessBarrier {
  public:
    void init(unsigned count) {
        pthread_barrierattr_t attributes;
        pthread_barrierattr_init(&attributes);
        pthread_barrierattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
        pthread_barrier_init(&barrier_, &attributes, count);
        pthread_barrierattr_destroy(&attributes);
    }
    void wait() { pthread_barrier_wait(&barrier_); }

  private:
    pthread_barrier_t barrier_;
};
