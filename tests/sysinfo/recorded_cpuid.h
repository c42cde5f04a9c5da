// CPUID dumps recorded from real processors, with the APIC id set by the test.
#ifndef TARNEL_TESTS_SYSINFO_RECORDED_CPUID_H
#define TARNEL_TESTS_SYSINFO_RECORDED_CPUID_H

#include "cacheinfo_sources.h"

namespace recorded {

// This machine (an AMD EPYC guest, processor 0): leaves 4, 0xB, 0x8000001D
// and 0x8000001E read zero and the topology-extensions bit is clear, so
// only the older leaves 0x80000005/6 and leaf 1's APIC id (0xe3) answer.
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

// A Zen 2 thread. Leaf 0x8000001D: L1 data, L1 instruction, L2 (512 KiB,
// 8 ways, shared by 2 threads), L3; leaf 0x80000006 gives the same L2.
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
    dump.leaf_8000001d[0] = {0x00004121, 0x01c0003f, 0x0000003f, 0x00000000};
    dump.leaf_8000001d[1] = {0x00004122, 0x01c0003f, 0x0000003f, 0x00000000};
    dump.leaf_8000001d[2] = {0x00004143, 0x01c0003f, 0x000003ff, 0x00000002};
    dump.leaf_8000001d[3] = {0x0001c163, 0x03c0003f, 0x00003fff, 0x00000001};
    dump.leaf_8000001e = {apic_id, 0x00000100 | (apic_id >> 1), 0x00000000, 0x00000000};
    return dump;
}

// A Skylake thread. Leaf 4: L1 data, L1 instruction, L2 (256 KiB, 4 ways,
// shared by the 2 threads of a core), L3.
inline cpuid_dump skylake(uint32_t apic_id)
{
    cpuid_dump dump = {};
    dump.leaf_0 = {0x00000016, 0x756e6547, 0x6c65746e, 0x49656e69};
    dump.leaf_1 = {0x000506e3, (apic_id << 24) | 0x00100800, 0x7ffafbbf, 0xbfebfbff};
    dump.leaf_4[0] = {0x1c004121, 0x01c0003f, 0x0000003f, 0x00000000};
    dump.leaf_4[1] = {0x1c004122, 0x01c0003f, 0x0000003f, 0x00000000};
    dump.leaf_4[2] = {0x1c004143, 0x00c0003f, 0x000003ff, 0x00000000};
    dump.leaf_4[3] = {0x1c03c163, 0x03c0003f, 0x00001fff, 0x00000006};
    dump.leaf_b = {0x00000001, 0x00000002, 0x00000100, apic_id};
    dump.leaf_80000000 = {0x80000008, 0, 0, 0};
    return dump;
}

}  // namespace recorded

#endif
