/* Links against the installed library and calls it with null handles, which
 * every function accepts without creating an endpoint. */
#include <stdio.h>

#include <vexatool.h>

int main(void) {
    ipc_uninit_server(NULL);
    ipc_uninit_client(NULL);
    if (ipc_run_test(NULL, "t", NULL, NULL) || ipc_send_message(NULL, 1, "x", 1)) {
        printf("consumer: unexpected result\n");
        return 1;
    }
    printf("consumer: linked against the installed libvexatool64 (max body %d bytes)\n",
           IPC_MAX_DATA_LEN - 1);
    return 0;
}
