// CPUID dumps of real processors for the sysinfo tests, with the APIC id
// of the processor set by the test.
#ifndef TARNEL_TESTS_SYSINFO_RECORDED_CPUID_H
#define TARNEL_TESTS_SYSINFO_RECORDED_CPUID_H

#include <cstdint>

#include "cacheinfo_sources.h"

namespace recorded {

// Leaf 4 of an Intel Core (Skylake): L1 data, L1 instruction, L2, L3, end.
inline const cpuid_regs skylake_leaf4[] = {
    {0x1c004121, 0x01c0003f, 0x0000003f, 0x00000000},
    {0x1c004122, 0x01c0003f, 0x0000003f, 0x00000000},
    {0x1c004143, 0x00c0003f, 0x000003ff, 0x00000000},
    {0x1c03c163, 0x03c0003f, 0x00001fff, 0x00000006},
    {0x00000000, 0x00000000, 0x00000000, 0x00000000},
};

// Leaf 0x8000001D of an AMD Zen 2: L1 data, L1 instruction, L2, L3, end.
inline const cpuid_regs zen2_leaf_8000001d[] = {
    {0x00004121, 0x01c0003f, 0x0000003f, 0x00000000},
    {0x00004122, 0x01c0003f, 0x0000003f, 0x00000000},
    {0x00004143, 0x01c0003f, 0x000003ff, 0x00000002},
    {0x0001c163, 0x03c0003f, 0x00003fff, 0x00000001},
    {0x00000000, 0x00000000, 0x00000000, 0x00000000},
};

// This machine (an AMD EPYC guest, processor 0): leaves 4, 0xB, 0x8000001D
// and 0x8000001E read zero, and leaf 0x80000001 does not set the
// topology-extensions bit (the kernel lists "topoext" all the same).
inline cpuid_dump this_machine()
{
    cpuid_dump dump = {};
    dump.leaf_0 = {0x0000000d, 0x68747541, 0x444d4163, 0x69746e65};
    dump.leaf_1 = {0x00b00f21, 0xe3fe0800, 0xfed83203, 0x178bfbff};
    dump.leaf_80000000 = {0x80000021, 0x68747541, 0x444d4163, 0x69746e65};
    dump.leaf_80000001 = {0x00b00f21, 0x40000000, 0x440001f1, 0x25d3fbff};
    dump.leaf_80000005 = {0xff60ff40, 0xff60ff40, 0x300c0140, 0x20080140};
    dump.leaf_80000006 = {0x40802040, 0x60804040, 0x04006140, 0x0fe09140};
    return dump;
}

// A Zen 2 thread: its x2APIC id in leaf 0xB, its extended APIC id in
// 0x8000001E, its 8-bit id in leaf 1; L2 of 512 KiB shared by 2 threads.
inline cpuid_dump zen2(uint32_t apic_id)
{
    cpuid_dump dump = {};
    dump.leaf_0 = {0x00000010, 0x68747541, 0x444d4163, 0x69746e65};
    dump.leaf_1 = {0x00870f10, (apic_id << 24) | 0x00100800, 0x7ed8320b, 0x178bfbff};
    dump.leaf_b = {0x00000001, 0x00000002, 0x00000100, apic_id};
    dump.leaf_80000000 = {0x8000001f, 0x68747541, 0x444d4163, 0x69746e65};
    dump.leaf_80000001 = {0x00870f10, 0x20000000, 0x75c237ff, 0x2fd3fbff};
    dump.leaf_80000005 = {0xff40ff40, 0xff40ff40, 0x20080140, 0x20080140};
    dump.leaf_80000006 = {0x48006400, 0x68006400, 0x02006140, 0x01009140};
    for (int i = 0; i < 5; i++)
        dump.leaf_8000001d[i] = zen2_leaf_8000001d[i];
    dump.leaf_8000001e = {apic_id, 0x00000100 | (apic_id >> 1), 0x00000000, 0x00000000};
    return dump;
}

// A Skylake thread: L2 of 256 KiB shared by the 2 threads of a core.
inline cpuid_dump skylake(uint32_t apic_id)
{
    cpuid_dump dump = {};
    dump.leaf_0 = {0x00000016, 0x756e6547, 0x6c65746e, 0x49656e69};
    dump.leaf_1 = {0x000506e3, (apic_id << 24) | 0x00100800, 0x7ffafbbf, 0xbfebfbff};
    for (int i = 0; i < 5; i++)
        dump.leaf_4[i] = skylake_leaf4[i];
    dump.leaf_b = {0x00000001, 0x00000002, 0x00000100, apic_id};
    dump.leaf_80000000 = {0x80000008, 0, 0, 0};
    return dump;
}

}  // namespace recorded

#endif
