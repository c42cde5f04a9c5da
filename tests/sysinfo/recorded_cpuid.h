// CPUID dumps recorded from real processors (cpuid/NAME.txt, as `cpuid -r`
// prints them), with the APIC id set by the test where one is given.
#ifndef TARNEL_TESTS_SYSINFO_RECORDED_CPUID_H
#define TARNEL_TESTS_SYSINFO_RECORDED_CPUID_H

#include <cstdio>
#include <fstream>
#include <string>

#include "cacheinfo_sources.h"

inline cpuid_dump recorded_dump(const std::string &name, int apic_id = -1)
{
    cpuid_dump d = {};
    std::ifstream file(TARNEL_TEST_DATA "/cpuid/" + name + ".txt");
    for (std::string line; std::getline(file, line);) {
        unsigned leaf = 0, sub = 0;
        cpuid_regs r;
        if (sscanf(line.c_str(), " 0x%x 0x%x: eax=0x%x ebx=0x%x ecx=0x%x edx=0x%x", &leaf, &sub, &r.eax, &r.ebx,
                   &r.ecx, &r.edx) != 6 || sub >= MAX_CACHE_SUBLEAVES)
            continue;
        cpuid_regs *slot = leaf == 0            ? &d.leaf_0
                           : leaf == 1          ? &d.leaf_1
                           : leaf == 4          ? &d.leaf_4[sub]
                           : leaf == 0xb        ? &d.leaf_b
                           : leaf == 0x80000000 ? &d.leaf_80000000
                           : leaf == 0x80000001 ? &d.leaf_80000001
                           : leaf == 0x80000005 ? &d.leaf_80000005
                           : leaf == 0x80000006 ? &d.leaf_80000006
                           : leaf == 0x8000001d ? &d.leaf_8000001d[sub]
                                                : &d.leaf_8000001e;
        if (sub == 0 || leaf == 4 || leaf == 0x8000001d)
            *slot = r;
    }
    if (apic_id >= 0) {  // leaf 1 EBX[31:24], leaf 0xB EDX, and AMD's extended id with its core
        auto id = static_cast<uint32_t>(apic_id);
        d.leaf_1.ebx = (d.leaf_1.ebx & 0x00FFFFFF) | id << 24;
        d.leaf_b.edx = id;
        if (d.leaf_8000001e.ebx != 0)
            d.leaf_8000001e = {id, (d.leaf_8000001e.ebx & ~0xFFu) | id >> ((d.leaf_8000001e.ebx >> 8 & 0xFF) != 0),
                               0, 0};
    }
    return d;
}

#endif
