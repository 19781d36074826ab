#include "zq/util/zqerror.h"

#include <gtest/gtest.h>

TEST(zqerror, every_code_has_its_text)
{
    const struct {
        zqerror code;
        const char *text;
    } rows[] = {
        {0, "success"},
        {4, "interrupted system call"},
        {11, "would block"},
        {12, "not enough memory"},
        {13, "permission denied"},
        {17, "item already exists"},
        {20, "not a directory"},
        {22, "invalid argument"},
        {28, "no space left on device"},
        {30, "read-only file system"},
        {31, "too many links"},
        {32, "broken pipe"},
        {34, "out of range"},
        {36, "name is too long"},
        {38, "function not implemented"},
        {40, "too many symbolic links"},
        {62, "timer expired"},
        {71, "protocol error"},
        {90, "message too long"},
        {101, "network unreachable"},
        {104, "connection reset by peer"},
        {110, "connection timed out"},
        {111, "connection refused"},
        {115, "operation in progress"},
        {125, "operation canceled"},
        {200, "cannot connect"},
        {201, "timed out"},
        {202, "generic error"},
        {203, "write error"},
        {204, "end of file"},
        {205, "unsupported operation"},
        {206, "resource is busy"},
        {207, "item not found"},
        {208, "internal error"},
        {209, "invalid syntax"},
        {210, "unable to resolve host"},
        {211, "server returned an error"},
        {212, "bad handle"},
        {213, "wakeup requested"},
        {214, "operation incomplete"},
    };
    zqerror next = 0;
    for (const auto &row : rows) {
        for (; next < row.code; next++)
            EXPECT_STREQ(zq_error_string(next), "unknown error") << next;
        EXPECT_STREQ(zq_error_string(row.code), row.text);
        next++;
    }
    EXPECT_EQ(next, ZQ_ERROR_COUNT + 0u);
    EXPECT_STREQ(zq_error_string(ZQ_ERROR_COUNT), "unknown error");
    EXPECT_STREQ(zq_error_string(UINT32_MAX), "unknown error");
}
