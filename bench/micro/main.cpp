// Micro-benchmarks of the server's own functions. See bench/README.md.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    // The server's messages go to /dev/null. A terminal would add to the times.
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere < 0 || dup2(nowhere, STDERR_FILENO) < 0) {
        std::printf("/dev/null cannot be opened\n");
        return 1;
    }
    return benchmark::RunSpecifiedBenchmarks() > 0 ? 0 : 1;
}
