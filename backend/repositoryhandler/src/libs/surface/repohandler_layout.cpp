// Exported functions of the hashed layout that need no repository.

#include "KSPathUtils.h"
#include "repohandler.h"

char* convertToHashed(const char* path, bool hashLast) {
    return convertToHashed_(path, hashLast);
}

int createHashDirectory(const char* legacyRoot, const char* mountRoot, const char* relPath) {
    return createDirectory(legacyRoot, mountRoot, relPath);
}

int removeHashDirectory(const char* legacyRoot, const char* mountRoot, const char* relPath) {
    return removeDirectory(legacyRoot, mountRoot, relPath);
}

int createHashDirectoryForFile(const char* mountRoot, const char* relFile) {
    return createDirectoryForFile(mountRoot, relFile);
}

int removeHashDirectoryForFile(const char* mountRoot, const char* relFile) {
    return removeDirectoryForFile(mountRoot, relFile);
}
