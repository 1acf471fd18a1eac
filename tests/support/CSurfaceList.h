#pragma once

// Every function of the exported C surface with its exact type, as X(name, type). Include it
// after the header under test (repohandler.h or KSRepositoryHandler.h); it includes nothing
// itself. The surface test checks that this list names exactly the unmangled functions that
// librepohandler.so exports, so a function added to the library without a line here fails.
#define RH_C_SURFACE(X)                                                                          \
    X(createDirectory_,                                                                          \
      char*(const char*, const char*, int*, int*, bool, bool, bool, DBConnector*))               \
    X(createLocation_, char*(const char*, const char*, int*, int*, bool, DBConnector*))          \
    X(getLocation_, char*(const char*, const char*, int*, bool, bool, bool, bool, DBConnector*)) \
    X(getLocations_,                                                                             \
      int(const char*, const char*, std::list<std::string>*, bool, bool, DBConnector*))          \
    X(getLocationOnMount_,                                                                       \
      char*(const char*, const char*, const char*, int*, bool, DBConnector*, bool))              \
    X(getRepositoryStatus_, int(const char*, DBConnector*))                                      \
    X(checkResourceStatus_, int(const char*, const char*, DBConnector*))                         \
    X(removeResource_, int(const char*, const char*, bool, bool, DBConnector*))                  \
    X(removeResourceOnMount_,                                                                    \
      int(const char*, const char*, const char*, bool, bool, DBConnector*))                      \
    X(listFiles_, char**(const char*, long*, bool, DBConnector*))                                \
    X(listDirs_, char**(const char*, long*, bool, DBConnector*))                                 \
    X(releaseList_, void(char**, long))                                                          \
    X(createToLegacy_, int(const char*, const char*, DBConnector*))                              \
    X(makeEmpty_, void(const char*, DBConnector*))                                               \
    X(rndMount_, void(const char*, DBConnector*))                                                \
    X(MountUnmount_, int(const char*, int, bool, DBConnector*))                                  \
    X(giveBackMounts_, int(const char*, DBConnector*))                                           \
    X(getDeletedDirs_, std::list<std::string>*(const char*, DBConnector*))                       \
    X(checkOverload_, void(const char*, bool, bool, DBConnector*))                               \
    X(freeMount_, int(const char*, const char*, bool, DBConnector*))                             \
    X(getTimeProperties_, int(const char*, const char*, struct utimbuf*, DBConnector*))          \
    X(setTimeProperties_, bool(const char*, const char*, const struct utimbuf*, DBConnector*))   \
    X(lockResource_, int(const char*, const char*, DBConnector*))                                \
    X(unlockResource_, int(const char*, const char*, DBConnector*))                              \
    X(isDirty_, int(const char*, const char*, DBConnector*))                                     \
    X(setDirty_, void(const char*, const char*, bool, DBConnector*))                             \
    X(getMountPathForDirectory_, char*(const char*, const char*, DBConnector*))                  \
    X(getMountFromPath_, char*(const char*, const char*, DBConnector*))                          \
    X(unAge_, char*(const char*, const char*, DBConnector*))                                     \
    X(setup_, time_t(const char*, DBConnector*))                                                 \
    X(release, void(char*))                                                                      \
    X(release_, void(char*))                                                                     \
    X(convertToHashed_, char*(const char*, bool))                                                \
    X(convertToHashed, char*(const char*, bool))                                                 \
    X(createHashDirectory, int(const char*, const char*, const char*))                           \
    X(removeHashDirectory, int(const char*, const char*, const char*))                           \
    X(createHashDirectoryForFile, int(const char*, const char*))                                 \
    X(removeHashDirectoryForFile, int(const char*, const char*))                                 \
    X(normalize_file_name, char*(const char*))
