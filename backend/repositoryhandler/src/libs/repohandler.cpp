// The exported C surface: each function finds the repository's handler in the registry, picks
// the connector and calls one operation. No exception is caught here.

#include "repohandler.h"

#include <string>

#include "KSRepositoryHandler.h"

int getRepositoryStatus_(const char* repository, DBConnector* db) {
    auto repo = getRepository(db, repository, true);
    return repo->checkRepositoryStatus();
}

void rndMount_(const char* repository, DBConnector* db) {
    auto repo = getRepository(db, repository, true);
    repo->rndMount();
}

int MountUnmount_(const char* repository, int mountIndex, bool mount, DBConnector* db) {
    auto repo = getRepository(db, repository, true);
    return repo->MountUnmount(mountIndex, mount);
}

int giveBackMounts_(const char* repository, DBConnector* db) {
    auto repo = getRepository(db, repository, true);
    return repo->giveBackMounts();
}

time_t setup_(const char* repository, DBConnector* db) {
    auto repo = getRepository(db, repository, true);
    const std::string path = repo->path();
    return repo->setup(repo->getDbConnector(db), path.c_str());
}

void release(char* text) {
    delete[] text;
}

void release_(char* text) {
    delete[] text;
}
