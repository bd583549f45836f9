/* comm_socket_v4: requests and replies between processes on one machine, over a Unix stream socket.
 *
 * A server listens at a path. A client connects, sends requests (a command and arguments) and gets one reply
 * to each (a status, a command, a message and name/value pairs). The page control-socket.md describes the
 * bytes on the socket; a program in C or C++ needs only this header.
 *
 * CONVENTIONS
 *
 * Handles. comm_socket_v4 (a server), comm_socket_v4_client (a client as the server sees it) and
 * comm_socket_v4_connection (the client's own end) are opaque. A packet is opaque except for the three fields
 * that its owner reads and writes directly.
 *
 * Ownership. The caller frees each returned object once:
 *
 *   server handle         comm_socket_v4_destroy
 *   connection            comm_socket_v4_disconnect
 *   any packet            comm_socket_v4_packet_release
 *   accepted client       comm_socket_v4_free_client, after it has disconnected
 *
 * comm_socket_v4_destroy also frees every client and every request of its server, including requests that
 * were handed out and never released; pointers to them are invalid afterwards. Packets from
 * comm_socket_v4_packet_create and replies that a client received belong only to their owner. Strings that an
 * accessor returns belong to the packet and are valid until it is released or written again.
 *
 * Results. Calls that return int return 0 on success and -1 with errno set on failure, unless their comment
 * says otherwise. Calls that return comm_socket_v4_error return COMM_SOCKET_V4_OK (0) or the reason. The
 * status of a reply is data, not a result: see COMM_SOCKET_V4_STATUS_SUCCESS.
 *
 * Null. comm_socket_v4_destroy, _disconnect, _packet_release and _free_client accept null and do nothing. All
 * other calls that return a result fail if the handle or packet is null: with EINVAL,
 * COMM_SOCKET_V4_BAD_ARGUMENT, null, a descriptor of -1, or 0 for a length, a count or is_open. Calls without
 * a result do nothing. Strings are never null except where a comment says so.
 *
 * Strings. Strings may contain any bytes. Accessors return them with a terminating NUL; if a string may
 * contain a NUL, the ..._length accessor gives its whole length.
 *
 * Threads. There is no global state, and the library starts no threads. Only one thread at a time may use a
 * server handle with its clients and requests, a connection, or a packet that the caller owns. Different
 * threads may use different ones at the same time.
 *
 * Blocking. Server calls never block, except comm_socket_v4_flush and
 * comm_socket_v4_wait_for_server_to_client_writeable, which take a deadline. Client calls block for at most
 * their timeout; those with two limits, for at most total_us.
 *
 * Signals. No call raises SIGPIPE. Interrupted system calls are restarted.
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

/* The largest body of a frame sent to the server (2 MiB) and to the client (256 MiB). */
#define COMM_SOCKET_V4_MAX_REQUEST_BYTES 2097152u
#define COMM_SOCKET_V4_MAX_REPLY_BYTES 268435456u

/* The maximum number of positional arguments in a packet, and of name/value pairs in a request and in
 * a reply. */
#define COMM_SOCKET_V4_MAX_ARGUMENTS 64u
#define COMM_SOCKET_V4_MAX_REQUEST_PAIRS 64u
#define COMM_SOCKET_V4_MAX_REPLY_PAIRS 65536u

/* Connected clients of one server. A further client is accepted and closed at once. */
#define COMM_SOCKET_V4_MAX_CLIENTS 64u

/* Disconnected clients that comm_socket_v4_accept_connection has returned and the caller has not freed. At
 * the limit no new client is accepted until one is freed. */
#define COMM_SOCKET_V4_MAX_UNFREED_CLIENTS 4096u

/* Disconnected clients whose requests are still waiting, and the bytes of these requests (16 MiB). They do
 * not count as connected clients. Above either limit, the requests of the client with the most bytes
 * are discarded. */
#define COMM_SOCKET_V4_MAX_LEFT_CLIENTS 1024u
#define COMM_SOCKET_V4_MAX_LEFT_BYTES 16777216u

/* Requests handed out between two calls of comm_socket_v4_idle. */
#define COMM_SOCKET_V4_MAX_REQUESTS_PER_IDLE 64u

/* Requests are handed out for this long after comm_socket_v4_idle (50 ms). The first one is always
 * handed out. */
#define COMM_SOCKET_V4_MAX_US_PER_IDLE 50000u

/* A reply to a client is accepted while at most this many bytes are queued after the one being
 * sent (16 MiB). */
#define COMM_SOCKET_V4_MAX_WAITING_BYTES 16777216u

/* Bytes of replies that may wait for all clients together (64 MiB). Above this limit the server is crowded:
 * only one request is handed out between two calls of comm_socket_v4_idle, from a client with no
 * waiting replies.
 *
 * The total is therefore at most the sum of this limit, the reply that takes the total above it, and one
 * reply for each client. If the clients read nothing at all, it is at most this limit plus the replies made
 * during COMM_SOCKET_V4_CROWD_TIMEOUT_US: 12 replies if comm_socket_v4_idle is called every 100 ms. */
#define COMM_SOCKET_V4_MAX_TOTAL_WAITING_BYTES 67108864u

/* How long (1 s), in a crowded server, a client's socket may go without accepting bytes while bytes wait for
 * it. A full socket accepts more only after about 50 KB have been read from it, so a client that reads slowly
 * is disconnected too. */
#define COMM_SOCKET_V4_CROWD_TIMEOUT_US 1000000u

/* How long a client may take to send one request, and how long it may go without reading while bytes wait
 * for it (10 s). */
#define COMM_SOCKET_V4_CLIENT_TIMEOUT_US 10000000u

/* ---- Packets ---- */

/* Bits of flags. A packet without COMM_SOCKET_V4_REQUEST is a response. Other bits are 0. */
#define COMM_SOCKET_V4_REQUEST 1u
#define COMM_SOCKET_V4_ASYNC 2u /* the sender of the request wants no reply */

/* The values of status that both sides know. */
#define COMM_SOCKET_V4_STATUS_SUCCESS 0u
#define COMM_SOCKET_V4_STATUS_ERROR 6u

typedef struct comm_socket_v4 comm_socket_v4;
typedef struct comm_socket_v4_client comm_socket_v4_client;
typedef struct comm_socket_v4_connection comm_socket_v4_connection;
typedef struct comm_socket_v4_packet comm_socket_v4_packet;

/* One request or one reply. Only the library creates packets. The owner may read the first three fields and,
 * until the packet is sent, write them. A server copies request_id and the async bit from the request into
 * its reply and sets the status. A client does not set request_id: the library assigns it when the
 * request is sent. */
struct comm_socket_v4_packet {
    uint32_t flags;      /* COMM_SOCKET_V4_REQUEST, COMM_SOCKET_V4_ASYNC */
    uint64_t request_id; /* assigned when the request is sent; the reply carries the same */
    uint64_t status;     /* of a reply: COMM_SOCKET_V4_STATUS_SUCCESS or another value; 0 in a request */
    struct comm_socket_v4_content* content; /* private to the library */
};

/* Creates an empty packet with the flag COMM_SOCKET_V4_REQUEST and everything else 0. Returns null if there
 * is no memory. */
comm_socket_v4_packet* comm_socket_v4_packet_create(void);

/* Frees the packet. Returns null, which the caller can assign to its pointer. */
comm_socket_v4_packet* comm_socket_v4_packet_release(comm_socket_v4_packet* packet);

/* Clears COMM_SOCKET_V4_REQUEST. */
void comm_socket_v4_packet_make_response(comm_socket_v4_packet* packet);

/* Sets COMM_SOCKET_V4_ASYNC, or clears it when async is 0. */
void comm_socket_v4_packet_set_async(comm_socket_v4_packet* packet, int async);

/* Writing: begin, then any number of arguments and pairs, then end. Only then can the packet be sent.
 * Beginning again discards what was written. Every call copies its arguments, except for shared bytes. On
 * failure the packet is unchanged, and errno is EINVAL (a null string, or a call not between begin and end),
 * EMSGSIZE (above a limit) or ENOMEM.
 *
 * While a packet is being written, the limits of replies apply. The limits of requests are checked when it
 * is sent. */

/* reserved must be 0. A request has a command and normally an empty message. */
int comm_socket_v4_packet_begin_writing(comm_socket_v4_packet* packet, int reserved, const char* command,
                                        const char* message);
/* Appends a positional argument. For write_argv, null means an absent argument, which is not the same as an
 * empty one. For write_argv_bytes, null is allowed only with a length of 0 and means an empty argument. */
int comm_socket_v4_packet_write_argv(comm_socket_v4_packet* packet, const char* argument);
int comm_socket_v4_packet_write_argv_bytes(comm_socket_v4_packet* packet, const void* argument,
                                           size_t length);
/* Appends a name/value pair. Pairs keep their order, and names may repeat. */
int comm_socket_v4_packet_write_nv_pair(comm_socket_v4_packet* packet, const char* name, const char* value);
int comm_socket_v4_packet_write_nv_pair_bytes(comm_socket_v4_packet* packet, const void* name,
                                              size_t name_length, const void* value, size_t value_length);
/* Appends a pair whose value consists of before, shared and after, joined. Long shared bytes are not copied,
 * which saves time and memory; they must not change until release(owner) is called. It is called once, on the
 * thread that uses the packet or its server: when the packet has been released or begun again and every reply
 * made from it has been sent or discarded, or before this call returns if it fails. release must not be null
 * (EINVAL). It must neither call the library nor change errno. */
typedef struct comm_socket_v4_shared_bytes {
    const void* bytes;
    size_t length;
    void* owner;
    void (*release)(void* owner);
} comm_socket_v4_shared_bytes;
int comm_socket_v4_packet_write_nv_pair_shared(comm_socket_v4_packet* packet, const char* name,
                                               const char* before, comm_socket_v4_shared_bytes shared,
                                               const char* after);
int comm_socket_v4_packet_write_end(comm_socket_v4_packet* packet);

/* Reading. The command and the message may be empty but are never null. */
const char* comm_socket_v4_packet_get_command(const comm_socket_v4_packet* packet);
size_t comm_socket_v4_packet_get_command_length(const comm_socket_v4_packet* packet);
const char* comm_socket_v4_packet_get_message(const comm_socket_v4_packet* packet);
size_t comm_socket_v4_packet_get_message_length(const comm_socket_v4_packet* packet);
/* Returns the number of arguments, including absent ones. */
size_t comm_socket_v4_packet_get_argv_count(const comm_socket_v4_packet* packet);
/* Returns null if the argument is absent or idx is out of range. */
const char* comm_socket_v4_packet_get_argv(const comm_socket_v4_packet* packet, size_t idx);
size_t comm_socket_v4_packet_get_argv_length(const comm_socket_v4_packet* packet, size_t idx);
size_t comm_socket_v4_packet_get_pair_count(const comm_socket_v4_packet* packet);
/* Returns null if idx is out of range. */
const char* comm_socket_v4_packet_get_pair_name(const comm_socket_v4_packet* packet, size_t idx);
size_t comm_socket_v4_packet_get_pair_name_length(const comm_socket_v4_packet* packet, size_t idx);
/* Returns null if idx is out of range. A value with shared bytes is joined when it is first read; returns
 * null if there is no memory for that. */
const char* comm_socket_v4_packet_get_pair_value(const comm_socket_v4_packet* packet, size_t idx);
size_t comm_socket_v4_packet_get_pair_value_length(const comm_socket_v4_packet* packet, size_t idx);

/* Prints the packet in human-readable form: one line for its kind, id and status, then one line for each
 * string, argument and pair, up to 256 pairs. Bytes outside 0x20 to 0x7E, quotes and backslashes are escaped,
 * and strings longer than 1024 bytes are cut, so packets from untrusted clients can be printed. */
void comm_socket_v4_packet_dump_user_friendly(const comm_socket_v4_packet* packet, FILE* stream);

/* ---- Server ----
 *
 * A server makes these calls in rounds (a few times a second is enough):
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
 * A client is disconnected if it sends garbage or a frame above a limit, or if a frame is not complete
 * COMM_SOCKET_V4_CLIENT_TIMEOUT_US after its first byte, even if bytes keep arriving. It is also disconnected
 * if it reads nothing for that time, or for COMM_SOCKET_V4_CROWD_TIMEOUT_US in a crowded server, while bytes
 * wait for it. Other clients are not affected: clients take turns, one request each, and connected clients
 * alternate with disconnected ones. In every other round that gives connected clients a turn, the first of
 * these turns goes to the client that most recently connected or was answered.
 */

/* Creates a handle that does not listen yet. Returns null if there is no memory. */
comm_socket_v4* comm_socket_v4_create(void);

/* Listens at path, which should be absolute because it is looked up again later. A socket or file at path is
 * removed first, so neither a stale socket nor a running server prevents another from starting. A directory
 * at path is an error. The socket gets mode 0660; apart from that, the directory, the owner and the group
 * determine who may connect. On failure the handle is unchanged, and errno is EALREADY (already listening),
 * EINVAL (no path), ENAMETOOLONG, or the error of a system call. */
int comm_socket_v4_create_server(comm_socket_v4* server, const char* path);

/* Disconnects all clients, frees everything that belongs to the handle, and removes the path if it still
 * leads to this server's socket. Returns null, to assign to the pointer that held the handle. */
comm_socket_v4* comm_socket_v4_destroy(comm_socket_v4* server);

/* Returns non-zero while clients can reach this server: it is listening, and the path leads to its socket.
 * Returns 0 once the path has been removed or replaced by another server; connected clients are not
 * affected by that. */
int comm_socket_v4_is_open(const comm_socket_v4* server);

/* Accepts, reads and writes as far as possible without blocking. Each call handles a limited number of bytes;
 * the next call continues with the clients that were not reached. Fails only if the listening socket is
 * unusable; a shortage of descriptors or memory is not a failure. */
int comm_socket_v4_idle(comm_socket_v4* server);

/* Continues writing replies that did not fit into their sockets, and waits for the sockets to accept more,
 * until no bytes wait or CLOCK_MONOTONIC reaches deadline_us microseconds. Without this call, each
 * comm_socket_v4_idle sends at most one socket buffer of a long reply. All clients share the time until the
 * deadline, so a client that reads one byte at a time delays the caller until the deadline and no longer. */
void comm_socket_v4_flush(comm_socket_v4* server, uint64_t deadline_us);

/* Returns the next accepted client that has not been returned before, or null if there is none. The library
 * keeps and serves its clients whether or not this is called. */
comm_socket_v4_client* comm_socket_v4_accept_connection(comm_socket_v4* server);

/* Returns a disconnected client that comm_socket_v4_accept_connection returned earlier and whose requests
 * have all been handed out and released; null if there is none. The caller must free the client; it is valid
 * until then. While COMM_SOCKET_V4_MAX_UNFREED_CLIENTS clients are not freed, new clients must wait, so call
 * this at least as often as comm_socket_v4_accept_connection.
 *
 * A client that was returned only by comm_socket_v4_server_get_packet need not be freed. Even if it
 * disconnects, it stays valid until the first comm_socket_v4_idle after its last request is released. Any
 * number of clients may connect, send requests and disconnect between two calls of comm_socket_v4_idle; the
 * caller need not free those that comm_socket_v4_accept_connection did not return. */
comm_socket_v4_client* comm_socket_v4_get_disconnected_client(comm_socket_v4* server);

/* Frees a client and disconnects it first if it is connected. Its requests that the caller still holds
 * remain valid. */
void comm_socket_v4_free_client(comm_socket_v4_client* client);

/* Returns the next complete request and stores its sender in *client (client may be null). Returns null if
 * there is none, if COMM_SOCKET_V4_MAX_REQUESTS_PER_IDLE requests have been handed out since the last
 * comm_socket_v4_idle, or if at least one has been handed out and COMM_SOCKET_V4_MAX_US_PER_IDLE microseconds
 * have passed. The remaining requests are handed out after the next comm_socket_v4_idle.
 *
 * If more than COMM_SOCKET_V4_MAX_WAITING_BYTES wait for a client after the reply that is being sent, its
 * next request is not handed out until it reads. A server that answers each request before it takes the next
 * therefore never gets 0 from comm_socket_v4_packet_send_to_client. In a crowded server
 * (COMM_SOCKET_V4_MAX_TOTAL_WAITING_BYTES) only one request is handed out after each comm_socket_v4_idle,
 * from a client with no waiting replies.
 *
 * Complete requests of a disconnected client are still handed out, within the limits
 * COMM_SOCKET_V4_MAX_LEFT_CLIENTS and COMM_SOCKET_V4_MAX_LEFT_BYTES, so a client may send a command and close
 * at once. A client that has closed only its sending side gets its replies. The packet may lack
 * COMM_SOCKET_V4_REQUEST: clients are not trusted. */
comm_socket_v4_packet* comm_socket_v4_server_get_packet(comm_socket_v4* server,
                                                        comm_socket_v4_client** client);

/* Sends a complete packet. The caller keeps the packet and may send it again. Returns
 *
 *   above 0   The packet is accepted. What the socket does not take at once is sent by later calls.
 *   0         Not now: after the reply that is being sent to this client, more than
 *             COMM_SOCKET_V4_MAX_WAITING_BYTES are already waiting. Wait and send again.
 *   -1        The packet is not sent; errno gives the reason:
 *             EPIPE, ECONNRESET   the client has left, or was dropped for a bad or unfinished request
 *             ETIMEDOUT           it read nothing while the caller waited, or for
 *                                 COMM_SOCKET_V4_CLIENT_TIMEOUT_US (in a crowded server
 *                                 COMM_SOCKET_V4_CROWD_TIMEOUT_US), and is disconnected
 *             EINVAL              the packet is not complete, or its flags are unknown
 *             ENOMEM              there is no memory; the client stays connected unless it was disconnected
 *                                 for lack of memory earlier
 *
 * Sending to a client that has disconnected but is not freed is allowed and returns -1. */
int comm_socket_v4_packet_send_to_client(comm_socket_v4_client* client, const comm_socket_v4_packet* packet);

/* Call after a result of 0. Writes and blocks until a packet would be accepted, the client disconnects, or
 * CLOCK_MONOTONIC reaches deadline_us microseconds. If not a single byte is sent before the deadline, the
 * client is disconnected, and the next send to it fails with ETIMEDOUT. */
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
 * examples/hello.c is a complete program. Timeouts are in microseconds, counted from the call.
 */

typedef enum comm_socket_v4_error {
    COMM_SOCKET_V4_OK = 0,
    COMM_SOCKET_V4_NO_SOCKET,    /* nothing at the path: the server is not running, or the path is wrong */
    COMM_SOCKET_V4_REFUSED,      /* nothing listens: a stale socket, a socket of another kind, or a file */
    COMM_SOCKET_V4_PERMISSION,   /* the mode of the path or of a directory in it excludes this user */
    COMM_SOCKET_V4_TIMEOUT,      /* not completed within the timeout */
    COMM_SOCKET_V4_BROKEN_FRAME, /* a reply is malformed, of another version, above a limit, or cut off */
    COMM_SOCKET_V4_CLOSED,    /* the server closed the connection: it stopped, is full, or refused a frame */
    COMM_SOCKET_V4_TOO_LARGE, /* the request is above a limit; nothing was sent */
    COMM_SOCKET_V4_NO_MEMORY,
    COMM_SOCKET_V4_BAD_ARGUMENT, /* the caller's mistake */
    COMM_SOCKET_V4_SYSTEM        /* anything else; see errno */
} comm_socket_v4_error;

/* Returns a short English text without a newline; never null. */
const char* comm_socket_v4_error_text(comm_socket_v4_error error);

/* Connects. Returns null on failure, with the reason in *error (error may be null). Success does not mean
 * that the server answers; only the first reply shows that. */
comm_socket_v4_connection* comm_socket_v4_connect(const char* path, uint64_t timeout_us,
                                                  comm_socket_v4_error* error);

/* Closes and frees the connection. Returns null, which the caller can assign to its pointer. */
comm_socket_v4_connection* comm_socket_v4_disconnect(comm_socket_v4_connection* connection);

/* Returns the socket, for programs that poll several descriptors; -1 for null. Only poll it: reading,
 * writing or closing it breaks the connection. A reply may have been read together with the previous one, so
 * a program with several requests in progress must call comm_socket_v4_wait_reply with a timeout of 0 before
 * it polls. */
int comm_socket_v4_connection_get_fd(const comm_socket_v4_connection* connection);

/* Assigns the next id of this connection to the request (request->request_id, counting from 1) and sends it.
 * The packet must be complete and have COMM_SOCKET_V4_REQUEST set. After any failure except TOO_LARGE,
 * BAD_ARGUMENT and NO_MEMORY, part of the request may have been sent. The connection can then only be
 * disconnected: every later call returns CLOSED. */
comm_socket_v4_error comm_socket_v4_send_request(comm_socket_v4_connection* connection,
                                                 comm_socket_v4_packet* request, uint64_t timeout_us);

/* Sends several requests in the same way. They get consecutive ids in order and are sent in one write if the
 * socket accepts it. All are checked before the first byte is sent, so after TOO_LARGE, BAD_ARGUMENT or
 * NO_MEMORY none has been sent or given an id. No request may be null; a count of 0 sends nothing. */
comm_socket_v4_error comm_socket_v4_send_requests(comm_socket_v4_connection* connection,
                                                  comm_socket_v4_packet* const* requests, size_t count,
                                                  uint64_t timeout_us);

/* Waits for the reply with request_id and stores it in *reply; the caller releases it. On failure *reply is
 * null. Replies arrive in the order of their requests. A reply with another id (to a request whose wait timed
 * out) is discarded. After TIMEOUT the caller may wait again; after BROKEN_FRAME and CLOSED the connection
 * can only be disconnected. */
comm_socket_v4_error comm_socket_v4_wait_reply(comm_socket_v4_connection* connection, uint64_t request_id,
                                               uint64_t timeout_us, comm_socket_v4_packet** reply);

/* Waits for a reply with two limits: returns TIMEOUT if no byte of the reply has arrived for silence_us, or
 * after total_us in all. The silence begins with the call and restarts with each byte of the reply. Bytes
 * count once the frame is known to be the reply to request_id, which is after its first 20 bytes: these end
 * with the id. Bytes of other frames do not count, so earlier replies that are still arriving do not extend
 * the silence. */
comm_socket_v4_error comm_socket_v4_wait_reply_within(comm_socket_v4_connection* connection,
                                                      uint64_t request_id, uint64_t silence_us,
                                                      uint64_t total_us, comm_socket_v4_packet** reply);

/* Sends the request and waits for the reply, both within timeout_us. *reply is null on failure and for an
 * async request, which is only sent. */
comm_socket_v4_error comm_socket_v4_call(comm_socket_v4_connection* connection,
                                         comm_socket_v4_packet* request, uint64_t timeout_us,
                                         comm_socket_v4_packet** reply);

/* Like comm_socket_v4_call, with the two limits of comm_socket_v4_wait_reply_within. While the request is
 * being sent, each byte that the socket accepts restarts the silence. */
comm_socket_v4_error comm_socket_v4_call_within(comm_socket_v4_connection* connection,
                                                comm_socket_v4_packet* request, uint64_t silence_us,
                                                uint64_t total_us, comm_socket_v4_packet** reply);

#ifdef __cplusplus
}
#endif

#endif
