// The two threads of a connection for unit tests, linked in place of the real ones: they do nothing until
// they are cancelled, so that a test alone fills and empties the queues.
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
