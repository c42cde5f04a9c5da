// Every number the program emits and what it passes after it, in printf
// conversion letters (d int, u unsigned, s text): the fake harness reads the
// arguments by it, and the harness's test holds the catalogue to it.
#ifndef TARNEL_TESTS_MESSAGE_ARGS_H
#define TARNEL_TESTS_MESSAGE_ARGS_H

#include "harness/testinfo.h"

struct message_args {
    int number;
    const char *args;
};

inline constexpr message_args program_messages[] = {
    {MSG_RUN_START, ""}, {MSG_PASS_COUNT, "u"}, {MSG_WRRDVR_START, ""}, {MSG_RUN_END, ""},
    {MSG_SWAP_START, ""}, {MSG_SWAP_END, ""}, {MSG_ROW_MARCH_START, ""}, {MSG_ROW_MARCH_END, ""},
    {MSG_COL_MARCH_START, ""}, {MSG_COL_MARCH_END, ""}, {MSG_MARCH_LINE_START, ""}, {MSG_MARCH_LINE_END, ""},
    {MSG_MARCH_VAR_START, ""}, {MSG_MARCH_VAR_END, ""}, {MSG_INTERCONNECT_START, ""}, {MSG_INTERCONNECT_END, ""},
    {MSG_DEFAULT_TAKEN, "d"}, {MSG_CPC_ENABLED, ""}, {MSG_GEOMETRY_DEFAULTS, "sdds"}, {MSG_USAGE, "s"},
    {MSG_WRRDVR_NO_MEMORY, ""}, {MSG_NO_MEMORY, ""}, {MSG_BIND_FAILED, "ds"}, {MSG_THREAD_CREATE_FAILED, "d"},
    {MSG_MISCOMPARE, ""}, {MSG_BAD_SUBOPTION, "s"}, {MSG_WORKERS_FAILED, ""}, {MSG_SYSCALL_FAILED, "ss"},
    {MSG_UNKNOWN_VENDOR, ""},
};

#endif
