#ifndef EXAMPLES_SUPPORT_USAGE_H
#define EXAMPLES_SUPPORT_USAGE_H

#ifdef __cplusplus
extern "C" {
#endif

/* Answers a command line that asks for nothing the program does: prints the usage on standard
 * output and returns 0 for --help alone, else on standard error and returns 2. */
int example_usage(const char *usage, int argc, char **argv);

#ifdef __cplusplus
}
#endif

#endif
