#include "zq/adt/zqstringhash.h"

#include <map>
#include <random>

#include "tests/support/expect.h"
#include "tests/support/log_capture.h"
#include "zq/adt/zqlist.h"

namespace {
using Map = Owned<zqstringhash, zq_stringhash_destroy>;
using Entries = std::map<std::string, void *>;

// Values are numbers in pointer's clothing.
void *value(uintptr_t number)
{
    return reinterpret_cast<void *>(number);
}

void release(void *each, void *context)
{
    static_cast<std::vector<void *> *>(context)->push_back(each);
}

Entries entries(const Map &map)
{
    Entries found;
    const char *key = "";
    void *each = map.get();
    zqstringhashitem *item = zq_stringhash_enumerate_start(map.get(), &key, &each);
    for (; item; item = zq_stringhash_enumerate_next(map.get(), item, &key, &each))
        EXPECT_TRUE(found.emplace(key, each).second) << key;
    EXPECT_TRUE(!key && !each);
    return found;
}
} // namespace

TEST(zqstringhash, keys_are_copied_and_copies_stand_alone)
{
    std::vector<void *> released;
    Map original(zq_stringhash_create(release, &released));
    ASSERT_TRUE(original);
    EXPECT_EQ(zq_stringhash_enumerate_start(original.get(), nullptr, nullptr), nullptr);
    std::string key = "key";
    ASSERT_EQ(zq_stringhash_add(original.get(), key.c_str(), value(1)), 0);
    key = "changed";
    ASSERT_EQ(zq_stringhash_add(original.get(), "KEY", value(2)), 0);
    ASSERT_EQ(zq_stringhash_add(original.get(), "", nullptr), 0);
    EXPECT_EQ(entries(original), (Entries{{"", nullptr}, {"KEY", value(2)}, {"key", value(1)}}));

    Map copy(zq_stringhash_create_from(original.get()));
    ASSERT_TRUE(copy);
    original.reset();
    EXPECT_EQ(released.size(), 3u);
    EXPECT_EQ(entries(copy), Entries{});
    zq_stringhash_add(copy.get(), "new", value(3));
    zq_stringhash_clear(copy.get());
    EXPECT_EQ(entries(copy), Entries{});
    EXPECT_EQ(released.back(), value(3));
    // Without a callback nothing is done with the values.
    copy.reset(zq_stringhash_create(nullptr, nullptr));
    ASSERT_TRUE(copy);
    for (const char *name : {"a", "a", "b"})
        zq_stringhash_add(copy.get(), name, value(4));
    zq_stringhash_remove(copy.get(), "a");
}

TEST(zqstringhash, model)
{
    std::mt19937 random(7);
    std::vector<void *> released;
    size_t left = 0;
    Map map(zq_stringhash_create(release, &released));
    ASSERT_TRUE(map);
    Entries model;
    LogCapture log; // of what a resize may say; the map itself is silent
    for (uintptr_t step = 1; step < (faults_injected() ? 3000 : 12000); step++) {
        log.take();
        // Keys of all lengths around a word, many of which share their first bytes.
        unsigned long number = random() % 300;
        const std::string key = std::string(number % 20, 'x') + std::to_string(number);
        size_t known = model.count(key);
        ASSERT_EQ(zq_stringhash_lookup(map.get(), key.c_str()), known ? model[key] : nullptr);
        if (random() % 100 >= (step / 3000 % 2 ? 8u : 70u)) {
            ASSERT_EQ(zq_stringhash_remove(map.get(), key.c_str()), known ? 0 : -1);
            model.erase(key);
        } else if (zq_stringhash_add(map.get(), key.c_str(), value(step)) == 0) {
            model[key] = value(step);
        } else {
            known = 0; // the value still belongs to the caller
            CHECK_PROMISE(log.take().empty());
        }
        left += known;
        CHECK_PROMISE(released.size() == left);
        if (step % 101 == 0) {
            ASSERT_EQ(entries(map), model);
        }
    }
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
