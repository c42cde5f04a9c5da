// The load-bearing cells of the measured fault coverage, recomputed: every
// verifying subtest finds a stuck bit in every word it compares, for at
// least one polarity; the Write/Read/Verify test finds an alias between its
// regions; the traffic-only subtests find nothing and still return 0. And
// docs/COVERAGE.md shows exactly what this measures.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "coverage.h"

namespace {

using namespace coverage;

std::vector<std::string> document_block()
{
    std::ifstream in(COVERAGE_DOCUMENT);
    std::stringstream text;
    text << in.rdbuf();
    return block_of(text.str());
}

std::string regenerate()
{
    return std::string(COVERAGE_DOCUMENT) + " does not match the measured coverage: regenerate it with\n  " +
           REGENERATE + "\n(from the source directory) and commit the result.";
}

bool has_line(const std::vector<std::string> &lines, const std::string &line)
{
    for (const std::string &l : lines)
        if (l == line)
            return true;
    return false;
}

class subtest_coverage : public ::testing::TestWithParam<const char *> {};

TEST_P(subtest_coverage, matches_the_document)
{
    const subtest &test = find(GetParam());
    row r = measure(test);
    EXPECT_EQ(r.other_failures, 0) << "a run failed for another reason than a miscompare it found";
    EXPECT_EQ(r.stray_accesses, 0) << "a fault-free run touched memory outside its buffers";

    if (test.verifies) {
        verified_check c = check_verified(test);
        EXPECT_GT(c.words, 0);
        EXPECT_EQ(c.found_either, c.words) << "a compared word whose stuck bit neither polarity reveals";
        EXPECT_TRUE(has_line(document_block(), verified_line(c))) << verified_line(c) << "\n" << regenerate();
        EXPECT_TRUE(has_line(document_block(), compared_words_line(r))) << compared_words_line(r) << "\n"
                                                                          << regenerate();
    } else {
        for (int m = 0; m < FAULT_MODELS; m++) {
            EXPECT_EQ(r.cells[m].found, 0) << model_names[m] << ": a traffic-only subtest reported a failure";
            EXPECT_EQ(r.cells[m].placed, PLACEMENTS);
        }
    }

    std::vector<std::string> lines = document_block();
    EXPECT_TRUE(has_line(lines, all_words_line(r))) << all_words_line(r) << "\n" << regenerate();
    EXPECT_TRUE(has_line(lines, touched_words_line(r))) << touched_words_line(r) << "\n" << regenerate();
}

INSTANTIATE_TEST_SUITE_P(every_subtest, subtest_coverage,
                         ::testing::Values("cache_wrrdvr_stress", "cache_hit_stress", "cache_miss_stress", "crand",
                                           "cache_interconnect_stress", "cache_march_stress4",
                                           "cache_march_stress3", "cache_march_stress1", "cache_march_stress2",
                                           "cache_rand_off_stress"),
                         [](const ::testing::TestParamInfo<const char *> &info) {
                             return std::string(info.param);
                         });

TEST(write_read_verify_coverage, finds_an_alias_between_its_two_regions)
{
    region_alias a = check_region_alias();
    EXPECT_EQ(a.words, static_cast<int>(CACHE_SIZE / 4));
    EXPECT_EQ(a.found_b_onto_a, a.words);
    EXPECT_EQ(a.found_a_onto_b, a.words);
    EXPECT_TRUE(has_line(document_block(), region_alias_line(a))) << region_alias_line(a) << "\n" << regenerate();
}

// The row tests above check each table line; this checks that nothing else
// in the generated block differs (headings, geometry, the rows present).
TEST(coverage_document, has_every_table_and_every_row)
{
    std::vector<row> rows;
    std::vector<verified_check> checks;
    for (const subtest &test : subtests()) {
        rows.push_back(row{});
        rows.back().test = &test;
        if (test.verifies) {
            checks.push_back(verified_check{});
            checks.back().test = &test;
        }
    }
    std::vector<std::string> lines = layout(document_block());
    std::vector<std::string> expected = layout(block(rows, checks, region_alias{}));
    ASSERT_FALSE(lines.empty()) << "no generated block between the markers\n" << regenerate();
    for (size_t i = 0; i < lines.size() && i < expected.size(); i++)
        ASSERT_EQ(lines[i], expected[i]) << "line " << i + 1 << " of the generated block\n" << regenerate();
    EXPECT_EQ(lines.size(), expected.size()) << regenerate();
}

}  // namespace
