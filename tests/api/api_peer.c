/* A test program for the end-to-end tests, started through ipc_run_test.
 * It registers as " -d DEV" item 7, echoes every command back with event + 1,
 * and on command 901 leaves in order, on 902 dies without a word. */
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "vexatool.h"

enum { PEER_ITEM = 7, LEAVE = 901, DIE = 902 };

static atomic_int g_command;
static void* _Atomic g_client;

static int on_message(void* user, int32_t test_item, int32_t event_id, const char* dev,
                      int32_t time_sec, int32_t time_usec, const char* data, int32_t data_len) {
    (void)user;
    (void)test_item;
    (void)dev;
    (void)time_sec;
    (void)time_usec;
    if (event_id == LEAVE || event_id == DIE || event_id == CLIENT_IPC_DISCONNECTED) {
        atomic_store(&g_command, event_id);
        return 0;
    }
    /* A command can arrive before ipc_init_client2 has returned the handle. */
    while (atomic_load(&g_client) == NULL)
        usleep(100);
    ipc_send_message(atomic_load(&g_client), event_id + 1, data, data_len);
    return 0;
}

int main(int argc, char** argv) {
    const char* address = NULL;
    const char* dev = "peer";
    for (int i = 1; i + 1 < argc; ++i) {
        if (strcmp(argv[i], "-t") == 0)
            address = argv[i + 1];
        if (strcmp(argv[i], "-d") == 0)
            dev = argv[i + 1];
    }
    if (address == NULL)
        return 2;
    void* client = ipc_init_client2(address, on_message, NULL, dev, PEER_ITEM, 5000);
    if (client == NULL)
        return 3;
    atomic_store(&g_client, client);
    while (atomic_load(&g_command) == 0)
        usleep(2000);
    if (atomic_load(&g_command) == DIE)
        _exit(0);
    ipc_uninit_client(client);
    return 0;
}
