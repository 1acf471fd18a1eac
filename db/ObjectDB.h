#pragma once

#include "RhExport.h"

namespace kelp {
namespace db {

// The facet of object files and their caches. Its operations are not defined yet: this interface
// keeps the facet's place in the connector (DBConnector::objectDB()) so that they can be added
// here, each as a pure virtual function with its MySQL implementation in ObjectDBSql. Belongs to
// its connector.
class RH_EXPORT ObjectDB {
  public:
    virtual ~ObjectDB();
};

}  // namespace db
}  // namespace kelp
