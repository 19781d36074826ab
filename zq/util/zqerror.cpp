#include "zq/util/zqerror.h"

namespace {
struct error_text {
    zqerror code;
    const char *text;
};
} // namespace

#define ERROR_TEXT_ROW(constant, number, text) {constant, text},
static const error_text error_texts[] = {ZQ_ERROR_TABLE(ERROR_TEXT_ROW){0, nullptr}};

const char *zq_error_string(zqerror code)
{
    for (const error_text *row = error_texts; row->text; row++) {
        if (row->code == code)
            return row->text;
    }
    return "unknown error";
}
