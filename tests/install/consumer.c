/* Links against the library (installed, or added as a subproject) and calls it
 * with null handles, which every function accepts without creating an endpoint. */
#include <stdio.h>

#include <vexatool.h>

int main(void) {
    ipc_uninit_server(NULL);
    ipc_uninit_client(NULL);
    if (ipc_run_test(NULL, "t", NULL, NULL) || ipc_send_message(NULL, 1, "x", 1)) {
        printf("consumer: unexpected result\n");
        return 1;
    }
    printf("consumer: linked against libvexatool64 %s (max body %d bytes)\n", VEXA_VERSION_STRING,
           IPC_MAX_DATA_LEN - 1);
    return 0;
}
