// Linked into the unit tests in coverage builds. A process ended by a failed assertion still writes its
// coverage data, so death tests count.
#include <csignal>

extern "C" void __gcov_dump();

namespace {

void write_counts(int signal_number) {
    __gcov_dump();
    (void)std::signal(signal_number, SIG_DFL);
    (void)std::raise(signal_number);
}

[[maybe_unused]] const auto INSTALLED = std::signal(SIGABRT, write_counts);

}  // namespace
