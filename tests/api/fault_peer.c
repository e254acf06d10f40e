/* A helper process of the fault tests, killed with SIGKILL by the test.
 *
 *   fault_peer server ADDRESS
 *       A host: ipc_init_server(ADDRESS) that echoes every application message
 *       to its sender with the same event id and body. Prints "ready" once
 *       listening ("failed" and exit status 1 when it cannot listen), then
 *       waits to be killed.
 *   fault_peer partial PORT REGISTER DEV ITEM ANNOUNCED SENT
 *       A client written on a raw socket: connects to 127.0.0.1:PORT, sends
 *       the registration of DEV / ITEM when REGISTER is 1, then a head
 *       announcing ANNOUNCED body bytes followed by only SENT of them. Prints
 *       "ready" once all of it is written, then waits to be killed in the
 *       middle of that body.
 *
 * Exit status 2 for a usage error, 3 when the connection fails. */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "vexatool.h"

enum { HEAD_SIZE = 100, PARTIAL_EVENT = 4242 };

static void* _Atomic g_server;

static int on_host_event(void* user, int32_t test_item, int32_t event_id, const char* dev,
                         int32_t time_sec, int32_t time_usec, const char* data, int32_t data_len) {
    (void)user;
    (void)time_sec;
    (void)time_usec;
    if (event_id == CLIENT_IPC_CONFIG || event_id == CLIENT_IPC_CLOSED ||
        event_id == CLIENT_IPC_OFFLINE)
        return 0;
    /* The first client can register before ipc_init_server has returned. */
    while (atomic_load(&g_server) == NULL)
        usleep(100);
    ipc_send_command(atomic_load(&g_server), dev, test_item, event_id, data, data_len);
    return 0;
}

static int run_server(const char* address) {
    void* server = ipc_init_server(address, on_host_event, NULL);
    if (server == NULL) {
        printf("failed\n");
        fflush(stdout);
        return 1;
    }
    atomic_store(&g_server, server);
    printf("ready\n");
    fflush(stdout);
    for (;;)
        pause();
}

static void put_be32(unsigned char* at, int32_t value) {
    uint32_t v = (uint32_t)value;
    at[0] = (unsigned char)(v >> 24);
    at[1] = (unsigned char)(v >> 16);
    at[2] = (unsigned char)(v >> 8);
    at[3] = (unsigned char)v;
}

static void make_head(unsigned char* head, const char* dev, int32_t item, int32_t event,
                      int32_t length) {
    size_t n = strlen(dev);
    memset(head, 0, HEAD_SIZE);
    memcpy(head, dev, n < 79 ? n : 79);
    put_be32(head + 80, item);
    put_be32(head + 84, event);
    put_be32(head + 96, length);
}

static int write_all(int fd, const void* data, size_t size) {
    const unsigned char* at = data;
    while (size > 0) {
        ssize_t n = send(fd, at, size, MSG_NOSIGNAL);
        if (n <= 0)
            return 0;
        at += n;
        size -= (size_t)n;
    }
    return 1;
}

static int run_partial(int port, int reg, const char* dev, int32_t item, int32_t announced,
                       int32_t sent) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_port = htons((uint16_t)port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || connect(fd, (struct sockaddr*)&addr, sizeof(addr)) != 0)
        return 3;

    unsigned char head[HEAD_SIZE];
    if (reg) {
        int32_t pid = (int32_t)getpid(); /* native byte order, as a client sends it */
        make_head(head, dev, item, CLIENT_IPC_CONFIG, (int32_t)sizeof(pid));
        if (!write_all(fd, head, sizeof(head)) || !write_all(fd, &pid, sizeof(pid)))
            return 3;
    }
    make_head(head, dev, item, PARTIAL_EVENT, announced);
    unsigned char* body = malloc(sent > 0 ? (size_t)sent : 1);
    if (body == NULL)
        return 3;
    for (int32_t i = 0; i < sent; ++i)
        body[i] = (unsigned char)('a' + i % 26);
    if (!write_all(fd, head, sizeof(head)) || !write_all(fd, body, (size_t)sent))
        return 3;
    free(body);
    printf("ready\n");
    fflush(stdout);
    for (;;)
        pause();
}

int main(int argc, char** argv) {
    if (argc == 3 && strcmp(argv[1], "server") == 0)
        return run_server(argv[2]);
    if (argc == 8 && strcmp(argv[1], "partial") == 0)
        return run_partial(atoi(argv[2]), atoi(argv[3]), argv[4], atoi(argv[5]), atoi(argv[6]),
                           atoi(argv[7]));
    fprintf(stderr,
            "usage: fault_peer server ADDRESS | partial PORT REGISTER DEV ITEM ANNOUNCED SENT\n");
    return 2;
}
