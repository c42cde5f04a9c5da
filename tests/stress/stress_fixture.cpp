#include "stress_fixture.h"

#include <algorithm>
#include <cstdlib>

#include "stress/l2cache.h"

extern "C" void __libc_free(void *);

namespace freed {
namespace {

bool recording;
thread_local bool inside;
std::vector<size_t> copied;  // indices into fake::memalign_results()

}  // namespace

std::vector<block> seen;

void reset()
{
    seen.clear();
    copied.clear();
    recording = true;
}

const std::vector<block> &blocks() { return seen; }

}  // namespace freed

namespace {

void take_copy(void *address)
{
    // Only the latest block at an address can still be live: once it is
    // freed, the address may come back from malloc for anything else.
    std::vector<fake::range> handed_out = fake::memalign_results();
    for (size_t i = handed_out.size(); i-- > 0;) {
        if (handed_out[i].address != address)
            continue;
        if (std::find(freed::copied.begin(), freed::copied.end(), i) != freed::copied.end())
            return;
        freed::copied.push_back(i);
        const auto *start = static_cast<const uint8_t *>(address);
        freed::seen.push_back(
            {address, std::vector<uint8_t>(start, start + handed_out[i].length), fake::messages().size()});
        return;
    }
}

}  // namespace

// Takes a copy of every block of memalign as it is freed. The copy and the
// look-ups allocate and free on their own; `inside` keeps those out.
extern "C" void free(void *address)
{
    if (address != nullptr && freed::recording && !freed::inside) {
        freed::inside = true;
        take_copy(address);
        freed::inside = false;
    }
    __libc_free(address);
}

void stress_fixture::SetUp()
{
    fake::reset();
    freed::reset();
    pagesize = 4096;
    fake::on_memalign([](void *block, size_t length) { std::memset(block, FILL_BYTE, length); });
}

std::vector<std::string> message_log()
{
    std::vector<std::string> log;
    for (const fake::message &m : fake::messages()) {
        std::string head = std::to_string(m.exit_flag) + " " + std::to_string(m.level) + " " +
                           (m.has_tag ? m.tag : "-") + ": ";
        log.push_back(head + (m.number == 0 ? m.text : "#" + std::to_string(m.number)));
    }
    return log;
}
