#include "zq/adt/zqstringhash.h"

#include <gtest/gtest.h>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/support/expect.h"
#include "tests/support/faults.h"
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

std::map<std::string, void *> entries(zqstringhash *map)
{
    std::map<std::string, void *> found;
    const char *key = "";
    void *each = nullptr;
    zqstringhashitem *item = zq_stringhash_enumerate_start(map, &key, &each);
    for (; item; item = zq_stringhash_enumerate_next(map, item, &key, &each))
        EXPECT_TRUE(found.emplace(key, each).second) << key;
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(each, nullptr);
    return found;
}
} // namespace

TEST(zqstringhash, values_are_released_when_they_leave)
{
    std::vector<void *> released;
    Map map(zq_stringhash_create(release, &released));
    ASSERT_TRUE(map);
    EXPECT_EQ(zq_stringhash_enumerate_start(map.get(), nullptr, nullptr), nullptr);
    std::string key = "key";
    ASSERT_EQ(zq_stringhash_add(map.get(), key.c_str(), value(1)), 0);
    key = "changed";
    ASSERT_EQ(zq_stringhash_add(map.get(), "KEY", value(2)), 0);
    ASSERT_EQ(zq_stringhash_add(map.get(), "", nullptr), 0);
    EXPECT_EQ(zq_stringhash_lookup(map.get(), "key"), value(1));
    EXPECT_EQ(zq_stringhash_lookup(map.get(), "KEY"), value(2));
    EXPECT_EQ(zq_stringhash_lookup(map.get(), "ke"), nullptr);
    EXPECT_EQ(zq_stringhash_lookup(map.get(), ""), nullptr);

    ASSERT_EQ(zq_stringhash_add(map.get(), "key", value(3)), 0);
    EXPECT_EQ(released, (std::vector{value(1)}));
    EXPECT_EQ(entries(map.get()),
              (std::map<std::string, void *>{{"", nullptr}, {"KEY", value(2)}, {"key", value(3)}}));

    EXPECT_EQ(zq_stringhash_remove(map.get(), "key"), 0);
    EXPECT_EQ(zq_stringhash_remove(map.get(), "key"), -1);
    EXPECT_EQ(released, (std::vector{value(1), value(3)}));
    zq_stringhash_clear(map.get());
    EXPECT_EQ(released.size(), 4u);
    EXPECT_EQ(zq_stringhash_enumerate_start(map.get(), nullptr, nullptr), nullptr);
}

TEST(zqstringhash, values_without_a_callback_are_left_alone)
{
    Map map(zq_stringhash_create(nullptr, nullptr));
    ASSERT_TRUE(map);
    int object = 0;
    for (int round = 0; round < 2; round++) {
        zq_stringhash_add(map.get(), "a", &object);
        zq_stringhash_add(map.get(), "a", &object);
        zq_stringhash_remove(map.get(), "a");
        zq_stringhash_add(map.get(), "b", &object);
        zq_stringhash_clear(map.get());
    }
}

TEST(zqstringhash, a_copy_outlives_its_original)
{
    std::vector<void *> released;
    Map original(zq_stringhash_create(release, &released));
    ASSERT_TRUE(original);
    ASSERT_EQ(zq_stringhash_add(original.get(), "old", value(1)), 0);
    Map copy(zq_stringhash_create_from(original.get()));
    ASSERT_TRUE(copy);
    EXPECT_TRUE(entries(copy.get()).empty());
    original.reset();
    ASSERT_EQ(zq_stringhash_add(copy.get(), "new", value(2)), 0);
    EXPECT_EQ(zq_stringhash_lookup(copy.get(), "new"), value(2));
    copy.reset();
    EXPECT_EQ(released, (std::vector{value(1), value(2)}));
}

TEST(zqstringhash, model)
{
    std::mt19937 random(7);
    std::vector<void *> released;
    size_t left = 0;
    Map map(zq_stringhash_create(release, &released));
    ASSERT_TRUE(map);
    std::map<std::string, void *> model;
    for (uintptr_t step = 1; step < 12000; step++) {
        // Keys of all lengths around a word, many of which share their first bytes.
        unsigned long number = random() % 300;
        std::string key = std::string(number % 20, 'x') + std::to_string(number);
        if (random() % 100 < (step / 3000 % 2 ? 8u : 70u)) {
            size_t before = released.size();
            if (zq_stringhash_add(map.get(), key.c_str(), value(step)) != 0) {
                ASSERT_EQ(released.size(), before) << "the value still belongs to the caller";
                continue;
            }
            left += model.count(key);
            model[key] = value(step);
        } else {
            size_t known = model.erase(key);
            left += known;
            ASSERT_EQ(zq_stringhash_remove(map.get(), key.c_str()), known ? 0 : -1);
        }
        ASSERT_EQ(released.size(), left);
        auto expected = model.find(std::to_string(random() % 300 / 20 * 20));
        if (expected != model.end()) {
            ASSERT_EQ(zq_stringhash_lookup(map.get(), expected->first.c_str()), expected->second);
        }
        if (step % 101 == 0) {
            ASSERT_EQ(entries(map.get()), model);
        }
    }
}

// The map itself is silent; what its hash table logs is that table's.
TEST(zqstringhash, lines_without_memory)
{
    if (!faults_injected()) {
        expect_lines_without_memory("zqstringhash.lines_without_memory",
                                    {"[7] not enough memory for zqhash structure",
                                     "[7] not enough memory for duplicating hashtable"});
        return;
    }
    FaultLines lines;
    Map map(zq_stringhash_create(nullptr, nullptr));
    lines.step();
    if (!map)
        return;
    Map copy(zq_stringhash_create_from(map.get()));
    lines.step();
    LogCapture log;
    zq_stringhash_add(map.get(), "key", nullptr);
    EXPECT_EQ(log.take(), std::vector<LogLine>{});
}

TEST(zqstringhash, misuse)
{
    Map map(zq_stringhash_create(nullptr, nullptr));
    ASSERT_TRUE(map);
    zqstringhash *none = nullptr;
    const char *source = "adt/zqstringhash";
    EXPECT_MISUSE(zq_stringhash_create_from(none), source, "zq_stringhash_create_from",
                  "original != NULL");
    EXPECT_MISUSE(zq_stringhash_destroy(none), source, "zq_stringhash_destroy",
                  "stringhash != NULL");
    EXPECT_MISUSE(zq_stringhash_clear(none), source, "zq_stringhash_clear", "zqstringhash != NULL");
    EXPECT_MISUSE(zq_stringhash_add(none, "", none), source, "zq_stringhash_add",
                  "stringhash != NULL");
    EXPECT_MISUSE(zq_stringhash_add(map.get(), nullptr, none), source, "zq_stringhash_add",
                  "key != NULL");
    EXPECT_MISUSE(zq_stringhash_remove(none, ""), source, "zq_stringhash_remove",
                  "stringhash != NULL");
    EXPECT_MISUSE(zq_stringhash_remove(map.get(), nullptr), source, "zq_stringhash_remove",
                  "key != NULL");
    EXPECT_MISUSE(zq_stringhash_lookup(none, ""), source, "zq_stringhash_lookup",
                  "stringhash != NULL");
    EXPECT_MISUSE(zq_stringhash_lookup(map.get(), nullptr), source, "zq_stringhash_lookup",
                  "key != NULL");
    EXPECT_MISUSE(zq_stringhash_enumerate_start(none, nullptr, nullptr), source,
                  "zq_stringhash_enumerate_start", "stringhash != NULL");
    EXPECT_MISUSE(zq_stringhash_enumerate_next(none, nullptr, nullptr, nullptr), source,
                  "zq_stringhash_enumerate_next", "stringhash != NULL");
    EXPECT_MISUSE(zq_stringhash_enumerate_next(map.get(), nullptr, nullptr, nullptr), source,
                  "zq_stringhash_enumerate_next", "prevstringhashitem != NULL");
}

// ---- zqlist, the head of every chain ----

TEST(zqlist, create_init_destroy)
{
    zqlist *list = zq_list_create();
    ASSERT_TRUE(list);
    EXPECT_EQ(list->head, nullptr);
    EXPECT_EQ(list->tail, nullptr);
    zqlistlink item = {};
    list->head = list->tail = &item;
    zq_list_destroy(list); // the item is the caller's

    zqlist embedded = {&item, &item};
    zq_list_init(&embedded);
    EXPECT_EQ(embedded.head, nullptr);
    EXPECT_EQ(embedded.tail, nullptr);

    EXPECT_MISUSE(zq_list_destroy(nullptr), "adt/zqlist", "zq_list_destroy", "zqlist != NULL");
    EXPECT_MISUSE(zq_list_init(nullptr), "adt/zqlist", "zq_list_init", "zqlist != NULL");
}
