/*
 * The conversation both example tests hold with their host, written once so
 * that the program (example_test_program.c) and the shared object (example_test_so.c)
 * behave alike:
 *
 *   test -> host  1000 "hello from <dev>"  right after connecting
 *   host -> test  2000 <text>              echo request
 *   test -> host  2001 <text>              the same body back
 *   host -> test  2099                     leave
 *   test -> host  2098 "bye"               then the test releases its client
 */
#ifndef VEXA_EXAMPLE_SESSION_H
#define VEXA_EXAMPLE_SESSION_H

#include <pthread.h>
#include <stdint.h>

enum {
    EXAMPLE_EVENT_HELLO = 1000,
    EXAMPLE_EVENT_ECHO = 2000,
    EXAMPLE_EVENT_ECHO_REPLY = 2001,
    EXAMPLE_EVENT_BYE = 2098,
    EXAMPLE_EVENT_LEAVE = 2099
};

/* How long a test tries to reach its host before it gives up. */
enum { EXAMPLE_CONNECT_TIMEOUT_MS = 3000 };

/* Results of example_session_run, usable as a program's exit code. */
enum {
    EXAMPLE_LEFT = 0,          /* the host said 2099 and the test left in order */
    EXAMPLE_NO_CONNECTION = 1, /* the host could not be reached */
    EXAMPLE_SERVER_GONE = 2,   /* the host went away (1006) before saying 2099 */
    EXAMPLE_CANCELLED = 3      /* example_session_cancel ended the conversation */
};

struct example_session {
    pthread_mutex_t lock;
    pthread_cond_t changed; /* signalled whenever a field below changes */
    /* The rest is guarded by lock. */
    void* client;
    int leave;
    int server_gone;
    int cancelled;
};

/* Prepares a session for one run. 0 on success. */
int example_session_init(struct example_session* session);
/* Releases what init made; the run must be over. */
void example_session_destroy(struct example_session* session);
/* Connects to addr as (dev, item), holds the conversation above and releases
 * the client on the calling thread. Blocks until the host says 2099, the host
 * goes away or the session is cancelled; returns one of the results above. */
int example_session_run(struct example_session* session, const char* addr, const char* dev,
                        int32_t item);
/* Makes a running (or the next) example_session_run return EXAMPLE_CANCELLED.
 * Any thread. */
void example_session_cancel(struct example_session* session);

#endif /* VEXA_EXAMPLE_SESSION_H */
