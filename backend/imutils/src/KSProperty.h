#pragma once

#include <memory>

#include "RhExport.h"

// One name=value entry of a properties file. Owns NUL-terminated copies of both texts.
// Copyable (deep copy) and movable; not synchronised.
class RH_EXPORT KSProperty {
  public:
    // Throws KSAssertionException ("str") when name or value is null.
    KSProperty(const char* name, const char* value);
    KSProperty(const KSProperty& other);
    KSProperty& operator=(const KSProperty& other);
    KSProperty(KSProperty&&) noexcept = default;
    KSProperty& operator=(KSProperty&&) noexcept = default;
    ~KSProperty() = default;

    // Replaces the value with a copy of value. Throws KSAssertionException ("value") when null.
    void setValue(const char* value);

    // Never null; owned by the entry and valid until it changes or dies.
    const char* getName() const { return name_.get(); }
    const char* getValue() const { return value_.get(); }

  private:
    static std::unique_ptr<char[]> copyOf(const char* str);

    std::unique_ptr<char[]> name_;
    std::unique_ptr<char[]> value_;
};
