// Reading the corrected-error counters from fixture trees laid out like
// the kernel's.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "dxtsysinfo_ext.h"

namespace {

namespace fs = std::filesystem;

class error_counters : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "sysinfo_errors.XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root = pattern;
    }
    void TearDown() override { fs::remove_all(root); }

    void file(const std::string &path, const std::string &text)
    {
        fs::path at = root / path;
        fs::create_directories(at.parent_path());
        std::ofstream(at) << text;
    }

    void controller(const std::string &name, const std::string &ce_count, const std::string &ce_noinfo_count)
    {
        file("sys/devices/system/edac/mc/" + name + "/ce_count", ce_count);
        if (!ce_noinfo_count.empty())
            file("sys/devices/system/edac/mc/" + name + "/ce_noinfo_count", ce_noinfo_count);
    }

    void interrupts(const std::string &mce_line)
    {
        file("proc/interrupts", "            CPU0       CPU1       \n"
                                "   0:         41          0   IO-APIC   2-edge      timer\n"
                                " NMI:          0          0   Non-maskable interrupts\n" +
                                    mce_line +
                                    " MCP:        312        312   Machine check polls\n"
                                    " ERR:          0\n");
    }

    dxt_corrected_errors read(int expected_result)
    {
        dxt_corrected_errors snapshot;
        EXPECT_EQ(read_corrected_errors(root.c_str(), &snapshot), expected_result);
        return snapshot;
    }

    fs::path root;
};

TEST_F(error_counters, nothing_exposed_is_not_available)
{
    dxt_corrected_errors snapshot = read(0);
    EXPECT_EQ(snapshot.edac_available, 0);
    EXPECT_EQ(snapshot.mce_available, 0);
    EXPECT_EQ(snapshot.total, 0u);
    // The directories without counters in them say nothing either.
    fs::create_directories(root / "sys/devices/system/edac/mc");
    file("proc/interrupts", "           CPU0\n  0:  41  IO-APIC   2-edge      timer\n");
    snapshot = read(0);
    EXPECT_EQ(snapshot.edac_available, 0);
}

TEST_F(error_counters, edac_sums_controllers_and_unplaced_errors)
{
    controller("mc0", "3\n", "1\n");
    controller("mc1", "10\n", "");
    controller("mc12", "0\n", "0\n");
    dxt_corrected_errors snapshot = read(1);
    EXPECT_EQ(snapshot.edac_available, 1);
    EXPECT_EQ(snapshot.edac_corrected, 14u);
    EXPECT_EQ(snapshot.mce_available, 0);
    EXPECT_EQ(snapshot.total, 14u);
}

TEST_F(error_counters, malformed_counts_and_other_entries_are_passed_over)
{
    controller("mc0", "7\n", "x\n");   // ce_count counts, ce_noinfo_count does not
    controller("mc1", "-4\n", "2\n");  // the whole controller is passed over
    controller("mc2", "", "5\n");
    controller("mc3", "99999999999999999999999\n", "");
    controller("mcx", "100\n", "");
    controller("power", "100\n", "");
    dxt_corrected_errors snapshot = read(1);
    EXPECT_EQ(snapshot.edac_corrected, 7u);
    controller("mc0", "seven\n", "");
    EXPECT_EQ(read(0).edac_available, 0);
}

TEST_F(error_counters, machine_check_exceptions_summed_over_processors)
{
    interrupts(" MCE:          2          5   Machine check exceptions\n");
    dxt_corrected_errors snapshot = read(1);
    EXPECT_EQ(snapshot.mce_available, 1);
    EXPECT_EQ(snapshot.machine_checks, 7u);  // the polls line is not counted
    controller("mc0", "3\n", "");
    snapshot = read(1);
    EXPECT_EQ(snapshot.total, 10u);
}

TEST_F(error_counters, machine_check_line_without_counts_is_not_available)
{
    interrupts(" MCE:   Machine check exceptions\n");
    EXPECT_EQ(read(0).mce_available, 0);
}

TEST(error_increase, only_sources_present_both_times_and_never_negative)
{
    dxt_corrected_errors before = {1, 10, 1, 4, 14};
    dxt_corrected_errors after = {1, 13, 1, 4, 17};
    EXPECT_EQ(corrected_errors_increase(&before, &after), 3u);
    after.machine_checks = 6;
    EXPECT_EQ(corrected_errors_increase(&before, &after), 5u);
    after.edac_corrected = 2;  // the counters were reset during the run
    EXPECT_EQ(corrected_errors_increase(&before, &after), 2u);
    before.mce_available = 0;  // the line appeared only afterwards
    EXPECT_EQ(corrected_errors_increase(&before, &after), 0u);
}

TEST(error_counters_here, reading_this_machine_agrees_with_itself)
{
    dxt_corrected_errors snapshot;
    int available = read_corrected_errors("/", &snapshot);
    EXPECT_EQ(available, snapshot.edac_available || snapshot.mce_available);
    EXPECT_EQ(snapshot.total, snapshot.edac_corrected + snapshot.machine_checks);
    dxt_corrected_errors same;
    EXPECT_EQ(read_corrected_errors(nullptr, &same), available);
}

}  // namespace
