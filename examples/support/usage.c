#include "examples/support/usage.h"

#include <stdio.h>
#include <string.h>

int example_usage(const char *usage, int argc, char **argv)
{
    int asked = argc == 2 && strcmp(argv[1], "--help") == 0;
    fputs(usage, asked ? stdout : stderr);
    return asked ? 0 : 2;
}
