/* Sends one request to a comm_socket_v4 server and prints the reply. Given only a path, sends "hello".
 *
 *     cc -std=c99 hello.c $(pkg-config --cflags --libs comm_socket_v4)
 *     ./a.out SOCKET [COMMAND [ARGUMENT...]]
 *
 * Exit status: 0 success, 1 the reply carries another status, 2 usage, 3 no reply.
 */
#include <comm_socket_v4.h>
#include <stdio.h>

#define TIMEOUT_US 5000000u

/* Returns a request with the command and its arguments, or null if it cannot be built. */
static comm_socket_v4_packet* make_request(const char* command, char** arguments, int count) {
    comm_socket_v4_packet* request = comm_socket_v4_packet_create();
    int failed = comm_socket_v4_packet_begin_writing(request, 0, command, "");
    int i;
    for (i = 0; i < count; ++i) {
        failed |= comm_socket_v4_packet_write_argv(request, arguments[i]);
    }
    failed |= comm_socket_v4_packet_write_end(request);
    return failed ? comm_socket_v4_packet_release(request) : request;
}

static int print_reply(const comm_socket_v4_packet* reply) {
    size_t i;
    printf("%s: %s\n", comm_socket_v4_packet_get_command(reply), comm_socket_v4_packet_get_message(reply));
    for (i = 0; i < comm_socket_v4_packet_get_pair_count(reply); ++i) {
        printf("%s = %s\n", comm_socket_v4_packet_get_pair_name(reply, i),
               comm_socket_v4_packet_get_pair_value(reply, i));
    }
    return reply->status == COMM_SOCKET_V4_STATUS_SUCCESS ? 0 : 1;
}

int main(int argc, char** argv) {
    comm_socket_v4_error error;
    comm_socket_v4_connection* connection;
    comm_socket_v4_packet* request;
    comm_socket_v4_packet* reply = NULL;
    int result = 3;

    if (argc < 2) {
        fprintf(stderr, "usage: %s SOCKET [COMMAND [ARGUMENT...]]\n", argv[0]);
        return 2;
    }
    connection = comm_socket_v4_connect(argv[1], TIMEOUT_US, &error);
    if (connection == NULL) {
        fprintf(stderr, "%s: %s\n", argv[1], comm_socket_v4_error_text(error));
        return 3;
    }
    request = make_request(argc > 2 ? argv[2] : "hello", argv + 3, argc - 3);
    error = comm_socket_v4_call(connection, request, TIMEOUT_US, &reply);
    if (error == COMM_SOCKET_V4_OK) {
        result = print_reply(reply);
    } else {
        fprintf(stderr, "%s: %s\n", argv[1], comm_socket_v4_error_text(error));
    }
    comm_socket_v4_packet_release(reply);
    comm_socket_v4_packet_release(request);
    comm_socket_v4_disconnect(connection);
    return result;
}
