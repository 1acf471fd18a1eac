#pragma once

// Resources that the capacity management must leave where they are during one run.
// In memory only; not synchronised (one maintenance thread uses it).

#include <set>
#include <string>

class KSNomoveHandler {
public:
    bool isNomove(const char* resource) const { return names_.count(resource) != 0; }
    void setNomove(const char* resource, bool nomove) {
        if (nomove)
            names_.insert(resource);
        else
            names_.erase(resource);
    }

private:
    std::set<std::string> names_;
};
