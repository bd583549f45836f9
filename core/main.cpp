#include <fcntl.h>
#include <unistd.h>

#include "base/thread_roles.h"
#include "core/heap.h"
#include "core/main_loop.h"
#include "core/options.h"

namespace {

// Opens standard descriptors that are closed; otherwise a socket could become descriptor 2 and receive every
// diagnostic line. Returns false on failure.
bool open_closed_standard_descriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        // This is the lowest free descriptor, since all lower ones are open by now.
        if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDWR) != fd) {
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    assume_role(MAIN_THREAD);
    use_one_small_heap();
    if (!open_closed_standard_descriptors()) {
        return 1;
    }
    if (!parse_options(argc, argv)) {
        return 1;
    }
    return run_server();
}
