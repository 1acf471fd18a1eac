#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>

#include "RhExport.h"

namespace kelp {
namespace db {

// Counts who refers to a stored item (an id and a type), one counter per referrer, in the
// reference table (environment REFCOUNTTBL). For type "OBJECTFILE" the referrer "database" is
// not a row of that table but the item's own row in the object table (environment OBJECTTBL),
// whose id is study UID "/" file name. Belongs to its connector; thread-safe like it. Database
// failures leave as DBException.
class RH_EXPORT RefcountDB {
  public:
    virtual ~RefcountDB();

    // Adds a reference: a new referrer starts at 1, an existing one is raised by 1. Returns the
    // found rows (1 insert, 2 update); 0 for OBJECTFILE/"database", which writes nothing.
    virtual uint64_t addEntry(const std::string& id, const std::string& type,
                              const std::string& referrer) = 0;
    // Creates the referrer with 1 unless it exists (then it stays as it is).
    virtual uint64_t createEntry(const std::string& id, const std::string& type,
                                 const std::string& referrer) = 0;
    // Lowers the referrer's counter by 1 and deletes its row once below 1; returns the deleted
    // rows. For OBJECTFILE/"database" removes the object table row instead.
    virtual uint64_t removeEntry(const std::string& id, const std::string& type,
                                 const std::string& referrer) = 0;
    // The removal lock of an item: a row of referrer "LOCKREMOVEREF" with counter 0.
    virtual uint64_t createLockEntryInDB(const std::string& id, const std::string& type) = 0;
    virtual uint64_t removeLockEntryFromDB(const std::string& id, const std::string& type) = 0;
    // Deletes the object table row of an object-file id; returns the deleted rows.
    virtual uint64_t removeObjectFromDatabase(const std::string& objectId) = 0;
    virtual bool isObjectFileInDatabase(const std::string& objectId) = 0;
    // Whether any referrer has a positive counter (or, for OBJECTFILE, the object table lists it).
    virtual bool entriesExist(const std::string& id, const std::string& type) = 0;
    // The sum of the positive counters, plus 1 for an OBJECTFILE the object table lists.
    virtual int64_t countEntries(const std::string& id, const std::string& type) = 0;
    // The referrer's counter (0 when absent); for OBJECTFILE/"database" plus 1 when listed.
    virtual int64_t countEntry(const std::string& id, const std::string& type,
                               const std::string& referrer) = 0;
    // Appends "REFERRER=COUNTER" to entries for every referrer row of the item (and
    // "database=1" for an OBJECTFILE that the object table lists), sets text to those entries
    // joined by ", ", and returns how many were appended.
    virtual size_t listEntries(const std::string& id, const std::string& type,
                               std::list<std::string>& entries, std::string& text) = 0;

    // Splits an object-file id at its last "/" into study UID and file name. Throws DBException
    // ("ReferenceCounterImplDB: OBJECTFILE reference '<id>' is in unexpected format") when there
    // is no "/".
    static void parseObjectId(const std::string& objectId, std::string& studyUid,
                              std::string& fileName);
};

}  // namespace db
}  // namespace kelp
