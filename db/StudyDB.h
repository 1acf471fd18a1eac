#pragma once

#include "RhExport.h"

namespace kelp {
namespace db {

// The facet of studies and reports (study and report look-ups, modality performed procedure steps).
// Its operations are not defined yet: this interface keeps the facet's place in the connector
// (DBConnector::studyDB()) so that they can be added here, each as a pure virtual function with its
// MySQL implementation in StudyDBSql. Belongs to its connector.
class RH_EXPORT StudyDB {
  public:
    virtual ~StudyDB();
};

}  // namespace db
}  // namespace kelp
