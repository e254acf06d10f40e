/*
 * An example test program. The host starts it with " -t <address>", and
 * " -d <device>" when it was given one; other arguments are ignored so that a
 * host's extra arguments do no harm. It registers as (device, item 1) and holds
 * the conversation of example_session.h.
 *
 * Exit status: 0 after an orderly leave, 1 when the host cannot be reached,
 * 2 when the host went away first, 64 for a missing -t.
 */
#include <stdio.h>
#include <string.h>

#include "example_session.h"

enum { EXAMPLE_PROGRAM_ITEM = 1, EXIT_USAGE = 64 };

int main(int argc, char** argv) {
    const char* addr = NULL;
    const char* dev = "example";
    struct example_session session;
    int result;
    int i;

    for (i = 1; i + 1 < argc; ++i) {
        if (strcmp(argv[i], "-t") == 0)
            addr = argv[++i];
        else if (strcmp(argv[i], "-d") == 0)
            dev = argv[++i];
    }
    if (addr == NULL) {
        fprintf(stderr, "usage: %s -t ADDRESS [-d DEVICE] [ignored arguments...]\n", argv[0]);
        return EXIT_USAGE;
    }

    if (example_session_init(&session) != 0) {
        fprintf(stderr, "%s: out of resources\n", argv[0]);
        return EXAMPLE_NO_CONNECTION;
    }
    result = example_session_run(&session, addr, dev, EXAMPLE_PROGRAM_ITEM);
    example_session_destroy(&session);

    if (result == EXAMPLE_NO_CONNECTION)
        fprintf(stderr, "%s: cannot reach the host at %s\n", argv[0], addr);
    else if (result == EXAMPLE_SERVER_GONE)
        fprintf(stderr, "%s: the host went away\n", argv[0]);
    return result;
}
