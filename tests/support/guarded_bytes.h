// Bytes that end at an inaccessible page: an access past the end kills the process at once, in every build.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <span>

class GuardedBytes {
  public:
    explicit GuardedBytes(std::span<const unsigned char> bytes) : GuardedBytes(bytes.size()) {
        std::copy(bytes.begin(), bytes.end(), first);
    }

    // Writable bytes, initially zero.
    explicit GuardedBytes(std::size_t size) : length(size) {
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        const std::size_t usable = (size + page - 1) / page * page;
        mapped = usable + page;
        map = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (map == MAP_FAILED || mprotect(static_cast<unsigned char*>(map) + usable, page, PROT_NONE) != 0) {
            std::abort();
        }
        first = static_cast<unsigned char*>(map) + usable - size;
    }

    ~GuardedBytes() { munmap(map, mapped); }
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;

    unsigned char* begin() { return first; }
    unsigned char* end() { return first + length; }
    [[nodiscard]] std::size_t size() const { return length; }

  private:
    std::size_t length;
    std::size_t mapped = 0;
    void* map = nullptr;
    unsigned char* first = nullptr;
};
