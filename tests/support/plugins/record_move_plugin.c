/* A mount's move plug-in for the tests: moves a resource with cp -rp and rm -fr and appends
 * the destination to the file named by its parameter text. Built by the tests themselves. */

#include <stdio.h>
#include <stdlib.h>

int move(const char* origin, const char* destination, const char* params) {
    char command[8192];
    int length = snprintf(command, sizeof command, "cp -rp '%s' '%s' && rm -fr '%s'", origin,
                          destination, origin);
    if (length < 0 || length >= (int)sizeof command) return 8;
    int status = system(command);
    if (status != 0) return status;
    FILE* record = fopen(params, "a");
    if (record == NULL) return 8;
    fprintf(record, "%s\n", destination);
    fclose(record);
    return 0;
}
