// A host and a test in Kotlin: each listener answers through the event it is given.
package org.vexatool

import java.net.InetAddress
import java.net.ServerSocket
import java.util.concurrent.ArrayBlockingQueue
import java.util.concurrent.TimeUnit

fun main() {
    val port = ServerSocket(0, 1, InetAddress.getLoopbackAddress()).use { it.localPort }
    val address = "tcp://:$port"
    val echoed = ArrayBlockingQueue<String>(1)
    VexaServer.start(address) { event ->
        when (event.eventId) {
            VexaEvents.CLIENT_IPC_CONFIG -> event.reply(100, "ping".toByteArray())
            101 -> echoed.add(String(event.data))
        }
    }.use {
        // The ping may come before connect returns; the reply waits for the client.
        VexaClient.connect(address, "kotlin", 1, 3000) { event ->
            event.reply(event.eventId + 1, event.data)
        }.use {
            check(echoed.poll(30, TimeUnit.SECONDS) == "ping") { "no echo of the ping" }
        }
    }
}
