/* zqtestdemo tests a small stack of integers with the test harness. Run it with --output=report.xml
 * for a report, --help for all options. */
#include "zq/util/zqtest.h"

#define CAPACITY 4

struct stack {
    int items[CAPACITY];
    int count;
};

static int push(struct stack *stack, int item)
{
    if (stack->count == CAPACITY)
        return -1;
    stack->items[stack->count++] = item;
    return 0;
}

static int pop(struct stack *stack, int *item)
{
    if (stack->count == 0)
        return -1;
    *item = stack->items[--stack->count];
    return 0;
}

/* A case is a function with the parameter `testcase`, which ZQ_TEST_EXPECT counts in. */
static void last_in_first_out(zqtestcase *testcase, void *userdata)
{
    struct stack stack = {{0}, 0};
    int item = 0;
    (void)userdata;
    ZQ_TEST_EXPECT(push(&stack, 1) == 0);
    ZQ_TEST_EXPECT(push(&stack, 2) == 0);
    ZQ_TEST_EXPECT(pop(&stack, &item) == 0 && item == 2);
    ZQ_TEST_EXPECT(pop(&stack, &item) == 0 && item == 1);
}

static void nothing_comes_from_an_empty_stack(zqtestcase *testcase, void *userdata)
{
    struct stack stack = {{0}, 0};
    int item = 7;
    (void)userdata;
    ZQ_TEST_EXPECT(pop(&stack, &item) == -1);
    ZQ_TEST_EXPECT(item == 7);
}

/* The same case serves several values of its user data. */
static void holds(zqtestcase *testcase, void *userdata)
{
    const int *count = userdata;
    struct stack stack = {{0}, 0};
    int i;
    for (i = 0; i < *count; i++)
        ZQ_TEST_EXPECT(push(&stack, i) == (i < CAPACITY ? 0 : -1));
}

static int add_cases(zqtest *test)
{
    static int counts[] = {1, CAPACITY, CAPACITY + 1};
    size_t i;
    if (zq_test_add(test, last_in_first_out, NULL) != 0 ||
        zq_test_add(test, nothing_comes_from_an_empty_stack, NULL) != 0)
        return -1;
    for (i = 0; i < sizeof(counts) / sizeof(counts[0]); i++)
        if (zq_test_add(test, holds, &counts[i]) != 0)
            return -1;
    return 0;
}

static int run(zqtest *test, int argc, char **argv)
{
    int parsed = zq_test_parse_arguments(test, argc, argv);
    int result;
    if (parsed != 0)
        return parsed > 0 ? 0 : 2; /* help was asked for, or the arguments are wrong */
    result = zq_test_run(test);
    return zq_test_summary(test) == 0 ? result : 2;
}

int main(int argc, char **argv)
{
    int status = 2;
    zqtest *test = zq_test_create("stack");
    if (test && add_cases(test) == 0)
        status = run(test, argc, argv);
    if (test)
        zq_test_destroy(test);
    return status;
}
