/*
 * libvexatool64: launch test programs and exchange framed messages with them
 * over TCP on the loopback interface.
 *
 * Conventions
 * - A host application uses the server half: ipc_init_server, ipc_run_test,
 *   ipc_send_command, ipc_kill_client, ipc_set_su_file_path, ipc_uninit_server.
 *   A test program uses the client half: ipc_init_client, ipc_init_client2,
 *   ipc_send_message, ipc_uninit_client.
 * - Handles are opaque. The caller owns a handle from its creation until the
 *   matching ipc_uninit_* call, which destroys it; using a handle after that,
 *   or releasing it twice, is not allowed. Every function accepts a null handle
 *   and then does nothing (returning null, false or 0).
 * - A creation function returns null when the endpoint cannot be made (bad
 *   address, port in use, nothing listening...). The reason is written only to
 *   the endpoint's log file.
 * - Callbacks run on the endpoint's own processing thread, never on the
 *   caller's. They may send from inside the call. Releasing the endpoint from
 *   inside its own callback is refused (logged; the handle stays valid). The
 *   device string and data pointers are valid only during the call; data is
 *   NUL-terminated after data_len bytes. The callback's result is not used.
 * - Sends may come from any thread; a message goes out whole or, when its
 *   write fails halfway, its connection is shut down. Sends to one client wait
 *   only for that client. A message body holds 0 to IPC_MAX_DATA_LEN - 1 bytes.
 * - Logs go to "/mnt/sdcard/vexa/" on the device; the library writes nothing to
 *   standard output.
 */
#ifndef VEXATOOL_H
#define VEXATOOL_H

#ifndef __cplusplus
#include <stdbool.h>
#endif
#include <stdint.h>

#if defined(_WIN32)
#define VEXA_API
#elif defined(__GNUC__) || defined(__clang__)
#define VEXA_API __attribute__((visibility("default")))
#else
#define VEXA_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Event codes that the library itself produces or acts on. All other event
 * ids belong to the host and the test programs and pass through unchanged. */
enum {
    CLIENT_IPC_CONFIG = 9001,       /* client -> server: registration, body = 4-byte pid */
    CLIENT_IPC_EXIT = 9002,         /* client -> server: asks to close */
    CLIENT_IPC_EXIT_ACK = 9003,     /* server -> client: close granted */
    CLIENT_IPC_CLOSED = 9005,       /* to the host: a client closed in order */
    CLIENT_IPC_OFFLINE = 9006,      /* to the host: a registered client's connection broke */
    CLIENT_IPC_DISCONNECTED = 1006, /* to a test: its server went away, body = int32 -900 */
    IPC_ERR_SERVER_CLOSED = -900,   /* the body of CLIENT_IPC_DISCONNECTED */
    IPC_MAX_DATA_LEN = 512000       /* exclusive upper bound of a message body's length */
};

/* Receives the clients' messages and the server's notices (9001, 9005, 9006). */
typedef int (*ServerCallback)(void* user, int32_t test_item, int32_t event_id, const char* dev,
                              int32_t time_sec, int32_t time_usec, const char* data,
                              int32_t data_len);
/* Receives the server's messages and CLIENT_IPC_DISCONNECTED. */
typedef int (*ClientCallback)(void* user, int32_t test_item, int32_t event_id, const char* dev,
                              int32_t time_sec, int32_t time_usec, const char* data,
                              int32_t data_len);

/* ---- Server half (host application) ---- */

/* Listens on "tcp://:PORT" (127.0.0.1) or "tcp://IP:PORT". Null on failure.
 * The callback is required. */
VEXA_API void* ipc_init_server(const char* serv_path, ServerCallback callback, void* user);
/* Stops the server's threads, closes every connection and destroys it. */
VEXA_API void ipc_uninit_server(void* server);
/* Starts a test: a path ending in ".so" is loaded into this process and its
 * run_test_so(serv_path, d_value, extra_args) is called; anything else is
 * started as a program through the su prefix with " -t <address>", then
 * " -d <d_value>" and the extra arguments when given. False when server or test is
 * null, otherwise true (the test proves itself by registering). */
VEXA_API bool ipc_run_test(void* server, const char* test, const char* d_value,
                           const char* extra_args);
/* Sends one message to the client registered under dev and test_item (a null
 * dev counts as ""). Nothing happens for a negative length. */
VEXA_API void ipc_send_command(void* server, const char* dev, int32_t test_item, int32_t event_id,
                               const void* data, int32_t data_len);
/* Waits until 500 ms have passed since the last test program was started. */
VEXA_API void ipc_kill_client(void* server);
/* Sets the prefix that starts test programs (default "su -c"; "" starts them
 * directly) and a shell command run before them inside it. All three must be
 * non-null. */
VEXA_API void ipc_set_su_file_path(void* server, const char* su_file_path, const char* su_pre_cmd);

/* ---- Client half (test program) ---- */

/* Connects (blocking) to the server address a test receives after " -t ",
 * registers under dev and test_item, and, when a callback is given, starts
 * receiving on its own thread. Null on failure. */
VEXA_API void* ipc_init_client(const char* serv_path, ClientCallback callback, void* user,
                               const char* dev, int32_t test_item);
/* As ipc_init_client; a connect_timeout_ms above 0 gives up connecting after
 * that many milliseconds. */
VEXA_API void* ipc_init_client2(const char* serv_path, ClientCallback callback, void* user,
                                const char* dev, int32_t test_item, int32_t connect_timeout_ms);
/* Sends one message to the server. False for a null handle, a negative or too
 * large length, or a connection that is gone. */
VEXA_API bool ipc_send_message(void* client, int32_t event_id, const void* data, int32_t data_len);
/* Asks the server to close (waits up to 2000 ms for its answer), stops the
 * receiving thread and destroys the client. */
VEXA_API void ipc_uninit_client(void* client);

#ifdef __cplusplus
}
#endif

#endif /* VEXATOOL_H */
