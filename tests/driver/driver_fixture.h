// Shared set-up of the driver tests: fakes reset, option variables and the
// run-wide counters back to their program-start values.
#ifndef TARNEL_TESTS_DRIVER_FIXTURE_H
#define TARNEL_TESTS_DRIVER_FIXTURE_H

#include <gtest/gtest.h>

#include <string>

#include "driver/tarnel.h"
#include "fakes.h"
#include "harness/testinfo.h"

class driver_fixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        count = 8;
        tag_count = 1;
        march_window = 0;
        march_al = 512;
        march_pats = 15;
        l1cache_write_policy = -1;
        test_mask = 0xFFFFF;
        iterations = 0;
        nprocs = 0;
        threads_spawned = 0;
    }

    // Runs the program's entry as the harness would start it.
    static void run(const std::string &subopts)
    {
        fake::set_subopts(subopts);
        char name[] = "tarneltest";
        char *argv[] = {name, nullptr};
        tarnel_main(1, argv);
    }
};

#endif
