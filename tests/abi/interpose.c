// SPDX-License-Identifier: LGPL-2.1-or-later
/* A program that defines a function of the library's own, time_string(), for
 * itself. The library's trace lines keep the library's time stamp: its calls
 * to its own functions never reach the program's. Exit 77 (skipped) where the
 * trace log cannot be written, as for an unprivileged user. */
#include <tavro-quenda.h>

#include <stdio.h>
#include <string.h>
#include <unistd.h>

char *time_string(void)
{
    static char text[] = "APPLICATION-TIME";
    return text;
}

int main(void)
{
    if (strcmp(time_string(), "APPLICATION-TIME") != 0)
        return 1;
    char probe[64];
    snprintf(probe, sizeof probe, "interposition probe %ld", (long)getpid());
    if (!quenda_trace("%s", probe)) {
        printf("the trace log cannot be written here; nothing to check\n");
        return 77;
    }
    FILE *log = fopen("/var/log/tavro-quenda/libtavro-quenda.log", "r");
    if (!log)
        return 77;
    char line[1024], found[1024] = "";
    while (fgets(line, sizeof line, log))
        if (strstr(line, probe))
            strcpy(found, line);
    fclose(log);
    printf("trace line: %s", found);
    /* "YYYY-MM-DD HH:MM:SS.mmm [pid]: message" */
    return found[0] >= '0' && found[0] <= '9' && found[4] == '-' && !strstr(found, "APPLICATION-TIME") ? 0 : 2;
}
