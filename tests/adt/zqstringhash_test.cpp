#include "zq/adt/zqstringhash.h"

#include "tests/support/expect.h"
#include "tests/support/log_capture.h"
#include "zq/adt/zqlist.h"

namespace {
using Map = Owned<zqstringhash, zq_stringhash_destroy>;

// Values are numbers in pointer's clothing.
void *value(uintptr_t number)
{
    return reinterpret_cast<void *>(number);
}

void release(void *each, void *context)
{
    static_cast<std::vector<void *> *>(context)->push_back(each);
}
} // namespace

// An add that fails leaves its value with the caller, and whatever was there in the map.
TEST(zqstringhash, values_are_released_when_they_are_replaced)
{
    std::vector<void *> released, replaced;
    Map map(zq_stringhash_create(release, &released));
    ASSERT_TRUE(map);
    LogCapture log; // of what a resize may say; the map itself is silent
    for (uintptr_t step = 1; step < 200; step++) {
        const std::string key(step % 70, 'x');
        void *before = zq_stringhash_lookup(map.get(), key.c_str());
        log.take();
        if (zq_stringhash_add(map.get(), key.c_str(), value(step)) != 0)
            CHECK_PROMISE(log.take().empty());
        else if (before)
            replaced.push_back(before);
        CHECK_PROMISE(released == replaced);
    }
    EXPECT_TRUE(zq_stringhash_enumerate_start(map.get(), nullptr, nullptr));
    Map copy(zq_stringhash_create_from(map.get()));
    ASSERT_TRUE(copy);
    EXPECT_FALSE(zq_stringhash_enumerate_start(copy.get(), nullptr, nullptr));
}

TEST(zqstringhash, misuse)
{
    zqstringhash *none = nullptr;
#define MISUSE(call, function, text) EXPECT_MISUSE(call, "adt/zqstringhash", function, text)
    MISUSE(zq_stringhash_destroy(none), "zq_stringhash_destroy", "stringhash != NULL");
    MISUSE(zq_stringhash_clear(none), "zq_stringhash_clear", "zqstringhash != NULL");
    Map map(zq_stringhash_create(nullptr, nullptr));
    ASSERT_TRUE(map);
    MISUSE(zq_stringhash_add(map.get(), nullptr, none), "zq_stringhash_add", "key != NULL");
    MISUSE(zq_stringhash_enumerate_next(map.get(), nullptr, nullptr, nullptr),
           "zq_stringhash_enumerate_next", "prevstringhashitem != NULL");
}

// ---- zqlist, the head of every chain ----

TEST(zqlist, create_init_destroy)
{
    zqlist *list = zq_list_create();
    ASSERT_TRUE(list);
    EXPECT_TRUE(!list->head && !list->tail);
    zqlistlink item = {};
    list->head = list->tail = &item;
    zq_list_destroy(list); // the item is the caller's
    zqlist embedded = {&item, &item};
    zq_list_init(&embedded);
    EXPECT_TRUE(!embedded.head && !embedded.tail);
    EXPECT_MISUSE(zq_list_init(nullptr), "adt/zqlist", "zq_list_init", "zqlist != NULL");
}
