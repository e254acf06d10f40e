// Compiled by kotlin_null_arguments_test, which expects one error only: the null passed for
// runTest's path on line 10. Kotlin sees which parameters of the binding take null.
import org.vexatool.VexaClient
import org.vexatool.VexaServer

fun allowed(server: VexaServer, client: VexaClient) =
    server.runTest("test", null, null) && server.sendCommand("dev", 1, 2, null) &&
        client.send(1, null)

fun refused(server: VexaServer) = server.runTest(null, null, null)
