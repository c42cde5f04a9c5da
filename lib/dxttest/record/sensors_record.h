// The clock each tested processor ran at and the temperatures its sensors
// reached, as the JSON record, the text summary and --describe say them.
#ifndef TARNEL_DXTTEST_SENSORS_RECORD_H
#define TARNEL_DXTTEST_SENSORS_RECORD_H

#include <string>
#include <vector>

#include "sensors.h"
#include "text.h"

namespace dxt {

// ,"clock":[...],"temperatures":{...}; both null when nothing was read (a
// signal's ending, a usage error).
void put_sensors_json(text_buffer &out, const sensors::sensor_report *r);
// "SUMMARY clock: ...", "SUMMARY cpufreq: ..." and "SUMMARY temperature:
// ..." lines.
void put_sensors_text(text_buffer &out, long long time, const sensors::sensor_report &r);
// --describe: what a run would read, and what it reads now.
void put_sensors_described(text_buffer &out, const sensors::sensor_report &r);
size_t sensors_room(const sensors::sensor_report *r);
// A sensor that reached its critical temperature.
std::vector<std::string> sensor_warnings(const sensors::sensor_report &r);
// "coretemp Core 3 (cpus 3,7)"
std::string sensor_name(const sensors::temperature_sensor &s);

}  // namespace dxt

#endif
