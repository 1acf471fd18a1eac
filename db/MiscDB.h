#pragma once

#include "RhExport.h"

namespace kelp {
namespace db {

// The facet of miscellaneous records (transactions, DICOM tag to column mapping, devices and
// callbacks). Its operations are not defined yet: this interface keeps the facet's place in the
// connector (DBConnector::miscDB()) so that they can be added here, each as a pure virtual function
// with its MySQL implementation in MiscDBSql. Belongs to its connector.
class RH_EXPORT MiscDB {
  public:
    virtual ~MiscDB();
};

}  // namespace db
}  // namespace kelp
