/* comm_socket_v4: requests and replies between processes of one machine, over a Unix stream socket.
 *
 * A server listens at a path. A client connects, sends requests (a command and arguments) and gets one reply
 * to each (a status, a command, a message and name/value pairs). What travels on the socket is described on
 * the page control-socket.md; this header is all that a program in C or C++ needs.
 *
 * CONVENTIONS
 *
 * Handles. comm_socket_v4 (a server), comm_socket_v4_client (a client as the server sees it) and
 * comm_socket_v4_connection (the client's own end) are opaque. A packet is opaque too, but for the three
 * fields that its owner reads and writes directly.
 *
 * Who frees. What a call returned is freed once, by the one who called:
 *
 *   server handle         comm_socket_v4_destroy
 *   connection            comm_socket_v4_disconnect
 *   any packet            comm_socket_v4_packet_release
 *   accepted client       comm_socket_v4_free_client, once it has disconnected
 *
 * comm_socket_v4_destroy also frees every client and every request of its server, those included that were
 * handed out and never released; pointers to them are dead afterwards. Packets from
 * comm_socket_v4_packet_create, and replies that a client received, belong to their owner alone. Strings that
 * an accessor returns belong to the packet and live until it is released or written anew.
 *
 * Results. Calls that return int give 0 for success and -1 with errno, unless their comment says otherwise.
 * Calls that return comm_socket_v4_error give COMM_SOCKET_V4_OK (0) or the reason. The status of a reply is
 * data, not a result: see COMM_SOCKET_V4_STATUS_SUCCESS.
 *
 * Null. comm_socket_v4_destroy, _disconnect, _packet_release and _free_client accept null and do nothing. The
 * other calls take a null handle or packet for a mistake and fail: EINVAL, COMM_SOCKET_V4_BAD_ARGUMENT, null,
 * or 0 for a length or count. Strings are never null except where a comment says so.
 *
 * Strings. Byte strings of any content. What an accessor returns ends with a NUL of its own; where a NUL
 * inside matters, the ..._length accessor tells the whole length.
 *
 * Threads. There is no global state, and the library starts no thread. A server handle together with its
 * clients and requests, a connection, or a packet of one's own is used by one thread at a time; different
 * ones by different threads at once.
 *
 * Blocking. Server calls never block, except comm_socket_v4_flush and
 * comm_socket_v4_wait_for_server_to_client_writeable, which take a deadline. Client calls
 * block for at most their time-out, those with two limits for at most their total_us.
 *
 * Signals. No call raises SIGPIPE. Interrupted system calls are continued.
 */
#ifndef COMM_SOCKET_V4_H
#define COMM_SOCKET_V4_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Limits ---- */

/* Of the body of one frame, in bytes: to the server (2 MiB) and to the client (256 MiB). */
#define COMM_SOCKET_V4_MAX_REQUEST_BYTES 2097152u
#define COMM_SOCKET_V4_MAX_REPLY_BYTES 268435456u

/* Of one packet: positional arguments; name/value pairs to the server and to the client. */
#define COMM_SOCKET_V4_MAX_ARGUMENTS 64u
#define COMM_SOCKET_V4_MAX_REQUEST_PAIRS 64u
#define COMM_SOCKET_V4_MAX_REPLY_PAIRS 65536u

/* Connected clients of one server. The next one is accepted and closed at once. */
#define COMM_SOCKET_V4_MAX_CLIENTS 64u

/* Clients that comm_socket_v4_accept_connection returned, that have gone away and that the caller has not freed.
 * At the limit no newcomer is accepted until one is freed. */
#define COMM_SOCKET_V4_MAX_UNFREED_CLIENTS 4096u

/* Clients that have gone away and whose requests wait, and the bytes of these requests (16 MiB). They take no place of
 * a connected client. Above a limit, what the client with the most bytes has left is discarded. */
#define COMM_SOCKET_V4_MAX_LEFT_CLIENTS 1024u
#define COMM_SOCKET_V4_MAX_LEFT_BYTES 16777216u

/* Requests that are handed out between two calls of comm_socket_v4_idle. */
#define COMM_SOCKET_V4_MAX_REQUESTS_PER_IDLE 64u

/* How long after comm_socket_v4_idle requests are handed out (50 ms). The first one always is. */
#define COMM_SOCKET_V4_MAX_US_PER_IDLE 50000u

/* Bytes that may wait behind the reply under way to a client when one more is taken over (16 MiB). */
#define COMM_SOCKET_V4_MAX_WAITING_BYTES 16777216u

/* Bytes that may wait for all clients together (64 MiB). Above it there is a crowd: one request is handed out between
 * two calls of comm_socket_v4_idle, of a client for which nothing waits.
 *
 * So no more than this can ever wait: these bytes and the reply that exceeds them, and one reply for each client. If
 * the clients read nothing at all, it is these bytes and the replies of COMM_SOCKET_V4_CROWD_TIMEOUT_US: 12 of them
 * when comm_socket_v4_idle is called every 100 ms. */
#define COMM_SOCKET_V4_MAX_TOTAL_WAITING_BYTES 67108864u

/* How long the socket of a client may take no byte while bytes wait for it and there is a crowd (1 s). A socket that
 * is full takes more only after some 50 KB were read from it, so a client that reads slowly is disconnected as well. */
#define COMM_SOCKET_V4_CROWD_TIMEOUT_US 1000000u

/* How long a client may take from the beginning of a request to its end, and how long it may read nothing while
 * bytes wait for it (10 s). */
#define COMM_SOCKET_V4_CLIENT_TIMEOUT_US 10000000u

/* ---- Packets ---- */

/* Bits of flags. A packet without COMM_SOCKET_V4_REQUEST is a response. Other bits are 0. */
#define COMM_SOCKET_V4_REQUEST 1u
#define COMM_SOCKET_V4_ASYNC 2u /* the sender of the request wants no reply */

/* Values of status that the two sides have agreed on. */
#define COMM_SOCKET_V4_STATUS_SUCCESS 0u
#define COMM_SOCKET_V4_STATUS_ERROR 6u

typedef struct comm_socket_v4 comm_socket_v4;
typedef struct comm_socket_v4_client comm_socket_v4_client;
typedef struct comm_socket_v4_connection comm_socket_v4_connection;
typedef struct comm_socket_v4_packet comm_socket_v4_packet;

/* One request or one reply. Only the library makes packets; the first three fields are for the owner to read
 * and, until the packet is sent, to write. A server copies request_id and the async bit from the request into
 * its reply and sets the status. A client leaves request_id alone: it is given when the request is sent. */
struct comm_socket_v4_packet {
    uint32_t flags;      /* COMM_SOCKET_V4_REQUEST, COMM_SOCKET_V4_ASYNC */
    uint64_t request_id; /* chosen by the client; the reply carries the same */
    uint64_t status;     /* of a reply; COMM_SOCKET_V4_STATUS_SUCCESS or another; 0 in a request */
    struct comm_socket_v4_content* content; /* the library's own */
};

/* A new, empty packet: flags COMM_SOCKET_V4_REQUEST, everything else 0. Null when memory is short. */
comm_socket_v4_packet* comm_socket_v4_packet_create(void);

/* Frees the packet. Returns null, to be stored where the packet was. */
comm_socket_v4_packet* comm_socket_v4_packet_release(comm_socket_v4_packet* packet);

/* Clears COMM_SOCKET_V4_REQUEST. */
void comm_socket_v4_packet_make_response(comm_socket_v4_packet* packet);

/* Sets COMM_SOCKET_V4_ASYNC, or clears it when async is 0. */
void comm_socket_v4_packet_set_async(comm_socket_v4_packet* packet, int async);

/* Writing: begin, then any number of arguments and pairs, then end; only then can the packet be sent.
 * Beginning again discards what was written. Every call copies what it is given. On failure the packet is as
 * it was before; errno is EINVAL (a null string, not between begin and end), EMSGSIZE (a limit) or ENOMEM.
 *
 * While the packet is written the limits of replies hold. Those of requests are tested when it is sent. */

/* reserved is 0. A request has a command and normally an empty message. */
int comm_socket_v4_packet_begin_writing(comm_socket_v4_packet* packet, int reserved, const char* command,
                                        const char* message);
/* Appends a positional argument; a null argument is one that is absent, which is not the same as empty. */
int comm_socket_v4_packet_write_argv(comm_socket_v4_packet* packet, const char* argument);
int comm_socket_v4_packet_write_argv_bytes(comm_socket_v4_packet* packet, const void* argument,
                                           size_t length);
/* Appends a pair. Pairs keep their order, and names may repeat. */
int comm_socket_v4_packet_write_nv_pair(comm_socket_v4_packet* packet, const char* name, const char* value);
int comm_socket_v4_packet_write_nv_pair_bytes(comm_socket_v4_packet* packet, const void* name,
                                              size_t name_length, const void* value, size_t value_length);
int comm_socket_v4_packet_write_end(comm_socket_v4_packet* packet);

/* Reading. The command and the message are never null, only empty. */
const char* comm_socket_v4_packet_get_command(const comm_socket_v4_packet* packet);
size_t comm_socket_v4_packet_get_command_length(const comm_socket_v4_packet* packet);
const char* comm_socket_v4_packet_get_message(const comm_socket_v4_packet* packet);
size_t comm_socket_v4_packet_get_message_length(const comm_socket_v4_packet* packet);
/* Arguments that were sent, absent ones included. */
size_t comm_socket_v4_packet_get_argv_count(const comm_socket_v4_packet* packet);
/* Null when the argument is absent or there are not that many. */
const char* comm_socket_v4_packet_get_argv(const comm_socket_v4_packet* packet, size_t idx);
size_t comm_socket_v4_packet_get_argv_length(const comm_socket_v4_packet* packet, size_t idx);
size_t comm_socket_v4_packet_get_pair_count(const comm_socket_v4_packet* packet);
/* Null when there are not that many pairs. */
const char* comm_socket_v4_packet_get_pair_name(const comm_socket_v4_packet* packet, size_t idx);
size_t comm_socket_v4_packet_get_pair_name_length(const comm_socket_v4_packet* packet, size_t idx);
const char* comm_socket_v4_packet_get_pair_value(const comm_socket_v4_packet* packet, size_t idx);
size_t comm_socket_v4_packet_get_pair_value_length(const comm_socket_v4_packet* packet, size_t idx);

/* Prints the packet for a person, one field a line. Bytes outside 0x20 to 0x7E, quotes and backslashes are
 * escaped, and a string above 1024 bytes is cut, so a stranger's packet can be printed. */
void comm_socket_v4_packet_dump_user_friendly(const comm_socket_v4_packet* packet, FILE* stream);

/* ---- Server ----
 *
 * A server calls, as often as it wants to answer (a few times a second is enough):
 *
 *     if (!comm_socket_v4_is_open(server) || comm_socket_v4_idle(server) != 0) ... the socket is lost
 *     comm_socket_v4_accept_connection(server);
 *     comm_socket_v4_free_client(comm_socket_v4_get_disconnected_client(server));
 *     while ((request = comm_socket_v4_server_get_packet(server, &client)) != NULL) {
 *         ... make a reply, comm_socket_v4_packet_send_to_client(client, reply), release the reply
 *         request = comm_socket_v4_packet_release(request);
 *     }
 *     comm_socket_v4_flush(server, now + 20 ms);
 *
 * A client is disconnected when it sends garbage or a frame above a limit, when a frame of it is not complete
 * COMM_SOCKET_V4_CLIENT_TIMEOUT_US after its beginning, even while bytes keep coming, and when it reads nothing
 * for that long while bytes wait for it, or in a crowd for COMM_SOCKET_V4_CROWD_TIMEOUT_US. The others notice nothing:
 * requests are handed out in turns, one of each client, and by turns one of those that have gone away. After every
 * other comm_socket_v4_idle the first turn is that of the client that came or was answered last.
 */

/* A new handle that does not listen yet. Null when memory is short. */
comm_socket_v4* comm_socket_v4_create(void);

/* Listens at path, which should be absolute: it is looked up again later. Whatever socket or file is there is
 * removed first, so neither a left-over socket nor a running server keeps another from starting. A directory
 * there is a failure. The socket gets mode 0660; beyond that, the directory and its owner and group decide
 * who may connect. On failure the handle is as it was: EALREADY (it listens), EINVAL (no path), ENAMETOOLONG,
 * or what the system said. */
int comm_socket_v4_create_server(comm_socket_v4* server, const char* path);

/* Disconnects all clients, frees everything that the handle holds and removes the path, provided that it
 * still leads to this server's own socket. Returns null, to be stored where the handle was. */
comm_socket_v4* comm_socket_v4_destroy(comm_socket_v4* server);

/* Non-zero while clients can reach this server: it listens, and the path leads to its own socket. 0 once the
 * path was removed or taken over by another server. Clients that are connected are not affected by that. */
int comm_socket_v4_is_open(const comm_socket_v4* server);

/* Accepts, reads and writes whatever can be done without blocking; bounded in bytes, the rest is done at the
 * next call, which begins with the clients that this one did not come to. Fails only when the listening socket is
 * unusable; a shortage of descriptors or memory is not a failure. */
int comm_socket_v4_idle(comm_socket_v4* server);

/* Goes on writing replies that their sockets did not take whole, and waits for the sockets to take more, until
 * nothing waits or CLOCK_MONOTONIC reaches deadline_us microseconds. Without it a long reply leaves by one socket
 * buffer at each comm_socket_v4_idle. All clients together have the time until the deadline, so one that reads a
 * byte at a time costs the caller that much at each call, and no more. */
void comm_socket_v4_flush(comm_socket_v4* server, uint64_t deadline_us);

/* The next client that has been accepted and not been returned here; null when there is none. The library
 * keeps and serves its clients whether or not this is called. */
comm_socket_v4_client* comm_socket_v4_accept_connection(comm_socket_v4* server);

/* A client that comm_socket_v4_accept_connection returned, that has gone away and all of whose requests have
 * been handed out and released; null when there is none. The caller now frees it; until then it stays valid,
 * connected or not. While COMM_SOCKET_V4_MAX_UNFREED_CLIENTS of them are not freed, newcomers have to wait, so
 * call this at least as often as comm_socket_v4_accept_connection.
 *
 * A client that only comm_socket_v4_server_get_packet returned needs no freeing: it stays valid, connected or
 * not, while a request of it is not released, and after that until the next comm_socket_v4_idle. However many
 * clients ask and leave between two services, the caller has nothing to do for them. */
comm_socket_v4_client* comm_socket_v4_get_disconnected_client(comm_socket_v4* server);

/* Frees a client; disconnects it first if it is connected. Requests of it that the caller still holds stay
 * valid. */
void comm_socket_v4_free_client(comm_socket_v4_client* client);

/* The next complete request, and in *client (client may be null) who sent it. Null when there is none, or when
 * since the last comm_socket_v4_idle COMM_SOCKET_V4_MAX_REQUESTS_PER_IDLE have been handed out, or one has and
 * COMM_SOCKET_V4_MAX_US_PER_IDLE are over; the rest is handed out after the next one.
 *
 * A client that lets more than COMM_SOCKET_V4_MAX_WAITING_BYTES of replies pile up has to read before its next
 * request is handed out, so a server that answers each request before it takes the next never gets 0 from
 * comm_socket_v4_packet_send_to_client. In a crowd (COMM_SOCKET_V4_MAX_TOTAL_WAITING_BYTES) one request is handed out
 * after each comm_socket_v4_idle, of a client for which nothing waits.
 *
 * What a client sent completely before it went away is still handed out: sending and closing at once is a
 * fair way to leave a command, within COMM_SOCKET_V4_MAX_LEFT_CLIENTS and COMM_SOCKET_V4_MAX_LEFT_BYTES. A client
 * that has closed only its sending side gets its replies. The packet need not have COMM_SOCKET_V4_REQUEST set:
 * clients are not trusted. */
comm_socket_v4_packet* comm_socket_v4_server_get_packet(comm_socket_v4* server,
                                                        comm_socket_v4_client** client);

/* Sends a packet that was written to its end. The packet stays the caller's and may be sent again. Returns
 *
 *   above 0   It is taken over. What the socket does not take at once leaves with the next calls.
 *   0         Not now: behind the reply that is under way to this client, more than
 *             COMM_SOCKET_V4_MAX_WAITING_BYTES wait already. Wait and send again.
 *   -1        It is not sent; errno says why:
 *             EPIPE, ECONNRESET   the client is gone, or was disconnected for what it sent
 *             ETIMEDOUT           it read nothing for as long as the caller waited, or for
 *                                 COMM_SOCKET_V4_CLIENT_TIMEOUT_US (in a crowd
 *                                 COMM_SOCKET_V4_CROWD_TIMEOUT_US), and is disconnected
 *             EINVAL              the packet is not complete, or its flags are unknown
 *             ENOMEM              memory is short; the client stays connected
 *
 * Sending to a client that is gone but not freed is allowed and returns -1. */
int comm_socket_v4_packet_send_to_client(comm_socket_v4_client* client, const comm_socket_v4_packet* packet);

/* After a 0: blocks until a packet would be taken over, the client is gone, or CLOCK_MONOTONIC reaches
 * deadline_us microseconds, and writes meanwhile. If the deadline passes without a single byte leaving, the
 * next send to this client gives ETIMEDOUT. */
void comm_socket_v4_wait_for_server_to_client_writeable(comm_socket_v4_client* client, uint64_t deadline_us);

/* ---- Client ----
 *
 *     comm_socket_v4_error error;
 *     comm_socket_v4_connection* connection = comm_socket_v4_connect(path, timeout_us, &error);
 *     comm_socket_v4_packet* request = comm_socket_v4_packet_create();
 *     comm_socket_v4_packet_begin_writing(request, 0, "hello", "");
 *     comm_socket_v4_packet_write_end(request);
 *     error = comm_socket_v4_call(connection, request, timeout_us, &reply);
 *
 * examples/hello.c is a whole program. Time-outs are microseconds from the call on.
 */

typedef enum comm_socket_v4_error {
    COMM_SOCKET_V4_OK = 0,
    COMM_SOCKET_V4_NO_SOCKET,    /* nothing at the path: the server does not run, or another path was meant */
    COMM_SOCKET_V4_REFUSED,      /* nobody listens: a left-over socket, one of another kind, or a file */
    COMM_SOCKET_V4_PERMISSION,   /* the path's mode or a directory on the way does not admit this user */
    COMM_SOCKET_V4_TIMEOUT,      /* not within the time-out */
    COMM_SOCKET_V4_BROKEN_FRAME, /* what came is not this protocol, another version of it, or above a limit */
    COMM_SOCKET_V4_CLOSED,    /* the server closed the connection: it stopped, is full, or refused a frame */
    COMM_SOCKET_V4_TOO_LARGE, /* the request is above a limit; nothing was sent */
    COMM_SOCKET_V4_NO_MEMORY,
    COMM_SOCKET_V4_BAD_ARGUMENT, /* the caller's mistake */
    COMM_SOCKET_V4_SYSTEM        /* anything else; errno has it */
} comm_socket_v4_error;

/* A short English text, without a line end; never null. */
const char* comm_socket_v4_error_text(comm_socket_v4_error error);

/* Connects. Null on failure, with the reason in *error (error may be null). That the server answers is known
 * only with the first reply. */
comm_socket_v4_connection* comm_socket_v4_connect(const char* path, uint64_t timeout_us,
                                                  comm_socket_v4_error* error);

/* Closes and frees. Returns null, to be stored where the connection was. */
comm_socket_v4_connection* comm_socket_v4_disconnect(comm_socket_v4_connection* connection);

/* The socket, for a program that polls several; -1 for null. Only poll it: reading, writing or closing it
 * breaks the connection. A reply may have been read together with the one before, so a program with several
 * requests under way calls comm_socket_v4_wait_reply with a time-out of 0 before it polls. */
int comm_socket_v4_connection_get_fd(const comm_socket_v4_connection* connection);

/* Gives the request the next id of this connection (request->request_id; they count from 1) and sends it. The
 * packet must have COMM_SOCKET_V4_REQUEST and be written to its end. After any failure but TOO_LARGE,
 * BAD_ARGUMENT and NO_MEMORY part of it may have left, and the connection can only be disconnected: every
 * later call gives CLOSED. */
comm_socket_v4_error comm_socket_v4_send_request(comm_socket_v4_connection* connection,
                                                 comm_socket_v4_packet* request, uint64_t timeout_us);

/* The same for several requests: each gets the next id, in their order, and all leave in one write as far as the
 * socket takes it. All are tested before the first byte leaves, so after TOO_LARGE, BAD_ARGUMENT and NO_MEMORY none
 * of them was sent or has an id. No request may be null; a count of 0 sends nothing. */
comm_socket_v4_error comm_socket_v4_send_requests(comm_socket_v4_connection* connection,
                                                  comm_socket_v4_packet* const* requests, size_t count,
                                                  uint64_t timeout_us);

/* Waits for the reply that carries request_id and stores it in *reply, for the caller to release; null on
 * failure. Replies come in the order of their requests. One that carries another id (to a request whose wait
 * timed out) is dropped. After TIMEOUT one may wait again; after BROKEN_FRAME and CLOSED the connection can
 * only be disconnected. */
comm_socket_v4_error comm_socket_v4_wait_reply(comm_socket_v4_connection* connection, uint64_t request_id,
                                               uint64_t timeout_us, comm_socket_v4_packet** reply);

/* The same with two limits: TIMEOUT when no byte of the awaited reply has come for silence_us, and after total_us in
 * all. The silence is counted from the call, and again from each byte that counts. A byte counts when the frame that
 * it belongs to is known to be the reply to request_id, which is once the first 20 bytes of the frame are here, as far
 * as its id. Bytes of other frames, and a beginning that is shorter, do not count: earlier replies that are still under
 * way do not stretch the silence. */
comm_socket_v4_error comm_socket_v4_wait_reply_within(comm_socket_v4_connection* connection,
                                                      uint64_t request_id, uint64_t silence_us,
                                                      uint64_t total_us, comm_socket_v4_packet** reply);

/* Sends and waits, both within timeout_us. *reply is null on failure, and for an async request, which is only
 * sent. */
comm_socket_v4_error comm_socket_v4_call(comm_socket_v4_connection* connection,
                                         comm_socket_v4_packet* request, uint64_t timeout_us,
                                         comm_socket_v4_packet** reply);

/* The same with the two limits of comm_socket_v4_wait_reply_within. While the request is sent, bytes that the socket
 * takes end the silence. */
comm_socket_v4_error comm_socket_v4_call_within(comm_socket_v4_connection* connection,
                                                comm_socket_v4_packet* request, uint64_t silence_us,
                                                uint64_t total_us, comm_socket_v4_packet** reply);

#ifdef __cplusplus
}
#endif

#endif
