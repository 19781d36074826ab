#include "zq/internal/zqprotocolline.h"

#include <cstring>

size_t protocol_line_trim(const char *line, size_t len)
{
    if (len > 0 && line[len - 1] == '\n')
        len--;
    if (len > 0 && line[len - 1] == '\r')
        len--;
    return len;
}

status_line protocol_parse_status(const char *line, const char *prefix, int *status,
                                  char *bad_digit)
{
    if (strncmp(line, prefix, strlen(prefix)) != 0)
        return status_line::bad_prefix;
    const char *digit = strchr(line, ' ');
    if (!digit)
        return status_line::no_code;

    // Any number of digits is accepted; arithmetic in unsigned keeps an absurd one from
    // overflowing.
    unsigned int code = 0;
    for (digit++; *digit != '\0' && *digit != ' '; digit++) {
        if (*digit < '0' || *digit > '9') {
            *bad_digit = *digit;
            return status_line::bad_digit;
        }
        code = code * 10 + static_cast<unsigned int>(*digit - '0');
    }
    *status = static_cast<int>(code);
    return status_line::valid;
}
