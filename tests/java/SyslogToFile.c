// Preloaded (LD_PRELOAD) into the JVM of the Java tests: every syslog message of the process is
// appended to the file named by the environment variable RH_SYSLOG_FILE instead of reaching the
// system log, one line per message: ident, facility, level and text separated by tabs (line
// breaks inside the text become blanks). Without RH_SYSLOG_FILE messages are dropped.
#define _GNU_SOURCE
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

static pthread_mutex_t captureLock = PTHREAD_MUTEX_INITIALIZER;
static char captureIdent[128];
static int captureFacility = LOG_USER;

void openlog(const char* ident, int option, int facility) {
    (void)option;
    pthread_mutex_lock(&captureLock);
    snprintf(captureIdent, sizeof captureIdent, "%s", ident ? ident : "");
    captureFacility = facility;
    pthread_mutex_unlock(&captureLock);
}

void closelog(void) {}

void vsyslog(int priority, const char* format, va_list args) {
    const char* path = getenv("RH_SYSLOG_FILE");
    char* text = NULL;
    if (!path || !format || vasprintf(&text, format, args) < 0) return;
    for (char* c = text; *c; ++c) {
        if (*c == '\n' || *c == '\r' || *c == '\t') *c = ' ';
    }
    pthread_mutex_lock(&captureLock);
    int facility = (priority & LOG_FACMASK) ? (priority & LOG_FACMASK) : captureFacility;
    char* line = NULL;
    int length = asprintf(&line, "%s\t%d\t%d\t%s\n", captureIdent, facility >> 3,
                          priority & LOG_PRIMASK, text);
    // One write with O_APPEND keeps lines whole even when a child JVM writes to the same file.
    int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd >= 0 && length > 0) {
        ssize_t written = write(fd, line, (size_t)length);
        (void)written;
    }
    if (fd >= 0) close(fd);
    pthread_mutex_unlock(&captureLock);
    free(line);
    free(text);
}

void syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsyslog(priority, format, args);
    va_end(args);
}

void __vsyslog_chk(int priority, int flag, const char* format, va_list args) {
    (void)flag;
    vsyslog(priority, format, args);
}

void __syslog_chk(int priority, int flag, const char* format, ...) {
    (void)flag;
    va_list args;
    va_start(args, format);
    vsyslog(priority, format, args);
    va_end(args);
}
