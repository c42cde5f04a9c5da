// Proof of detection, on the simulated faulty memory: a bad word in the
// buffer of every verifying test is found and reported as that test
// reports a miscompare, while the tests that only make traffic still pass
// over the same kinds of fault.
#include <cstdint>
#include <cstring>
#include <functional>

#include "driver/tarnel.h"
#include "fault_model.h"
#include "harness/testinfo.h"
#include "stress/l2cache.h"
#include "stress_fixture.h"

namespace {

using plant_fn = std::function<void(char *block)>;

class stress_detection : public stress_fixture {
protected:
    void SetUp() override
    {
        stress_fixture::SetUp();
        fault::reset();
    }

    // Plants in the nth block memalign hands out, after filling it.
    static void plant_in(int nth, plant_fn plant)
    {
        fault::in_allocation(nth, [plant](char *block, size_t length) {
            std::memset(block, FILL_BYTE, length);
            plant(block);
        });
    }
};

char *word(char *block, uint32_t i) { return block + 4 * i; }

// ---- write/read/verify: message 6000 ends the process ----

// 16 words a region; the start 0x01000100 puts 0x0100010A into A[5] and
// 0x01000105 into B[2].
struct wrrdvr_fault {
    const char *name;
    plant_fn plant;
};

const wrrdvr_fault wrrdvr_faults[] = {
    {"stuck at 1 in region a", [](char *b) { fault::stuck_at(word(b, 5), 0, 1); }},
    {"stuck at 0 in region b", [](char *b) { fault::stuck_at(word(b, 16 + 2), 0, 0); }},
    {"lost write", [](char *b) { fault::lost_write(word(b, 7)); }},
    {"b aliased onto a", [](char *b) { fault::alias(word(b, 16 + 2), word(b, 2)); }},
};

TEST_F(stress_detection, wrrdvr_ends_the_process_with_6000_after_freeing_its_buffer)
{
    for (const wrrdvr_fault &f : wrrdvr_faults) {
        SCOPED_TRACE(f.name);
        SetUp();
        plant_in(0, f.plant);
        fake::script_lrand48({0x100});
        try {
            cache_wrrdvr_stress(nullptr, 64, 1, 3);
            ADD_FAILURE() << "message 6000 must end the process";
        } catch (const fake::exit_request &request) {
            EXPECT_EQ(request.exit_flag, DXT_STEP_FAIL);
            EXPECT_EQ(request.number, MSG_MISCOMPARE);
        }
        EXPECT_EQ(message_log(), (std::vector<std::string>{"0 7 -: #3", "1 2 -: #6000"}));
        ASSERT_EQ(freed::blocks().size(), 1u);
        EXPECT_EQ(freed::blocks()[0].messages_before, 1u);  // freed before 6000
        EXPECT_EQ(fake::lrand48_calls(), 1);                 // no second pass
    }
}

// ---- cache hit stress: -1 from the 64-bit phase and the record verify ----

// d = 0.375: phase 4 stores 0.75, whose high word is 0x3FE80000 and low
// word 0; the first kernel's buffer has 16 words.
TEST_F(stress_detection, the_64_bit_phase_fails_the_hit_test)
{
    const plant_fn faults[] = {
        [](char *b) { fault::stuck_at(word(b, 1), 29, 0); },
        [](char *b) { fault::stuck_at(word(b, 12), 0, 1); },
        [](char *b) { fault::lost_write(word(b, 5)); },
    };
    for (const plant_fn &plant : faults) {
        SetUp();
        plant_in(0, plant);
        fake::script_drand48({0.375});
        EXPECT_EQ(cache_hit_stress(nullptr, 64, 64, 2), -1);
        EXPECT_EQ(fake::memalign_calls(), 1);  // no later kernel ran
    }
}

TEST_F(stress_detection, the_store_only_phases_pass_over_a_bad_bit)
{
    // One pass: word 14 keeps the complemented word of phase 2, which the
    // stuck bit spoils, and the 64-bit phases never reach it.
    plant_in(0, [](char *b) { fault::stuck_at(word(b, 14), 0, 0); });
    fake::script_drand48({0.375});
    fake::script_lrand48({0x12344});  // complemented word 0xDCBADCBB, bit 0 set
    EXPECT_EQ(basic_dtype_l2cachehit_stress(nullptr, 64, 1), 0);
    EXPECT_EQ(freed::blocks().at(0).word(14), 0xDCBADCBAu);
}

TEST_F(stress_detection, the_record_verify_fails_the_hit_test)
{
    const plant_fn faults[] = {
        [](char *b) { fault::stuck_at(b + 8, 0, 1); },  // slot 0's second 32-bit field
        [](char *b) { fault::lost_write(b + 12); },     // slot 1's 16-bit field, left 0x5A5A
    };
    for (const plant_fn &plant : faults) {
        SetUp();
        plant_in(2, plant);  // after the basic and the line-stride kernels
        EXPECT_EQ(cache_hit_stress(nullptr, 64, 64, 1), -1);
        EXPECT_EQ(fake::memalign_calls(), 3);
        EXPECT_EQ(fake::lrand48_calls(), 2);  // the column kernel never drew
    }
}

TEST_F(stress_detection, records_compare_every_field_but_the_write_walk_does_not)
{
    const derived_rec ones = {-1, -1, -1, -1};
    uint8_t area[33];
    fault::stuck_at(area + 4, 27, 0);  // byte 7: the first byte of the second 32-bit field
    EXPECT_EQ(derived_dtype_write(area, 33, 2, &ones), 0);
    EXPECT_EQ(area[7], 0xF7);
    EXPECT_EQ(derived_dtype_write_read_verify(area, 33, 2, &ones), -1);
}

// ---- random offsets: the store-and-check phase gives -1 ----

TEST_F(stress_detection, the_store_and_check_phase_finds_a_listed_word)
{
    // Both lists hold the one word 5; the second pattern is 1.
    const std::vector<long> draws = {1, 4, 5, 1, 4, 5, 4, 5};
    const std::function<void(uint32_t *)> faults[] = {
        [](uint32_t *buffer) { fault::stuck_at(buffer + 5, 0, 0); },
        [](uint32_t *buffer) { fault::lost_write(buffer + 5); },
    };
    for (const auto &plant : faults) {
        SetUp();
        uint32_t buffer[16] = {};
        plant(buffer);
        fake::script_lrand48(draws);
        EXPECT_EQ(cache_rand_off_stress(buffer, 64, 2), -1);
        EXPECT_EQ(fake::lrand48_calls(), 6);  // the load phase drew no list

        fake::script_lrand48({4, 5});
        EXPECT_EQ(rand_off_wr_loop(buffer, 16, 2, 1), 0);
        fake::script_lrand48({4, 5});
        EXPECT_EQ(rand_off_rd_loop(buffer, 16, 2), 0);
    }
}

// ---- row and column striding marches: -1 ----

TEST_F(stress_detection, the_marches_find_stuck_bits_and_lost_writes)
{
    struct {
        long choice;  // table index of the pattern
        plant_fn plant;
    } faults[] = {
        {0, [](char *b) { fault::stuck_at(word(b, 9), 31, 0); }},  // p = 0xFFFFFFFF
        {1, [](char *b) { fault::stuck_at(word(b, 3), 4, 1); }},   // p = 0
        {2, [](char *b) { fault::lost_write(word(b, 6)); }},        // left 0x5A5A5A5A
    };
    for (const auto &f : faults) {
        SetUp();
        plant_in(0, f.plant);
        fake::script_lrand48({f.choice});
        EXPECT_EQ(cache_march_stress1(nullptr, 64, 64, 3), -1);
        EXPECT_EQ(fake::numbers(), (std::vector<int>{0, 9, 10}));
        EXPECT_EQ(fake::munlock_calls().size(), 1u);

        SetUp();
        plant_in(0, f.plant);
        fake::script_lrand48({f.choice});
        EXPECT_EQ(cache_march_stress2(nullptr, 64, 3), -1);
        EXPECT_EQ(fake::numbers(), (std::vector<int>{0, 11, 12}));
        EXPECT_EQ(fake::lrand48_calls(), 1);  // no second pass
    }
}

TEST_F(stress_detection, a_coupling_is_found_only_when_the_aggressor_follows_its_victim)
{
    // Victim: word 1 (row 0, column 1); aggressor: word 16 (row 1, column
    // 0 of 64-byte lines). Ascending order stores the aggressor after the
    // victim; row striding stores it before.
    auto couple = [](char *b) { fault::coupling(word(b, 16), word(b, 1), 0); };
    plant_in(0, couple);
    fake::script_lrand48({1});
    EXPECT_EQ(cache_march_stress2(nullptr, 128, 1), -1);

    SetUp();
    plant_in(0, couple);
    fake::script_lrand48({1});
    EXPECT_EQ(cache_march_stress1(nullptr, 64, 64, 1), 0);
}

// ---- traffic-only tests: a bad word does not change their result ----

TEST_F(stress_detection, traffic_only_tests_still_pass_over_bad_words)
{
    plant_in(0, [](char *b) { fault::stuck_at(word(b, 1), 5, 1); });
    fake::script_lrand48({1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});  // last pattern 0
    EXPECT_EQ(crand(nullptr, 256), 0);
    EXPECT_EQ(freed::blocks().at(0).word(1), 0x20u);
    EXPECT_EQ(freed::blocks().at(1).word(1), 0u);

    SetUp();
    plant_in(0, [](char *b) {
        fault::lost_write(word(b, 2));
        fault::stuck_at(word(b, 3), 31, 1);
    });
    EXPECT_EQ(cache_miss_stress(nullptr, 64, 16, 2, 2), 0);
    EXPECT_EQ(freed::blocks().at(0).word(2), FILL_WORD);
    EXPECT_NE(freed::blocks().at(0).word(3) & 0x80000000u, 0u);

    SetUp();
    plant_in(0, [](char *b) { fault::stuck_at(word(b, 0), 0, 1); });
    fake::script_lrand48({2});
    EXPECT_EQ(l2cachehit_wrrdwr(nullptr, 64, 4, 1), 0);
    // The strided words sum the filled word four times, once with the bit.
    EXPECT_EQ(freed::blocks().at(0).word(1), 0x00020002u);
    EXPECT_EQ(freed::blocks().at(0).word(4), 0x00020002u * 5 + 1);

    uint32_t words[16] = {};
    fault::alias(words + 3, words + 4);
    EXPECT_EQ(cache_readmiss(words, 64, 32, 2), 0);
    EXPECT_EQ(cache_writemiss(words, 64, 16, 1, 9), 0);
}

// ---- end to end: a failing worker fails the run ----

TEST_F(stress_detection, a_worker_that_finds_a_bad_word_fails_the_run_with_8011)
{
    count = 1;
    test_mask = TEST_CACHE_HIT;
    fake::set_descriptor(0, 4, 256, 64, 2);
    plant_in(0, [](char *b) { fault::stuck_at(word(b, 1), 29, 0); });
    fake::script_drand48({0.375});
    char name[] = "tarneltest";
    char *argv[] = {name, nullptr};
    try {
        tarnel_main(1, argv);
        ADD_FAILURE() << "message 8011 must end the run";
    } catch (const fake::exit_request &request) {
        EXPECT_EQ(request.exit_flag, DXT_FATAL);
        EXPECT_EQ(request.number, MSG_WORKERS_FAILED);
    }
    EXPECT_EQ(fake::count_of(MSG_RUN_END), 0);
}

}  // namespace
