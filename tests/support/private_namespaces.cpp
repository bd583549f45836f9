#include "tests/support/private_namespaces.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/test_failure.h"

namespace {

[[noreturn]] void give_up(const char* step) {
    std::fprintf(
        stderr,
        "Cannot make private namespaces for the tests: %s: %s\n"
        "These tests start servers on port 1935 and on a socket in /run, so they run in namespaces of\n"
        "their own. Run them as root with CAP_SYS_ADMIN (in a container: --privileged, or\n"
        "--cap-add SYS_ADMIN with seccomp and AppArmor profiles that allow unshare and mount), or, as\n"
        "another user, allow user namespaces: sysctl -w kernel.unprivileged_userns_clone=1 or\n"
        "user.max_user_namespaces=10000.\n",
        step, std::strerror(errno));
    std::exit(2);
}

void write_map(const char* path, const std::string& text) {
    std::ofstream file(path);
    file << text << std::flush;
    if (!file) {
        give_up(path);
    }
}

// A sanitizer's own thread exists before main, and a process with threads cannot change its user namespace.
// So unshare(1) creates the namespace and starts this program again as its root.
[[noreturn]] void start_again_as_namespace_root(char** argv) {
    std::vector<const char*> arguments = {"unshare", "--user", "--map-root-user", "/proc/self/exe"};
    std::string self(4096, '\0');
    const ssize_t length = readlink("/proc/self/exe", self.data(), self.size() - 1);
    if (length <= 0) {
        give_up("reading /proc/self/exe");
    }
    arguments.back() = self.c_str();
    for (char** argument = argv + 1; *argument != nullptr; ++argument) {
        arguments.push_back(*argument);
    }
    arguments.push_back(nullptr);
    execvp("unshare", const_cast<char**>(arguments.data()));
    give_up("starting unshare(1)");
}

void enter_namespaces(char** argv) {
    constexpr int OWN_NETWORK_AND_MOUNTS = CLONE_NEWNET | CLONE_NEWNS;
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (unshare(OWN_NETWORK_AND_MOUNTS) == 0) {
        return;
    }
    if (uid == 0 && errno != EPERM) {
        give_up("unshare");
    }
    if (unshare(OWN_NETWORK_AND_MOUNTS | CLONE_NEWUSER) != 0) {
        if (errno == EINVAL && uid != 0) {
            start_again_as_namespace_root(argv);
        }
        give_up("unshare");
    }
    write_map("/proc/self/setgroups", "deny");
    write_map("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    write_map("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

void mount_private_run() {
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        give_up("making mounts private");
    }
    if (mount("tmpfs", "/run", "tmpfs", 0, "mode=0755") != 0) {
        give_up("mounting a tmpfs on /run");
    }
    struct stat info {};
    if (lstat("/var/run", &info) == 0 && S_ISDIR(info.st_mode) &&
        mount("tmpfs", "/var/run", "tmpfs", 0, "mode=0755") != 0) {
        give_up("mounting a tmpfs on /var/run");
    }
}

void bring_loopback_up() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::memcpy(request.ifr_name, "lo", 3);
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    if (fd < 0 || ioctl(fd, SIOCSIFFLAGS, &request) != 0) {
        give_up("bringing the loopback interface up");
    }
    close(fd);
}

}  // namespace

void enter_private_namespaces(char** argv) {
    enter_namespaces(argv);
    mount_private_run();
    bring_loopback_up();
}

std::string linked_in_run(const std::string& file) {
    const std::string link = "/run/" + std::filesystem::path(file).filename().string();
    if (symlink(file.c_str(), link.c_str()) != 0 && errno != EEXIST) {
        throw TestFailure("cannot make " + link + ": " + std::strerror(errno));
    }
    return link;
}
