// Runs a fuzz target over files and over all files in folders, for builds without libFuzzer. A folder that
// does not exist is empty, but there must be at least one file to run.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" [[gnu::weak]] int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

void run_file(const std::filesystem::path& path) {
    std::printf("%s\n", path.c_str());
    std::fflush(stdout);  // The name of the failing one must be visible.
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    // A block of exactly the file's size, so that reading beyond it is noticed.
    const std::unique_ptr<std::uint8_t[]> exact(new std::uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), exact.get());
    LLVMFuzzerTestOneInput(exact.get(), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize != nullptr) {
        LLVMFuzzerInitialize(&argc, &argv);
    }
    int runs = 0;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path path(argv[i]);
        if (std::filesystem::is_directory(path)) {
            for (const auto& entry : std::filesystem::directory_iterator(path)) {
                run_file(entry.path());
                ++runs;
            }
        } else if (std::filesystem::exists(path)) {
            run_file(path);
            ++runs;
        }
    }
    std::printf("%d inputs\n", runs);
    return runs > 0 ? 0 : 1;
}
