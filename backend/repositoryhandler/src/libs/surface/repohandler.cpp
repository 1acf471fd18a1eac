// The exported C surface: each function finds the repository's handler in the registry, picks
// the connector and calls one operation. No exception is caught here.

#include "repohandler.h"

#include <string>

#include "KSException.h"
#include "KSRepositoryHandler.h"
#include "KSStatus.h"
#include "KSRepositoryPin.h"

int getRepositoryStatus_(const char* repository, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    return repo->checkRepositoryStatus();
}

void rndMount_(const char* repository, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    repo->rndMount();
}

int MountUnmount_(const char* repository, int mountIndex, bool mount, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    return repo->MountUnmount(mountIndex, mount);
}

int giveBackMounts_(const char* repository, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    return repo->giveBackMounts();
}

time_t setup_(const char* repository, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    const std::string path = repo->path();
    return repo->setup(repo->getDbConnector(db), path.c_str());
}

void release(char* text) {
    delete[] text;
}

void release_(char* text) {
    delete[] text;
}

// ---- placement: lookup, creation, removal, legacy, time properties ------------------------

char* createDirectory_(const char* repository, const char* resource, int* status,
                       int* secondStatus, bool flag1, bool flag2, bool flag3, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    return repo->createDirectory(repo->getDbConnector(db), resource, status, secondStatus, flag1,
                                 flag2, flag3);
}

char* createLocation_(const char* repository, const char* resource, int* status, int* existed,
                      bool noDirty, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    return repo->createLocation(repo->getDbConnector(db), resource, status, existed, noDirty);
}

char* getLocation_(const char* repository, const char* resource, int* status, bool touch,
                   bool lock, bool useCallback, bool onlyIfDirty, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    return repo->getLocation(repo->getDbConnector(db), resource, status, touch,
                             lock && !repo->isSingleMountNonClearable(), useCallback, onlyIfDirty);
}

int getLocations_(const char* repository, const char* resource,
                  std::list<std::string>* locations, bool flag1, bool flag2, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    return repo->getLocations(repo->getDbConnector(db), resource, locations, flag1, flag2);
}

char* getLocationOnMount_(const char* repository, const char* resource, const char* mount,
                          int* status, bool lock, DBConnector* db, bool touch) {
    KSRepositoryPin repo(db, repository, false);
    return repo->getLocationOnMount(repo->getDbConnector(db), resource, mount, status,
                                    lock && !repo->isSingleMountNonClearable(), touch);
}

int checkResourceStatus_(const char* repository, const char* resource, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    return repo->checkResourceStatus(repo->getDbConnector(db), resource);
}

int removeResource_(const char* repository, const char* resource, bool lock, bool useCallback,
                    DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    return repo->removeResource(repo->getDbConnector(db), resource, lock, useCallback);
}

int removeResourceOnMount_(const char* repository, const char* resource, const char* mount,
                           bool lock, bool useCallback, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    return repo->removeResourceOnMount(repo->getDbConnector(db), resource, mount, lock,
                                       useCallback);
}

char** listFiles_(const char* repository, long* count, bool flag, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    return repo->listResources(2, count, flag);
}

char** listDirs_(const char* repository, long* count, bool flag, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    return repo->listResources(1, count, flag);
}

void releaseList_(char** list, long count) {
    if (list == nullptr) return;
    for (long i = 0; i < count; ++i) delete[] list[i];
    delete[] list;
}

int createToLegacy_(const char* repository, const char* resource, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    char* created = repo->createToLegacy(resource);
    delete[] created;
    return created != nullptr ? 0 : -1;
}

void makeEmpty_(const char* repository, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    repo->makeEmpty(repo->getDbConnector(db));
}

int getTimeProperties_(const char* repository, const char* resource, struct utimbuf* times,
                       DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    return repo->getTimeProperties(repo->getDbConnector(db), resource, times) ? 1 : 0;
}

bool setTimeProperties_(const char* repository, const char* resource,
                        const struct utimbuf* times, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    return repo->setTimeProperties(repo->getDbConnector(db), resource, times);
}

char* getMountPathForDirectory_(const char* repository, const char* directory, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    return repo->getMountPathForDirectory(repo->getDbConnector(db), directory);
}

char* getMountFromPath_(const char* repository, const char* path, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    return repo->getMountFromPath(repo->getDbConnector(db), path);
}

void checkOverload_(const char* repository, bool verbose, bool night, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    repo->checkOverload(repo->getDbConnector(db), verbose, night);
}

std::list<std::string>* getDeletedDirs_(const char* repository, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    return repo->getDeletedDirs();
}

int freeMount_(const char* repository, const char* mount, bool flag, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    return repo->moveAllResourcesFromMount(repo->getDbConnector(db), mount, flag);
}

char* unAge_(const char* repository, const char* resource, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    return repo->unAge(repo->getDbConnector(db), resource);
}

// ---- coordination: explicit resource locks and dirty flags ---------------------------------

int lockResource_(const char* repository, const char* resource, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    return repo->lockResource(repo->getDbConnector(db), resource);
}

int unlockResource_(const char* repository, const char* resource, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    return repo->unlockResource(repo->getDbConnector(db), resource);
}

int isDirty_(const char* repository, const char* resource, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    return repo->isDirty(repo->getDbConnector(db), resource);
}

void setDirty_(const char* repository, const char* resource, bool dirty, DBConnector* db) {
    KSRepositoryPin repo(db, repository, true);
    // A caller told nothing would take a mark that other processes cannot see for made.
    if (!repo->setDirty(repo->getDbConnector(db), resource, dirty))
        throw KSException(RESOURCE_STATUS_ERRONEOUS,
                          std::string("The dirty flag of \"") + (resource ? resource : "") +
                              "\" could not be written to the .dirty file");
}
