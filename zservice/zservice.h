/* The local service bus: one call per AF_UNIX connection, framed as
 *   "ZS" | version 1 | kind 'C'/'R' | u32le name length | u32le body length | name | body
 * with an optional reply descriptor (SCM_RIGHTS) on the call. Usable from C and C++.
 * Every function accepts NULL and fails quietly. */
#ifndef ORVEX_ZSERVICE_H
#define ORVEX_ZSERVICE_H

#include <stddef.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ZS_MAGIC0 0x5A
#define ZS_MAGIC1 0x53
#define ZS_VERSION 1
#define ZS_KIND_CALL 0x43
#define ZS_KIND_REPLY 0x52
#define ZS_HEADER_SIZE 12
#define ZS_MAX_NAME 255
#define ZS_MAX_BODY 16777216u

typedef struct zs zs;        /* one bus service (server side) */
typedef struct zs_io zs_io;  /* one call's channel, or a scratch buffer */
typedef void (*zs_handler)(const char *method, zs_io *io, int fd);

/* Binds and listens on address ("@name" = abstract namespace). recv_timeout_s bounds how
 * long a caller may take to deliver its call frame; peer_policy 1 admits only uid 0 and
 * our euid, 0 admits anyone. Ignores SIGPIPE. NULL if the address is taken or invalid.
 * Caps: at most min(4096, (RLIMIT_NOFILE - 64) / 2) calls open at once, from accept until
 * their channel is freed (later callers wait in the listen queue), and 128 MiB of call
 * bodies still arriving (the caller that would pass it is dropped). */
zs *zs_create(const char *address, int recv_timeout_s, int peer_policy, zs_handler handler);
/* Serves on the calling thread until zs_stop: 0 after a stop, -1 on error or NULL bus.
 * The handler owns io (zs_io_free) and fd (close) once called. */
int zs_start(zs *bus);
/* zs_start on `threads` threads (1..16): the calling one and threads - 1 more that it
 * starts, and joins before it returns. One thread at a time serves the bus and runs the
 * handlers of the calls it read, holding no lock of the bus; when one handler (or the
 * timer) lasts more than 5 ms, another thread takes the bus over and goes on accepting,
 * reading and running calls. The handler must be thread-safe. */
int zs_start_threads(zs *bus, int threads);
/* Runs callback(arg) on a loop thread first_ms after the loop starts, then every
 * period_ms (fixed rate), never on two threads at once. Set it before zs_start; one
 * timer per service. */
int zs_timer(zs *bus, int first_ms, int period_ms, void (*callback)(void *), void *arg);
/* Thread-safe and async-signal-safe. */
void zs_stop(zs *bus);
/* Process-wide; callback runs on a loop thread of the running zs_start. */
int zs_signal(int signo, void (*callback)(int));
/* Closes the listening socket (removing a filesystem socket) and frees the service. */
void zs_free(zs *bus);

zs_io *zs_io_create(void);
const char *zs_io_read(zs_io *io, size_t offset);
size_t zs_io_size(zs_io *io);
int zs_io_realloc(zs_io *io, size_t size);
ssize_t zs_io_write(zs_io *io, const void *data, size_t size);
int zs_io_printf(zs_io *io, const char *format, ...) __attribute__((format(printf, 2, 3)));
int zs_io_alive(zs_io *io);
/* A reply the caller does not take within 5 s is abandoned (-1, ETIMEDOUT). */
int zs_reply(zs_io *io);
void zs_io_free(zs_io *io);

/* One whole exchange within timeout_s; fd >= 0 travels as the reply descriptor. On
 * success io holds the reply body. -1 with errno: ECONNREFUSED/ENOENT (nobody serves),
 * ETIMEDOUT, EPROTO (bad reply or closed without one), EMSGSIZE, ENAMETOOLONG, EACCES (the
 * listener is neither root nor our effective user: nothing was sent to it). */
int zs_call(const char *address, const char *method, zs_io *io, int timeout_s, int fd);
/* Connects to address, sends nothing, and reads who listens there (SO_PEERCRED: the
 * process that put the socket to listen): 0, or -1 with errno (ECONNREFUSED/ENOENT when
 * nobody listens). */
int zs_listener(const char *address, pid_t *pid, uid_t *uid);

#ifdef __cplusplus
}
#endif

#endif
