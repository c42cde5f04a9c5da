// What the harness asks the platform and the information library about the
// machine before a run: which processors the run tests, which it leaves
// out and why, and each tested processor's L2 as its worker will take it.
#include <unistd.h>

#include <algorithm>

#include "testinfo.h"
#include "platform.h"
#include "platform_ext.h"
#include "verdict.h"

namespace dxt {

namespace {

// Without the platform's list: every processor the C library counts, each
// either tested or offline.
void scan_configured(machine_description &m)
{
    for (long cpu = 0; cpu < sysconf(_SC_NPROCESSORS_CONF); cpu++) {
        if (p_online(static_cast<int>(cpu), P_STATUS) == P_ONLINE)
            m.tested.push_back(static_cast<int>(cpu));
        else
            m.left_out.push_back({static_cast<int>(cpu), "offline"});
    }
}

}  // namespace

machine_description describe_machine()
{
    machine_description m;
    std::vector<platform_processor> present(256);
    int count = platform_present_processors(present.data(), static_cast<int>(present.size()));
    if (count > static_cast<int>(present.size())) {
        present.resize(static_cast<size_t>(count));
        count = platform_present_processors(present.data(), count);
    }
    if (count < 0) {
        scan_configured(m);
    } else {
        present.resize(std::min(present.size(), static_cast<size_t>(count)));
        // p_online decides, as it does for the program's worker table.
        for (const platform_processor &p : present) {
            if (p_online(p.id, P_STATUS) == P_ONLINE)
                m.tested.push_back(p.id);
            else
                m.left_out.push_back({p.id, p.online != 0 ? "not-allowed" : "offline"});
        }
    }
    for (int cpu : m.tested)
        m.shared_cpus.push_back(dxt_tlib_get_l2_shared_cpus(cpu));
    return m;
}

}  // namespace dxt
