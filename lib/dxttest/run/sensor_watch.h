// The clock and the temperature of the processors a run tests: the clock
// counters read before the workers start and after they end, and the
// temperature sensors sampled once a second between, from a thread on a
// processor the run does not test (with none free, only before and after),
// so that no reading lands on a tested processor during a subtest.
#ifndef TARNEL_DXTTEST_SENSOR_WATCH_H
#define TARNEL_DXTTEST_SENSOR_WATCH_H

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "machine.h"
#include "sensors.h"

namespace dxt {

constexpr long long sample_interval_ms = 1000;

struct sensor_watch {
    std::string root;  // "" for this machine; --sensors-from
    std::vector<int> tested;
    std::vector<sensors::clock_counts> before;  // per tested processor
    std::vector<sensors::temperature_sensor> found;  // those covering a tested processor
    // Per sensor, and per tested processor's scaling_cur_freq: millidegrees
    // and kHz, -1 until read; the sampler writes, the ending reads.
    std::unique_ptr<std::atomic<long long>[]> start, highest, last, cur_khz;
    std::atomic<int> samples{0};
    std::thread sampler;
    std::mutex lock;
    std::condition_variable wake;
    bool stopping = false;  // under lock
    std::string sampling_why;
    std::once_flag ended;
    sensors::sensor_report report;
};

// Before the workers start.
void start_sensor_watch(sensor_watch &w, const machine_description &machine, const std::string &root);
// After they end (or the run is ending): the sampler stopped and every
// sensor read once more. Once; later calls give the same report.
const sensors::sensor_report &end_sensor_watch(sensor_watch &w);

// What --describe says a run would read: the registers of each processor
// and every sensor, read once now.
sensors::sensor_report sensors_now(std::span<const int> cpus, const std::string &root);

}  // namespace dxt

#endif
