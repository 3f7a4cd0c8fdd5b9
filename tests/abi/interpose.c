// SPDX-License-Identifier: LGPL-2.1-or-later
// A program that defines a function of the library's own, time_string(), for
// itself. The library's trace lines keep the library's time stamp: its calls
// to its own functions never reach the program's. Exit 77 (skipped) where the
// trace log cannot be written, as for an unprivileged user.
#include <tavro-quenda.h>

#include <stdio.h>
#include <string.h>
#include <unistd.h>

char *time_string(void) { return "APPLICATION-TIME"; }

int main(void)
{
    char probe[64], line[1024];
    snprintf(probe, sizeof probe, "interposition probe %ld", (long)getpid());
    FILE *log = quenda_trace("%s", probe) ? fopen("/var/log/tavro-quenda/libtavro-quenda.log", "r") : NULL;
    if (!log)
        return 77;
    int good = 0; // "YYYY-MM-DD HH:MM:SS.mmm [pid]: message"
    while (fgets(line, sizeof line, log))
        if (strstr(line, probe))
            good = line[0] >= '0' && line[0] <= '9' && line[4] == '-' && !strstr(line, "APPLICATION-TIME");
    fclose(log);
    return good ? 0 : 2;
}
