#pragma once

#include <cstdlib>
#include <optional>
#include <string>

// Sets an environment variable (or unsets it, for a null value) for the scope and restores the
// earlier state when the scope ends, even when the test fails:
//   ScopedEnv env("LOCK_VAR", dir.c_str());
// setenv is not thread-safe: create these before the test starts threads.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* old = getenv(name)) old_ = old;
        value != nullptr ? setenv(name, value, 1) : unsetenv(name);
    }
    ~ScopedEnv() { old_ ? setenv(name_.c_str(), old_->c_str(), 1) : unsetenv(name_.c_str()); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

  private:
    std::string name_;
    std::optional<std::string> old_;
};
