#include "example_session.h"

#include <stdio.h>
#include <string.h>

#include "vexatool.h"

/* Runs on the client's receiving thread. */
static int on_message(void* user, int32_t test_item, int32_t event_id, const char* dev,
                      int32_t time_sec, int32_t time_usec, const char* data, int32_t data_len) {
    struct example_session* session = (struct example_session*)user;
    void* client;
    (void)test_item;
    (void)dev;
    (void)time_sec;
    (void)time_usec;

    pthread_mutex_lock(&session->lock);
    switch (event_id) {
        case EXAMPLE_EVENT_ECHO:
            /* The host may answer the registration before ipc_init_client2 has
             * returned the handle to the main thread, so wait for it here. */
            while (session->client == NULL && !session->cancelled)
                pthread_cond_wait(&session->changed, &session->lock);
            client = session->client;
            pthread_mutex_unlock(&session->lock);
            /* Sending from inside the callback is allowed; the lock is not held
             * so that the main thread is never kept waiting on the network. */
            if (client != NULL)
                ipc_send_message(client, EXAMPLE_EVENT_ECHO_REPLY, data, data_len);
            return 0;
        case EXAMPLE_EVENT_LEAVE:
            session->leave = 1;
            break;
        case CLIENT_IPC_DISCONNECTED:
            session->server_gone = 1;
            break;
        default:
            break;
    }
    pthread_cond_broadcast(&session->changed);
    pthread_mutex_unlock(&session->lock);
    return 0;
}

int example_session_init(struct example_session* session) {
    memset(session, 0, sizeof(*session));
    if (pthread_mutex_init(&session->lock, NULL) != 0)
        return -1;
    if (pthread_cond_init(&session->changed, NULL) != 0) {
        pthread_mutex_destroy(&session->lock);
        return -1;
    }
    return 0;
}

void example_session_destroy(struct example_session* session) {
    pthread_cond_destroy(&session->changed);
    pthread_mutex_destroy(&session->lock);
}

int example_session_run(struct example_session* session, const char* addr, const char* dev,
                        int32_t item) {
    char hello[128];
    int result;
    int len;
    void* client =
        ipc_init_client2(addr, on_message, session, dev, item, EXAMPLE_CONNECT_TIMEOUT_MS);
    if (client == NULL)
        return EXAMPLE_NO_CONNECTION;

    pthread_mutex_lock(&session->lock);
    session->client = client;
    pthread_cond_broadcast(&session->changed);
    pthread_mutex_unlock(&session->lock);

    len = snprintf(hello, sizeof(hello), "hello from %s", dev);
    if (len > (int)sizeof(hello) - 1)
        len = (int)sizeof(hello) - 1;
    ipc_send_message(client, EXAMPLE_EVENT_HELLO, hello, len);

    pthread_mutex_lock(&session->lock);
    while (!session->leave && !session->server_gone && !session->cancelled)
        pthread_cond_wait(&session->changed, &session->lock);
    if (session->leave)
        result = EXAMPLE_LEFT;
    else if (session->server_gone)
        result = EXAMPLE_SERVER_GONE;
    else
        result = EXAMPLE_CANCELLED;
    pthread_mutex_unlock(&session->lock);

    if (result == EXAMPLE_LEFT)
        ipc_send_message(client, EXAMPLE_EVENT_BYE, "bye", 3);
    /* Released here, never in on_message: uninit joins the thread that runs
     * the callback. */
    ipc_uninit_client(client);

    pthread_mutex_lock(&session->lock);
    session->client = NULL;
    pthread_mutex_unlock(&session->lock);
    return result;
}

void example_session_cancel(struct example_session* session) {
    pthread_mutex_lock(&session->lock);
    session->cancelled = 1;
    pthread_cond_broadcast(&session->changed);
    pthread_mutex_unlock(&session->lock);
}
