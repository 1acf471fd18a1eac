#pragma once

// Resources that the capacity management must leave where they are during one run.
// In memory only; not synchronised (one maintenance thread uses it).

#include <set>
#include <string>

#include "KSAssertionException.h"

class KSNomoveHandler {
  public:
    // Whether the name is in the set. A null name throws KSAssertionException.
    bool isNomove(const char* resource) const {
        KS_ASSERT_NOT_NULL(resource, kSourceFile);
        return names_.count(resource) != 0;
    }
    // Inserts (true) or erases (false) the name; nothing happens when the membership already
    // matches. A null name throws KSAssertionException.
    void setNomove(const char* resource, bool nomove) {
        KS_ASSERT_NOT_NULL(resource, kSourceFile);
        if (nomove)
            names_.insert(resource);
        else
            names_.erase(resource);
    }

  private:
    static constexpr const char* kSourceFile = "backend/repositoryhandler/src/libs/KSNomoveHandler";

    std::set<std::string> names_;
};
