/* A test delivered as a shared object. Built three times: with both entry
 * points, without release_test_so (VEXA_NO_RELEASE) and without run_test_so
 * (VEXA_NO_RUN). Each call appends one line to the file named by
 * VEXA_TEST_SO_RECORD; a null text is written as (null). */
#include <stdio.h>
#include <stdlib.h>

#define EXPORT __attribute__((visibility("default")))

static FILE* open_record(void) {
    const char* path = getenv("VEXA_TEST_SO_RECORD");
    return path != NULL ? fopen(path, "a") : NULL;
}

#ifndef VEXA_NO_RUN
static const char* text_or_null(const char* text) {
    return text != NULL ? text : "(null)";
}

EXPORT int run_test_so(const char* serv_path, const char* d_value, const char* extra_args) {
    FILE* out = open_record();
    if (out != NULL) {
        fprintf(out, "run_test_so serv=%s d=%s extra=%s\n", text_or_null(serv_path),
                text_or_null(d_value), text_or_null(extra_args));
        fclose(out);
    }
    return 0;
}
#endif

#ifndef VEXA_NO_RELEASE
EXPORT void release_test_so(void) {
    FILE* out = open_record();
    if (out != NULL) {
        fputs("release_test_so\n", out);
        fclose(out);
    }
}
#endif
