// Trees as a hostile peer would send them, and the conditions under which they must be survived: a stack far
// too small to recurse, and a time limit.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "amf/amf_value.h"

using Bytes = std::vector<unsigned char>;

// As many objects below an object as the longest message can hold: 3 bytes each.
constexpr std::size_t DEEPEST_NEST = 349524;
// As many members with keys of three bytes as the longest message can hold: 6 bytes each.
constexpr std::size_t MOST_MEMBERS = 174000;

inline Bytes nested_object_bytes(std::size_t levels) {
    Bytes bytes{0x03};
    bytes.reserve(1 + 3 * levels);
    for (std::size_t i = 0; i < levels; ++i) {
        bytes.insert(bytes.end(), {0x00, 0x00, 0x03});
    }
    return bytes;
}

inline AMF_Value nested_object(std::size_t levels) {
    AMF_Value root;
    AMF_Value* innermost = &root;
    innermost->type = AMF_Type::Object;
    for (std::size_t i = 0; i < levels; ++i) {
        innermost = &innermost->member("");
        innermost->type = AMF_Type::Object;
    }
    return root;
}

// Returns how many objects are nested in v, each under the empty key.
inline std::size_t nested_levels(const AMF_Value& v) {
    std::size_t levels = 0;
    for (const AMF_Value* inner = &v; !inner->members.empty(); inner = &inner->members.begin()->second) {
        ++levels;
    }
    return levels;
}

// Distinct keys of three bytes, ascending.
inline std::string three_byte_key(std::size_t idx) {
    return {static_cast<char>(idx >> 16 & 0xFF), static_cast<char>(idx >> 8 & 0xFF),
            static_cast<char>(idx & 0xFF)};
}

inline Bytes wide_object_bytes(std::size_t members, bool ascending) {
    Bytes bytes{0x03};
    bytes.reserve(1 + 6 * members);
    for (std::size_t i = 0; i < members; ++i) {
        const std::string key = three_byte_key(ascending ? i : members - 1 - i);
        bytes.insert(bytes.end(), {0x00, 0x03});
        bytes.insert(bytes.end(), key.begin(), key.end());
        bytes.push_back(0x05);
    }
    return bytes;
}

// Code that is not linear takes minutes. ThreadSanitizer makes everything here about ten times slower.
#if defined(__SANITIZE_THREAD__)
constexpr std::chrono::seconds TIME_LIMIT(15);
#else
constexpr std::chrono::seconds TIME_LIMIT(3);
#endif

// CPU time, not wall-clock time: a busy machine must not fail a test.
inline std::chrono::nanoseconds cpu_time() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

// Runs the body with a stack of 256 KiB and fails the test if it takes longer than the limit. About twenty
// thousand levels of the smallest possible recursion do not fit on such a stack.
inline void on_small_stack_in_time(const std::function<void()>& body) {
    const auto start = cpu_time();
    pthread_attr_t attributes;
    pthread_t thread;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 256 * 1024), 0);
    const auto entry = [](void* argument) -> void* {
        (*static_cast<const std::function<void()>*>(argument))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, entry, const_cast<std::function<void()>*>(&body)), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    pthread_attr_destroy(&attributes);
    EXPECT_LT(cpu_time() - start, TIME_LIMIT);
}
