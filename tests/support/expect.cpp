#include "tests/support/expect.h"

static std::string quoted(const std::string &text)
{
    std::string result;
    for (char c : text) {
        if (std::string("()[]*+?.|\\^${}").find(c) != std::string::npos)
            result += '\\';
        result += c;
    }
    return result;
}

std::string misuse_report(const std::string &source, const std::string &function,
                          const std::string &expression)
{
    return quoted(source) + ":[0-9]+: " + quoted(function) + ": assertion \"" + quoted(expression) +
           "\" failed";
}
