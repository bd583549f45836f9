// What happens when memory runs out at any one allocation. The allocator of this executable counts live
// allocations and fails on command.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "amf/amf_dump.h"
#include "amf/amf_read.h"
#include "amf/amf_value.h"
#include "amf/amf_write.h"

namespace {

long live_allocations = 0;
long allocations_until_failure = -1;  // negative: none fails

}  // namespace

void* operator new(std::size_t size) {
    if (allocations_until_failure == 0) {
        throw std::bad_alloc();
    }
    if (allocations_until_failure > 0) {
        --allocations_until_failure;
    }
    void* memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    ++live_allocations;
    return memory;
}

void operator delete(void* memory) noexcept {
    if (memory != nullptr) {
        --live_allocations;
        std::free(memory);
    }
}

void operator delete(void* memory, std::size_t) noexcept {
    operator delete(memory);
}

namespace {

// {'a long key, beyond the small string': 'a long string, …', 'e': ECMA {'n': {'m': 1}, 'o': null}, …}, of
// which one key occurs twice.
constexpr unsigned char SAMPLE[] =
    "\x03"
    "\x00\x20"
    "0123456789012345678901234567890A"
    "\x02\x00\x18"
    "012345678901234567890123"
    "\x00\x01"
    "e"
    "\x08\x00\x00\x00\x02"
    "\x00\x01"
    "n"
    "\x03\x00\x01"
    "m"
    "\x00\x3f\xf0\0\0\0\0\0\0\0\0\x09"
    "\x00\x01"
    "o"
    "\x05\0\0\x09"
    "\x00\x20"
    "0123456789012345678901234567890A"
    "\x03\0\0\x0c\0\0\0\x18"
    "012345678901234567890123"
    "\0\0\x09"
    "\x00\x01"
    "x"
    "\x01\x02"
    "\0\0\x09";
constexpr std::size_t SAMPLE_BYTES = sizeof SAMPLE - 1;

AMF_Value sample() {
    AMF_Value v;
    const unsigned char* s = SAMPLE;
    if (!AMF_ReadValue(v, s, SAMPLE + SAMPLE_BYTES)) {
        std::abort();
    }
    return v;
}

// Runs body with the first, second, … allocation failing until none fails any more. Expects std::bad_alloc
// each time, and as many live allocations afterwards as before. Returns how often it failed.
template <typename Body>
long fail_every_allocation_of(const Body& body) {
    for (long allowed = 0;; ++allowed) {
        const long live = live_allocations;
        bool failed = false;
        allocations_until_failure = allowed;
        try {
            body();
        } catch (const std::bad_alloc&) {
            failed = true;
        }
        allocations_until_failure = -1;
        EXPECT_EQ(live_allocations, live) << "with " << allowed << " allocations";
        if (!failed) {
            return allowed;
        }
    }
}

}  // namespace

TEST(amf_exhaustion, leaks_nothing_when_decoding_fails) {
    const long failures = fail_every_allocation_of([] { (void)sample(); });
    EXPECT_GT(failures, 10);
}

TEST(amf_exhaustion, leaks_nothing_when_copying_fails) {
    AMF_Value source = sample();
    source.elements.append() = source;
    source.elements.append().elements.append();
    const long failures = fail_every_allocation_of([&source] { const AMF_Value copy(source); });
    EXPECT_GT(failures, 10);
}

TEST(amf_exhaustion, keeps_the_target_of_a_copy_assignment_that_fails) {
    const AMF_Value source = sample();
    AMF_Value target;
    target.member("kept").set_number(1);
    allocations_until_failure = 5;
    EXPECT_THROW(target = source, std::bad_alloc);
    allocations_until_failure = -1;
    EXPECT_EQ(target.members.size(), 1U);
    EXPECT_EQ(target.find_member("kept").number, 1.0);
}

TEST(amf_exhaustion, leaks_nothing_when_building_or_encoding_fails) {
    const AMF_Value source = sample();
    const long failures = fail_every_allocation_of([&source] {
        AMF_Value v;
        v.member("0123456789012345678901234567890A")
            .member("b")
            .set_string("0123456789012345678901234567890A");
        v.elements.append();
        unsigned char buffer[1024];
        unsigned char* d = buffer;
        EXPECT_TRUE(AMF_WriteValue(d, buffer + sizeof buffer, source));
    });
    EXPECT_GT(failures, 5);
}

TEST(amf_exhaustion, destroys_moves_and_resets_without_memory) {
    AMF_Value a = sample();
    a.elements.append() = sample();
    AMF_Value b(a);
    AMF_Value c(a);
    const long live = live_allocations;
    allocations_until_failure = 0;
    EXPECT_NO_THROW({
        a.reset();
        b = std::move(c);
        AMF_Value d(std::move(b));
        d.members.clear();
    });
    allocations_until_failure = -1;
    EXPECT_LT(live_allocations, live - 30);
    EXPECT_TRUE(a.members.empty());
}
