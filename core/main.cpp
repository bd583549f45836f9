#include <fcntl.h>
#include <unistd.h>

#include "base/thread_roles.h"
#include "core/heap.h"
#include "core/main_loop.h"
#include "core/options.h"

namespace {

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
