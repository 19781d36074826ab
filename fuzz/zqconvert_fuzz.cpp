// zq_strtoi64() beside std::from_chars().

#include "zq/util/zqconvert.h"

#include <cctype>
#include <charconv>
#include <cstring>

#include "fuzz/support/fuzz.h"

// Where the two agree: up to 19 digits cannot wrap around unnoticed.
static bool within_19_digits(const char *digits)
{
    return strspn(digits, "0123456789") <= 19;
}

void fuzz(Input &input)
{
    const std::string text = input.text();
    int64_t value = -1;
    const zqerror error = zq_strtoi64(text.c_str(), &value);

    const char *number = text.c_str();
    while (isspace(static_cast<unsigned char>(*number)))
        number++;
    const bool plus = *number == '+';
    const char *digits = number + (plus || *number == '-');
    if (!within_19_digits(digits))
        return;

    int64_t expected = 0;
    const char *const end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(plus ? digits : number, end, expected);
    if (!isdigit(static_cast<unsigned char>(*digits)))
        FUZZ_CHECK(error == ZQ_ERROR_SYNTAX && value == 0);
    else if (failure == std::errc::result_out_of_range)
        FUZZ_CHECK(error == ZQ_ERROR_OUT_OF_RANGE && value == 0);
    else
        FUZZ_CHECK(error == (stop == end ? ZQ_ERROR_NONE : ZQ_ERROR_INCOMPLETE) &&
                   value == expected);
}
