#ifndef ZQ_INTERNAL_ZQPROTOCOLLINE_H
#define ZQ_INTERNAL_ZQPROTOCOLLINE_H

#include <cstddef>

// The lines of HTTP and ICAP replies. The callers log, since the texts name their protocol.

// The length of `line` without a final LF and one CR before it.
size_t protocol_line_trim(const char *line, size_t len);

enum class status_line {
    valid,
    bad_prefix, // does not begin with `prefix`
    no_code,    // no space
    bad_digit,  // *bad_digit is the offending character
};

// Reads the status code of a terminated "PREFIXversion code reason" line. An empty run of digits
// gives 0; the reason is not looked at.
status_line protocol_parse_status(const char *line, const char *prefix, int *status,
                                  char *bad_digit);

#endif
