#pragma once

// The flat C surface of librepohandler.so, valid C (C99 and later) and C++.
//
// Every function names a repository by its directory path. The repository is loaded on first
// use and reloaded when its configuration files change (at most one check every 9 seconds).
// Functions that take a DBConnector* accept null: a shared repository then uses a connector of
// its own, a non-shared one needs none. In C, DBConnector is an incomplete struct type: C
// callers pass null or a pointer they got from C++ code.
//
// Ownership: every char* returned here is allocated with new[] and must be given back with
// release() (or release_()); both accept null. normalize_file_name() is the exception: its
// result comes from malloc() and is freed with free(). Lists from listFiles_/listDirs_ are
// given back with releaseList_().
//
// Errors: status values are bit masks (see KSStatus.h). Exceptions thrown by an operation
// (KSException and its family, kelp::db::DBException, std::runtime_error when a shell cannot
// be started) pass through to the caller. C code cannot catch them: in a C program such an
// exception ends the process (std::terminate), so C callers that must survive them wrap the
// calls in C++.
//
// Thread safety: every function may be called from many threads at once.

#include <stdbool.h>
#include <time.h>

#include "RhExport.h"

struct utimbuf;

#ifdef __cplusplus
#include <list>
#include <string>

namespace kelp {
namespace db {
class DBConnector;
}
}  // namespace kelp
using kelp::db::DBConnector;

extern "C" {
#else
// The same pointer as the C++ class pointer: C code only passes it on.
typedef struct DBConnector DBConnector;
#endif

// Creates the resource's directory itself on a mount chosen as for createLocation_, or returns
// the existing one. *secondStatus: 1 when it existed, 0 when created. flag1 (useCallback): the
// lookup consults the information callback and a new directory is reported to the study
// callback; flag2 (noDirty): as in createLocation_; flag3 (exclusive): an existing resource
// gives null with status 8.
RH_EXPORT char* createDirectory_(const char* repository, const char* resource, int* status,
                                 int* secondStatus, bool flag1, bool flag2, bool flag3,
                                 DBConnector* db);
RH_EXPORT char* createLocation_(const char* repository, const char* resource, int* status,
                                int* existed, bool noDirty, DBConnector* db);
RH_EXPORT char* getLocation_(const char* repository, const char* resource, int* status, bool touch,
                             bool lock, bool useCallback, bool onlyIfDirty, DBConnector* db);
RH_EXPORT char* getLocationOnMount_(const char* repository, const char* resource, const char* mount,
                                    int* status, bool lock, DBConnector* db, bool touch);
RH_EXPORT int getRepositoryStatus_(const char* repository, DBConnector* db);
RH_EXPORT int checkResourceStatus_(const char* repository, const char* resource, DBConnector* db);
RH_EXPORT int removeResource_(const char* repository, const char* resource, bool lock,
                              bool useCallback, DBConnector* db);
RH_EXPORT int removeResourceOnMount_(const char* repository, const char* resource,
                                     const char* mount, bool lock, bool useCallback,
                                     DBConnector* db);
// Names of the resources of every live mount (sorted, each once): listDirs_ the resource
// directories, listFiles_ plain files at resource level. flag (includeLegacy): add the
// entries of the legacy directory. Give the list back with releaseList_(list, *count).
RH_EXPORT char** listFiles_(const char* repository, long* count, bool flag, DBConnector* db);
RH_EXPORT char** listDirs_(const char* repository, long* count, bool flag, DBConnector* db);
RH_EXPORT void releaseList_(char** list, long count);
// 0 when the resource's legacy directory was made (or exists), -1 otherwise.
RH_EXPORT int createToLegacy_(const char* repository, const char* resource, DBConnector* db);
RH_EXPORT void makeEmpty_(const char* repository, DBConnector* db);
RH_EXPORT void rndMount_(const char* repository, DBConnector* db);
RH_EXPORT int MountUnmount_(const char* repository, int mountIndex, bool mount, DBConnector* db);
RH_EXPORT int giveBackMounts_(const char* repository, DBConnector* db);
RH_EXPORT void checkOverload_(const char* repository, bool verbose, bool night, DBConnector* db);
// Moves every resource off `mount` (`flag`: verbose). 0 when nothing is left on it, 1 when
// resources stayed (not movable, no mount left to take them, stopped, or the mount went dead
// meanwhile), -1 when the emptying could not begin (unknown or dead mount, repository lock
// refused).
RH_EXPORT int freeMount_(const char* repository, const char* mount, bool flag, DBConnector* db);
// 1 when the resource was found and *times (access, modification) filled, else 0 (unchanged).
RH_EXPORT int getTimeProperties_(const char* repository, const char* resource,
                                 struct utimbuf* times, DBConnector* db);
RH_EXPORT bool setTimeProperties_(const char* repository, const char* resource,
                                  const struct utimbuf* times, DBConnector* db);
RH_EXPORT int lockResource_(const char* repository, const char* resource, DBConnector* db);
RH_EXPORT int unlockResource_(const char* repository, const char* resource, DBConnector* db);
RH_EXPORT int isDirty_(const char* repository, const char* resource, DBConnector* db);
// Throws KSException (code 8) when the change could not be written to the .dirty file (its lock
// not had within 30 seconds, a full file system): other processes do not see it. A mark is
// then still written with this process's next successful change; a clear is not.
RH_EXPORT void setDirty_(const char* repository, const char* resource, bool dirty, DBConnector* db);
// The mount path on which the resource `directory` lies (the information callback is asked
// first when configured), or null.
RH_EXPORT char* getMountPathForDirectory_(const char* repository, const char* directory,
                                          DBConnector* db);
// The mount path holding the absolute `path`, or null.
RH_EXPORT char* getMountFromPath_(const char* repository, const char* path, DBConnector* db);
RH_EXPORT char* unAge_(const char* repository, const char* resource, DBConnector* db);
RH_EXPORT time_t setup_(const char* repository, DBConnector* db);
RH_EXPORT void release(char* text);
RH_EXPORT void release_(char* text);
RH_EXPORT char* convertToHashed_(const char* path, bool hashLast);
RH_EXPORT char* convertToHashed(const char* path, bool hashLast);
RH_EXPORT int createHashDirectory(const char* legacyRoot, const char* mountRoot,
                                  const char* relPath);
RH_EXPORT int removeHashDirectory(const char* legacyRoot, const char* mountRoot,
                                  const char* relPath);
RH_EXPORT int createHashDirectoryForFile(const char* mountRoot, const char* relFile);
RH_EXPORT int removeHashDirectoryForFile(const char* mountRoot, const char* relFile);
// Lexical absolute form of path (no link is resolved); relative paths start from the working
// directory, and from the root without a doubled slash. malloc'ed; null when path is null or
// the working directory cannot be read.
RH_EXPORT char* normalize_file_name(const char* path);

#ifdef __cplusplus
// The two functions that take or give C++ lists are declared for C++ callers only (with C
// linkage all the same).

// Appends every location of the resource (one per live mount holding a copy, in configuration
// order). flag1 (lock): hold the resource lock for the walk; flag2 (includeLegacy): also the
// resource's legacy entry when one exists. Returns the number appended, or the negated status
// (-8 erroneous, -16 lock not obtained). Nothing is merged or moved.
RH_EXPORT int getLocations_(const char* repository, const char* resource,
                            std::list<std::string>* locations, bool flag1, bool flag2,
                            DBConnector* db);
// The handler's list of directories deleted by the overload check; owned by the handler and
// valid only while the registry keeps that handler (no reference protects it).
RH_EXPORT std::list<std::string>* getDeletedDirs_(const char* repository, DBConnector* db);
}  // extern "C"
#endif
