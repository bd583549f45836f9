// The two threads of a connection for unit tests, linked in place of the real ones. They do nothing until
// they are cancelled, so only the test fills and empties the queues.
#include <unistd.h>

#include "rtmp/session_threads.h"

void* reader_thread(void* /*argument*/) {
    for (;;) {
        pause();
    }
}

void* writer_thread(void* /*argument*/) {
    for (;;) {
        pause();
    }
}
