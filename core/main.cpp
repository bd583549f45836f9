#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include "base/thread_roles.h"
#include "core/main_loop.h"
#include "core/options.h"

namespace {

constexpr int GIVE_BACK_BYTES = 65536;

// By default the allocator keeps a heap for every few threads, each as large as its worst moment. A server that runs
// for years has one, and it gives back what is freed: a stalled player's media is large, and gone the next moment.
void use_one_small_heap() {
    mallopt(M_ARENA_MAX, 1);
    mallopt(M_MMAP_THRESHOLD, GIVE_BACK_BYTES);
    mallopt(M_TRIM_THRESHOLD, GIVE_BACK_BYTES);
}

// A socket that became descriptor 2 would be sent every diagnostic line.
void open_closed_standard_descriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) < 0) {
            // The lowest free descriptor is this one, since those below it are open by now.
            static_cast<void>(open("/dev/null", O_RDWR));
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    assume_role(MAIN_THREAD);
    use_one_small_heap();
    open_closed_standard_descriptors();
    if (!parse_options(argc, argv)) {
        return 1;
    }
    return run_server();
}
