// The run's clock and temperature readings (sensor_watch.h).
#include "sensor_watch.h"

#include <algorithm>

#include "cpuset.h"

namespace dxt {

namespace {

bool covers_any(const sensors::temperature_sensor &s, std::span<const int> cpus)
{
    return std::any_of(s.cpus.begin(), s.cpus.end(),
                       [&](int cpu) { return std::find(cpus.begin(), cpus.end(), cpu) != cpus.end(); });
}

void take_sample(sensor_watch &w)
{
    for (size_t i = 0; i < w.found.size(); i++) {
        long long mc = sensors::read_millidegrees(w.found[i].input);
        if (mc < 0)
            continue;
        long long none = -1;
        w.start[i].compare_exchange_strong(none, mc);
        w.last[i] = mc;
        if (mc > w.highest[i].load())
            w.highest[i] = mc;
    }
    for (size_t i = 0; i < w.tested.size(); i++)
        if (long long khz = sensors::read_cur_khz(w.root, w.tested[i]); khz > 0)
            w.cur_khz[i] = khz;
    w.samples++;
}

// Bound to a processor the run does not test, or not started at all.
void sample(sensor_watch &w, int cpu)
{
    // Read once the thread is joined.
    if (bind_thread(cpu) != 0) {
        w.sampling_why = "the sampler could not be bound to cpu" + std::to_string(cpu) +
                         ", which the run leaves free, so the sensors were read only before and after it";
        return;
    }
    std::unique_lock<std::mutex> hold(w.lock);
    while (!w.wake.wait_for(hold, std::chrono::milliseconds(sample_interval_ms), [&] { return w.stopping; })) {
        hold.unlock();
        take_sample(w);
        hold.lock();
    }
}

// A processor the machine has online but the run leaves alone.
int free_processor(const machine_description &machine)
{
    for (const left_out_processor &p : machine.left_out)
        if (std::string_view(p.reason) == "not-allowed")
            return p.cpu;
    return -1;
}

}  // namespace

void start_sensor_watch(sensor_watch &w, const machine_description &machine, const std::string &root)
{
    w.root = root;
    w.tested = machine.tested;
    for (int cpu : w.tested)
        w.before.push_back(sensors::read_clock_counts(root, cpu, sensors::reading::before));
    for (sensors::temperature_sensor &s : sensors::find_temperature_sensors(root))
        if (covers_any(s, w.tested))
            w.found.push_back(std::move(s));
    if (w.found.empty())
        w.report.temperatures_why = sensors::no_sensors_why(root);
    size_t n = std::max(w.found.size(), w.tested.size());
    for (auto *values : {&w.start, &w.highest, &w.last, &w.cur_khz}) {
        *values = std::make_unique<std::atomic<long long>[]>(n);
        for (size_t i = 0; i < n; i++)
            (*values)[i] = -1;
    }
    take_sample(w);
    bool cpufreq = false;
    for (size_t i = 0; i < w.tested.size(); i++)
        cpufreq = cpufreq || w.cur_khz[i] > 0;
    if (w.found.empty() && !cpufreq)
        return;  // nothing to sample
    int cpu = free_processor(machine);
    if (cpu < 0) {
        w.sampling_why = "every processor the run may use is under test, so the sensors were read only before "
                         "and after it";
        return;
    }
    w.sampler = std::thread(sample, std::ref(w), cpu);
}

const sensors::sensor_report &end_sensor_watch(sensor_watch &w)
{
    std::call_once(w.ended, [&] {
        if (w.sampler.joinable()) {
            {
                std::lock_guard<std::mutex> hold(w.lock);
                w.stopping = true;
            }
            w.wake.notify_all();
            w.sampler.join();
        }
        sensors::sensor_report &r = w.report;
        r.sampled_during_run = w.samples.load() > 1;
        if (!r.sampled_during_run && w.sampling_why.empty() && !w.found.empty())
            w.sampling_why = "the run ended before the first sample during it";
        r.sampling_why = w.sampling_why;
        take_sample(w);
        r.samples = w.samples.load();
        for (size_t i = 0; i < w.tested.size(); i++) {
            sensors::cpufreq_view view = sensors::read_cpufreq(w.root, w.tested[i]);
            if (w.cur_khz[i] > 0)
                view.cur_khz = w.cur_khz[i];
            r.clocks.push_back(sensors::clock_between(
                w.tested[i], w.before[i], sensors::read_clock_counts(w.root, w.tested[i], sensors::reading::after),
                view));
        }
        for (size_t i = 0; i < w.found.size(); i++)
            r.temperatures.push_back({w.found[i], w.start[i], w.highest[i], w.last[i]});
    });
    return w.report;
}

sensors::sensor_report sensors_now(std::span<const int> cpus, const std::string &root)
{
    sensors::sensor_report r;
    for (int cpu : cpus) {
        // One reading grows nothing: whether it could be taken is the news.
        sensors::clock_counts now = sensors::read_clock_counts(root, cpu, sensors::reading::before);
        r.clocks.push_back(sensors::clock_between(cpu, now, now, sensors::read_cpufreq(root, cpu)));
        r.clocks.back().why = now.why;
    }
    for (sensors::temperature_sensor &s : sensors::find_temperature_sensors(root)) {
        long long mc = sensors::read_millidegrees(s.input);
        r.temperatures.push_back({std::move(s), mc, mc, mc});
    }
    if (r.temperatures.empty())
        r.temperatures_why = sensors::no_sensors_why(root);
    return r;
}

}  // namespace dxt
