#pragma once

#include <string>

#include "RhExport.h"

namespace kelp {
namespace db {

// Tells whether a user session is signed on, from the session table (environment SESSIONTBL).
// Belongs to its connector; thread-safe like it. Database failures leave as DBException.
class RH_EXPORT SessionDB {
  public:
    virtual ~SessionDB();

    // True when the session sessionId from ipAddress is signed on (SIGNSTAT 'Y' or 'y'). Then
    // priority := SESSIONPRI and flag := (SESSIONLSY != 0), each only when its column is not
    // NULL; otherwise the caller's value stays. False for an unknown or signed-off session.
    virtual bool checkSession(const std::string& sessionId, const std::string& ipAddress,
                              int& priority, bool& flag) = 0;
};

}  // namespace db
}  // namespace kelp
