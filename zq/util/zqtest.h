#ifndef ZQ_UTIL_ZQTEST_H
#define ZQ_UTIL_ZQTEST_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* A small runner for unit tests:
 *
 *     static void addition(zqtestcase *testcase, void *userdata)
 *     {
 *         ZQ_TEST_EXPECT(1 + 1 == 2);
 *     }
 *
 *     zqtest *test = zq_test_create("arithmetic");
 *     zq_test_add(test, addition, NULL);
 *     if (zq_test_parse_arguments(test, argc, argv) == 0) {
 *         result = zq_test_run(test);
 *         zq_test_summary(test);
 *     }
 *     zq_test_destroy(test);
 *
 * Reports go to standard error and, with the option --output, as a JUnit "testsuite" element to a
 * file. The element stands alone, without declaration or root, so that runs can be appended to one
 * file (--append); wrap it in <testsuites> before reading it as XML. */
ZQ_OBJECT(zqtest);
ZQ_OBJECT(zqtestcase);

/* One test case. */
typedef void (*zq_test_case_callback)(zqtestcase *testcase, void *userdata);

/* ZQ_TEST_EXPECT checks a condition in a test case whose zqtestcase is in a variable `testcase`.
 * The case continues whatever the outcome. */
#define ZQ_TEST_EXPECT(condition)                                                                  \
    zq_test_case_expect_true(testcase, __FILE__, __LINE__, #condition, (condition) ? 1 : 0)

/* zq_test_create returns a new suite without cases, or null when out of memory. The name is copied;
 * it stands in the XML report as it is, so it should do without & < and quotes. Released with
 * zq_test_destroy(). */
ZQ_API zqtest *zq_test_create(const char *name);

/* zq_test_destroy releases the suite and its cases. */
ZQ_API void zq_test_destroy(zqtest *zqtest);

/* zq_test_parse_arguments reads the options of a test program: --output=FILE (-o) for the report,
 * --append (-a) to add to that file instead of replacing it, --xml (-x), which is accepted and
 * without effect, --help (-h). `argv` must outlive the suite. Returns 0 to run, 1 when the usage
 * was shown on request, -1 after an error, which is reported on standard error. */
ZQ_API int zq_test_parse_arguments(zqtest *zqtest, int argc, char **argv);

/* zq_test_add appends a case, to be called with `userdata`. Returns 0, or -1 when out of memory. */
ZQ_API int zq_test_add(zqtest *zqtest, zq_test_case_callback testfunction, void *userdata);

/* zq_test_run calls every case once, in the order they were added. Returns 0 when each made at
 * least one check and none failed, else 1. */
ZQ_API int zq_test_run(zqtest *zqtest);

/* zq_test_summary reports on standard error, and writes the XML report if an output file was
 * named. A case that made no check is not counted as failed here, unlike in zq_test_run(). Returns
 * 0, or -1 when the report cannot be written. */
ZQ_API int zq_test_summary(zqtest *zqtest);

/* zq_test_case_expect_true counts one check, and when `condition` is 0 a failed one, which it
 * reports on standard error with the source file, the line and the text of the condition.
 * ZQ_TEST_EXPECT calls it. */
ZQ_API void zq_test_case_expect_true(zqtestcase *zqtestcase, const char *filename, int line,
                                     const char *condstring, int condition);

ZQ_END_DECLS

#endif
