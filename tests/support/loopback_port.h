/* A TCP port on 127.0.0.1 that was free a moment ago, for tests in C and C++
 * (defined in framed_peer.cc). */
#ifndef VEXA_TESTS_SUPPORT_LOOPBACK_PORT_H
#define VEXA_TESTS_SUPPORT_LOOPBACK_PORT_H

#ifdef __cplusplus
extern "C" {
#endif

int vexa_free_loopback_port(void);

#ifdef __cplusplus
}
#endif

#endif /* VEXA_TESTS_SUPPORT_LOOPBACK_PORT_H */
