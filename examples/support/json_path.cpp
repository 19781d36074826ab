#include "examples/support/json_path.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int MAX_STEPS = 8;

struct value {
    bool found;
    const char *string; // null for anything but a string
    bool is_null;
    bool is_boolean;
    int boolean;
    bool is_number;
    double number;
    int64_t integer;
};

// A query takes its path as arguments, whose number and types are fixed when it is compiled. So
// there is one instance of this for each sequence of names and indexes.
template <class... Path>
value fetch(zqjson *json, Path... path)
{
    value result = {};
    zqjsonnode *node;
    result.found = zq_json_fetch_node(json, &node, path..., nullptr) == 0;
    if (!result.found || zq_json_fetch_string(json, &result.string, path..., nullptr) == 0)
        return result;
    int is_null;
    result.is_null = zq_json_fetch_null(json, &is_null, path..., nullptr) == 0 && is_null;
    result.is_boolean = zq_json_fetch_boolean(json, &result.boolean, path..., nullptr) == 0;
    result.is_number = zq_json_fetch_double(json, &result.number, path..., nullptr) == 0 &&
                       zq_json_fetch_int64(json, &result.integer, path..., nullptr) == 0;
    return result;
}

void print_double(double number)
{
    char text[32];
    for (int digits = 15; digits <= 17; digits++) {
        snprintf(text, sizeof(text), "%.*g", digits, number);
        if (strtod(text, nullptr) == number)
            break;
    }
    puts(text);
}

// Through memory: processors that compute with more digits would see what a double cannot hold.
bool is_integral(const value &value)
{
    const volatile double rounded = static_cast<double>(value.integer);
    return rounded == value.number;
}

int print_value(const value &value)
{
    if (!value.found) {
        fprintf(stderr, "there is no value at this path\n");
        return -1;
    }
    if (value.string)
        puts(value.string);
    else if (value.is_null)
        puts("null");
    else if (value.is_boolean)
        puts(value.boolean ? "true" : "false");
    else if (value.is_number && is_integral(value))
        printf("%lld\n", static_cast<long long>(value.integer));
    else if (value.is_number)
        print_double(value.number);
    else {
        fprintf(stderr,
                "there is an object or an array at this path; go on to one of its values\n");
        return -1;
    }
    return 0;
}

// Reads the index behind a "#".
bool read_index(int count, char **path, unsigned long *index)
{
    char *end = nullptr;
    errno = 0;
    if (count >= 2 && isdigit(static_cast<unsigned char>(path[1][0])))
        *index = strtoul(path[1], &end, 10);
    if (end && *end == '\0' && errno == 0)
        return true;
    fprintf(stderr, "in a path, # is followed by the index of an array element\n");
    return false;
}

template <int steps, class... Path>
int print_at(zqjson *json, int count, char **path, Path... done)
{
    if (count == 0)
        return print_value(fetch(json, done...));
    if constexpr (steps == MAX_STEPS) {
        fprintf(stderr, "a path can have %d steps at most\n", MAX_STEPS);
        return -1;
    } else {
        const char *name = path[0];
        if (strcmp(name, "#") != 0)
            return print_at<steps + 1>(json, count - 1, path + 1, done..., name);
        unsigned long index;
        if (!read_index(count, path, &index))
            return -1;
        return print_at<steps + 1>(json, count - 2, path + 2, done..., name, index);
    }
}

} // namespace

int example_json_print(zqjson *json, int count, char **path)
{
    if (count == 0) {
        fprintf(stderr, "the path is empty\n");
        return -1;
    }
    return print_at<0>(json, count, path);
}
