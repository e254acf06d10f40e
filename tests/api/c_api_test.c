/* The public header used from plain C: a server and a client in one process
 * exchange a message each way and close in order. */
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "support/loopback_port.h"
#include "vexatool.h"

static atomic_int g_serverEvents[3]; /* 9001, 42 with "ping", 9005 */
static atomic_int g_clientGotPong;
static void* _Atomic g_server;

static int on_server(void* user, int32_t test_item, int32_t event_id, const char* dev,
                     int32_t time_sec, int32_t time_usec, const char* data, int32_t data_len) {
    (void)user;
    (void)time_sec;
    (void)time_usec;
    if (event_id == CLIENT_IPC_CONFIG && data_len == 4)
        atomic_store(&g_serverEvents[0], 1);
    if (event_id == 42 && data_len == 4 && strcmp(data, "ping") == 0 && strcmp(dev, "c") == 0) {
        atomic_store(&g_serverEvents[1], 1);
        ipc_send_command(atomic_load(&g_server), dev, test_item, 43, "pong", 4);
    }
    if (event_id == CLIENT_IPC_CLOSED)
        atomic_store(&g_serverEvents[2], 1);
    return 0;
}

static int on_client(void* user, int32_t test_item, int32_t event_id, const char* dev,
                     int32_t time_sec, int32_t time_usec, const char* data, int32_t data_len) {
    (void)user;
    (void)test_item;
    (void)dev;
    (void)time_sec;
    (void)time_usec;
    if (event_id == 43 && data_len == 4 && strcmp(data, "pong") == 0) {
        atomic_store(&g_clientGotPong, 1);
    }
    return 0;
}

static int wait_for(atomic_int* flag) {
    for (int i = 0; i < 5000 && !atomic_load(flag); ++i)
        usleep(2000);
    return atomic_load(flag);
}

#define CHECK(cond)                                                            \
    do {                                                                       \
        if (cond) {                                                            \
            ++passed;                                                          \
        } else {                                                               \
            ++failed;                                                          \
            fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #cond); \
        }                                                                      \
    } while (0)

int main(void) {
    int passed = 0;
    int failed = 0;
    char address[64];
    snprintf(address, sizeof(address), "tcp://:%d", vexa_free_loopback_port());

    CHECK(ipc_init_server("udp://:1", on_server, NULL) == NULL);
    void* server = ipc_init_server(address, on_server, NULL);
    atomic_store(&g_server, server);
    CHECK(server != NULL);
    if (server == NULL)
        return 1;

    void* client = ipc_init_client(address, on_client, NULL, "c", 5);
    CHECK(client != NULL);
    CHECK(wait_for(&g_serverEvents[0]));
    CHECK(ipc_send_message(client, 42, "ping", 4));
    CHECK(wait_for(&g_serverEvents[1]));
    CHECK(wait_for(&g_clientGotPong));
    CHECK(!ipc_send_message(client, 42, "x", -1));
    CHECK(!ipc_send_message(NULL, 42, "x", 1));
    ipc_uninit_client(client);
    CHECK(wait_for(&g_serverEvents[2]));
    ipc_uninit_server(server);
    ipc_uninit_server(NULL);
    ipc_uninit_client(NULL);

    printf("%d passed, %d failed\n", passed, failed);
    return failed == 0 ? 0 : 1;
}
