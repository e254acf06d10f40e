/*
 * An example test delivered as a shared object. The host loads it into its own
 * process and calls run_test_so, which must return promptly, so the
 * conversation of example_session.h runs on a thread of its own; the host's
 * release_test_so ends and joins that thread.
 *
 * It registers as item 2, so that it can run beside the example program
 * (item 1) under the same device string.
 */
#include <stdio.h>

#include "example_session.h"

#define EXAMPLE_EXPORT __attribute__((visibility("default")))

enum { EXAMPLE_SO_ITEM = 2 };

/* The host loads one test library at a time and calls the two entry points
 * from its own threads, never both at once, so this state needs no lock. */
static struct example_session g_session;
static pthread_t g_thread;
static int g_started;
static char g_addr[256];
static char g_dev[80];

static void* test_thread(void* arg) {
    (void)arg;
    example_session_run(&g_session, g_addr, g_dev, EXAMPLE_SO_ITEM);
    return NULL;
}

EXAMPLE_EXPORT int run_test_so(const char* serv_path, const char* d_value, const char* extra_args);
EXAMPLE_EXPORT void release_test_so(void);

int run_test_so(const char* serv_path, const char* d_value, const char* extra_args) {
    (void)extra_args;
    if (g_started || serv_path == NULL)
        return -1;
    /* The host's strings need not outlive this call. */
    snprintf(g_addr, sizeof(g_addr), "%s", serv_path);
    snprintf(g_dev, sizeof(g_dev), "%s", d_value != NULL && *d_value != '\0' ? d_value : "so-test");
    if (example_session_init(&g_session) != 0)
        return -1;
    if (pthread_create(&g_thread, NULL, test_thread, NULL) != 0) {
        example_session_destroy(&g_session);
        return -1;
    }
    g_started = 1;
    return 0;
}

void release_test_so(void) {
    if (!g_started)
        return;
    /* A test that already left has nothing to cancel; the join just collects it. */
    example_session_cancel(&g_session);
    pthread_join(g_thread, NULL);
    example_session_destroy(&g_session);
    g_started = 0;
}
