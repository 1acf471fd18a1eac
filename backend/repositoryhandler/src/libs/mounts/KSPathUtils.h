#pragma once

// Path utilities and the hashed layout. A resource R lives on mount M at
// M + "/" + AB/CD/EF/ + R: three hash levels of two characters from a 37-letter alphabet.
//
// Ownership: every char* returned here is a new[] array the caller deletes with delete[]
// (normalize_file_name, declared in repohandler.h, is the exception: malloc/free).
// A null result means no such path or failure, never an empty text.
// All functions are stateless and thread-safe.

#include <sys/stat.h>

#include <ctime>
#include <list>
#include <string>

// Hash prefix ("AB/CD/EF/") immediately followed by `name`.
char* createHash(const char* name);
char* append0(const char* a, const char* b);
char* append(char* a, const char* b);  // deletes `a`
char* baseDir(const char* path);       // up to and including the last slash; null without one
char* parentDir(const char* path);     // the directory above baseDir(path), with its slash
// "KSRepositoryHandler-" + repository + "-" + resource, slashes replaced by underscores.
char* toResourceID(const char* repository, const char* resource);
// The location of `resource` on the mount at `mountPath` (no trailing slash).
std::string resourceLocation(const std::string& mountPath, const char* resource);
// A single path component that is safe to place on a mount: not empty, not "." or "..",
// no slash, no NUL, not beginning with ".rh-partial." (the staging names of KSPartialCopy.h). Names failing this are refused by every operation.
bool isSafeResourceName(const char* resource);
// The strerror text of `error` (thread-safe).
std::string errnoText(int error);

bool exists(const char* path);
bool isNotLink(const char* path);
bool isDangling(const char* path);
void mylink(const char* legacyRoot, const char* mountRoot, const char* relPath);
int myunlink(const char* path);
// Creates path and its missing ancestors: 0, or -1 when an ancestor cannot be made (or path is
// null). The empty path makes nothing and answers 0. A level that another process makes at the
// same moment counts as made.
int mkdirs(const char* path, mode_t mode);
int myStat(const char* path, struct stat* out);                      // 0 or 8; null arguments throw
int isDir(const char* path, bool* isDirectory, struct stat* known);  // null isDirectory throws
time_t lastAccess(const char* path, struct stat* known);
time_t lastModified(const char* path);
time_t lastModified2(const char* path);
long getSize(const char* path, struct stat* known);
// Appends the entries of path to names; the size of names afterwards (0 when names is null).
// Without plainOpen the scan keeps access times (O_NOATIME), except in directories of others,
// where the kernel refuses that flag to an unprivileged caller and a plain open is used.
int listDir(const char* path, std::list<std::string>* names, bool plainOpen, bool skipDirectories);
// Renews the times of the hash levels above path and of the mount (the level directly above
// path: its modification time only).
void touchHashedDirs(const char* path);
// Once path (a resource on a mount: mount/AB/CD/EF/name) is gone, removes up to three empty
// directories above it; files are never removed, and neither is a level reserved for another
// resource (see prepareHashLevels). Safe against concurrent creators; the protocol is explained
// in KSPathUtils.cpp.
void clearEmptyHash(const char* path);
// Removes the hash levels `levels` ("AB/CD/EF", or fewer: "AB/CD") of `mount` as far as they are
// empty and the last is not reserved, never more levels than `levels` names: the clean-up of
// levels that a reservation kept.
void clearEmptyHashLevels(const std::string& mount, const std::string& levels);
// True while a reservation made by prepareHashLevels runs on the directory `level`: an empty
// level is then about to receive its resource and is not left over.
bool hashLevelReserved(const std::string& level);
// Creates `levels` (below the directory `mount`, e.g. mount + "/AB/CD/EF/") and reserves the
// last of them for the resource `name`: for the next two minutes no clean-up removes it, so a
// caller can create the resource there after this returns. false (errno set) when the levels
// could not be created.
bool prepareHashLevels(const std::string& mount, const std::string& levels, const char* name);

// Relative paths with a "." or ".." component are refused (logged): create returns 1, remove -1.
// removeDirectory unlinks only symbolic links on the legacy side (a plain file there is kept)
// and does no legacy work when legacyRoot holds no slash. The removals answer -1 for a mount
// root without a slash and for an empty or all-slash relative path (which would name the mount
// root), as for a first level that cannot be removed.
int createDirectory(const char* legacyRoot, const char* mountRoot, const char* relPath);
int removeDirectory(const char* legacyRoot, const char* mountRoot, const char* relPath);
int createDirectoryForFile(const char* mountRoot, const char* relFile);
int removeDirectoryForFile(const char* mountRoot, const char* relFile);
