#include "zq/adt/zqhash.h"

#include <climits>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <thread>
#include <unordered_map>

#include "tests/support/expect.h"
#include "tests/support/faults.h"
#include "tests/support/log_capture.h"
#include "zq/adt/zqlist.h"
#include "zq/internal/zqreciprocal.h"

namespace {
struct Item {
    explicit Item(unsigned long key_, int value_ = 0) : key(key_), value(value_) {}

    unsigned long key;
    int value;
    zqlistlink link = {};
};

// Keys hash to themselves unless told otherwise, so that every item's slot is known.
struct Table {
    unsigned long same_hash = 0; // when not 0, the hash of every item
    std::vector<unsigned long> destroyed;
    Owned<zqhash, zq_hash_destroy> hash{
        zq_hash_create(offsetof(Item, link), calc, compare, destroy, this)};

    static unsigned long calc(const void *item, void *context)
    {
        unsigned long same = static_cast<Table *>(context)->same_hash;
        return same ? same : static_cast<const Item *>(item)->key;
    }
    static int compare(const void *item1, const void *item2, void *)
    {
        return static_cast<const Item *>(item1)->key != static_cast<const Item *>(item2)->key;
    }
    static void destroy(void *item, void *context)
    {
        auto *stored = static_cast<Item *>(item);
        EXPECT_EQ(stored->link.next, nullptr);
        EXPECT_EQ(stored->link.prev, nullptr);
        static_cast<Table *>(context)->destroyed.push_back(stored->key);
        delete stored;
    }

    zqhash *get() const { return hash.get(); }
    void add(unsigned long key, int value = 0) { zq_hash_add(get(), new Item(key, value)); }
    Item *lookup(unsigned long key) const
    {
        Item wanted(key);
        auto *item = static_cast<Item *>(zq_hash_lookup(get(), &wanted));
        EXPECT_EQ(wanted.link.next, nullptr);
        return item;
    }
    void remove(unsigned long key)
    {
        if (Item *item = lookup(key)) {
            zq_hash_remove(get(), item);
            EXPECT_EQ(item->link.next, nullptr);
            EXPECT_EQ(item->link.prev, nullptr);
            delete item;
        }
    }
    std::vector<unsigned long> keys() const
    {
        std::vector<unsigned long> found;
        for (void *item = zq_hash_enumerate_start(get()); item;
             item = zq_hash_enumerate_next(get(), item))
            found.push_back(static_cast<Item *>(item)->key);
        return found;
    }
};

// Entries and slots of the main, the bigger and the smaller array.
struct State {
    unsigned long main[2], bigger[2], smaller[2];
    bool operator==(const State &) const = default;

    unsigned long entries() const { return main[0] + bigger[0] + smaller[0]; }
    bool steady() const { return bigger[1] == 0 && smaller[1] == 0; }
};
std::ostream &operator<<(std::ostream &out, const State &state)
{
    return out << state.main[0] << "/" << state.main[1] << " " << state.bigger[0] << "/"
               << state.bigger[1] << " " << state.smaller[0] << "/" << state.smaller[1];
}
State state_of(const Table &table)
{
    State state = {};
    zq_hash_debug_state(table.get(), &state.main[0], &state.main[1], &state.bigger[0],
                        &state.bigger[1], &state.smaller[0], &state.smaller[1]);
    return state;
}

using Keys = std::vector<unsigned long>;
} // namespace

TEST(zqhash, grows_one_move_at_a_time)
{
    LogCapture log(13);
    Table table;
    ASSERT_TRUE(table.get());
    EXPECT_EQ(state_of(table), (State{{0, 5}, {0, 0}, {0, 0}}));
    zq_hash_debug_state(table.get(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);

    for (unsigned long key = 0; key < 4; key++)
        table.add(key);
    EXPECT_EQ(state_of(table), (State{{4, 5}, {0, 0}, {0, 0}}));
    table.add(4);
    EXPECT_EQ(state_of(table), (State{{5, 5}, {0, 21}, {0, 0}}));
    table.add(5);
    EXPECT_EQ(state_of(table), (State{{4, 5}, {2, 21}, {0, 0}}));
    for (unsigned long key = 6; key < 10; key++)
        table.add(key);
    EXPECT_EQ(state_of(table), (State{{10, 21}, {0, 0}, {0, 0}}));
    EXPECT_EQ(log.take(),
              (std::vector<LogLine>{{13, "create an initial hash array of size 5"},
                                    {13, "start growing hashtable to 21 slots"},
                                    {13, "replacing the main hash array with the bigger one"}}));

    // The further thresholds, each met exactly.
    unsigned long key = 10;
    for (auto [threshold, slots] : {std::pair(19ul, 85ul), {77, 341}, {307, 1365}}) {
        while (state_of(table).steady() && key < 1000)
            table.add(key++);
        EXPECT_EQ(state_of(table), (State{{threshold, (slots - 1) / 4}, {0, slots}, {0, 0}}));
        while (!state_of(table).steady())
            table.add(key++);
    }
}

TEST(zqhash, shrinks_one_move_at_a_time)
{
    Table table;
    ASSERT_TRUE(table.get());
    for (unsigned long key = 0; key < 10; key++)
        table.add(key);
    LogCapture log(13);
    for (unsigned long key = 0; key < 7; key++)
        table.remove(key);
    EXPECT_EQ(state_of(table), (State{{3, 21}, {0, 0}, {0, 0}}));
    table.remove(7);
    EXPECT_EQ(state_of(table), (State{{2, 21}, {0, 0}, {0, 5}}));
    EXPECT_NE(table.lookup(9), nullptr);
    EXPECT_EQ(state_of(table), (State{{1, 21}, {0, 0}, {1, 5}}));
    table.remove(9);
    EXPECT_EQ(state_of(table), (State{{1, 5}, {0, 0}, {0, 0}}));
    table.remove(8);
    EXPECT_EQ(state_of(table), (State{{0, 5}, {0, 0}, {0, 0}}));
    EXPECT_EQ(log.take(),
              (std::vector<LogLine>{{13, "start shrinking hashtable to 5 slots"},
                                    {13, "replacing the main hash array with the smaller one"}}));
    EXPECT_TRUE(table.destroyed.empty());
}

TEST(zqhash, equal_keys_replace)
{
    Table table;
    ASSERT_TRUE(table.get());
    for (unsigned long key = 0; key < 5; key++)
        table.add(key, 1);
    ASSERT_EQ(state_of(table), (State{{5, 5}, {0, 21}, {0, 0}}));
    table.add(3, 2); // 3 was in the main array; 0 moves
    EXPECT_EQ(state_of(table), (State{{3, 5}, {2, 21}, {0, 0}}));
    table.add(3, 3); // 3 was in the bigger array; 1 moves
    EXPECT_EQ(state_of(table), (State{{2, 5}, {3, 21}, {0, 0}}));
    EXPECT_EQ(table.destroyed, (Keys{3, 3}));
    EXPECT_EQ(table.lookup(3)->value, 3);

    // Replacing the last item of the main array ends the resize.
    table.add(2, 2);
    EXPECT_EQ(state_of(table), (State{{5, 21}, {0, 0}, {0, 0}}));
}

TEST(zqhash, lookup_moves_what_it_finds)
{
    Table table;
    ASSERT_TRUE(table.get());
    for (unsigned long key = 0; key < 5; key++)
        table.add(key);
    for (unsigned long moved = 0; moved < 5; moved++) {
        ASSERT_EQ(state_of(table), (State{{5 - moved, 5}, {moved, 21}, {0, 0}}));
        EXPECT_EQ(table.lookup(5), nullptr);
        ASSERT_NE(table.lookup(moved), nullptr);
    }
    EXPECT_EQ(state_of(table), (State{{5, 21}, {0, 0}, {0, 0}}));
}

TEST(zqhash, enumerates_the_new_array_then_the_old)
{
    Table table;
    ASSERT_TRUE(table.get());
    EXPECT_EQ(table.keys(), Keys{});
    table.add(12);
    table.add(7);
    table.add(9);
    EXPECT_EQ(table.keys(), (Keys{12, 7, 9}));
    table.add(5);
    table.add(3);
    EXPECT_EQ(table.keys(), (Keys{5, 12, 7, 3, 9})) << "the bigger array is still empty";
    table.add(33); // slot 12 of 21; then 5 moves
    table.lookup(12);
    EXPECT_EQ(table.keys(), (Keys{5, 33, 12, 7, 3, 9}));
}

TEST(zqhash, clear_and_create_from)
{
    Table table;
    ASSERT_TRUE(table.get());
    for (unsigned long key = 0; key < 20; key++)
        table.add(key);
    ASSERT_EQ(state_of(table), (State{{18, 21}, {2, 85}, {0, 0}}));

    zqhash *empty = zq_hash_create_from(table.get());
    ASSERT_TRUE(empty);
    EXPECT_EQ(zq_hash_enumerate_start(empty), nullptr);
    zq_hash_add(empty, new Item(99));
    zq_hash_destroy(empty);
    EXPECT_EQ(table.destroyed, Keys{99});

    zq_hash_clear(table.get());
    EXPECT_EQ(std::set(table.destroyed.begin(), table.destroyed.end()).size(), 21u);
    EXPECT_EQ(state_of(table), (State{{0, 5}, {0, 0}, {0, 0}}));
    EXPECT_EQ(table.lookup(1), nullptr);
    table.add(1);
    EXPECT_NE(table.lookup(1), nullptr);
}

// Removal keeps its books in the array being filled, wherever the item lies.
TEST(zqhash, removal_during_a_resize)
{
    Table table;
    ASSERT_TRUE(table.get());
    for (unsigned long key = 0; key < 6; key++)
        table.add(key);
    const State before = state_of(table);
    ASSERT_FALSE(before.steady());
    Item stranger(7);
    zq_hash_remove(table.get(), &stranger);
    EXPECT_EQ(state_of(table), before) << "an item of neither array is left alone";

    auto unlooked = [](bool with_target_items) {
        Table own;
        own.same_hash = 1;
        Item *third = new Item(3);
        own.add(1);
        own.add(2);
        zq_hash_add(own.get(), third);
        own.add(4);
        own.add(5);
        if (with_target_items)
            own.add(6);
        zq_hash_remove(own.get(), third);
        EXPECT_EQ(state_of(own), (State{{3, 5}, {2, 21}, {0, 0}}));
        zq_hash_clear(own.get());
    };
    EXPECT_MISUSE(unlooked(false), "adt/zqhash", "zq_hash_remove", "targethasharray->entries > 0");
    EXPECT_MISUSE(unlooked(true), "adt/zqhash", "zq_hash_array_clear", "zqhasharray->entries == 0");
}

TEST(zqhash, misuse)
{
    Table table;
    ASSERT_TRUE(table.get());
    zqhash *hash = table.get();
    Item item(1);
    const char *source = "adt/zqhash";
    EXPECT_MISUSE(zq_hash_create(0, nullptr, Table::compare, Table::destroy, nullptr), source,
                  "zq_hash_create", "calchashcallback != NULL");
    EXPECT_MISUSE(zq_hash_create(0, Table::calc, nullptr, Table::destroy, nullptr), source,
                  "zq_hash_create", "comparecallback != NULL");
    EXPECT_MISUSE(zq_hash_create(0, Table::calc, Table::compare, nullptr, nullptr), source,
                  "zq_hash_create", "destroycallback != NULL");
    EXPECT_MISUSE(zq_hash_create_from(nullptr), source, "zq_hash_create_from", "original != NULL");
    EXPECT_MISUSE(zq_hash_destroy(nullptr), source, "zq_hash_destroy", "zqhash != NULL");
    EXPECT_MISUSE(zq_hash_clear(nullptr), source, "zq_hash_clear", "zqhash != NULL");
    EXPECT_MISUSE(zq_hash_add(nullptr, &item), source, "zq_hash_add", "zqhash != NULL");
    EXPECT_MISUSE(zq_hash_add(hash, nullptr), source, "zq_hash_add", "item != NULL");
    EXPECT_MISUSE(zq_hash_remove(nullptr, &item), source, "zq_hash_remove", "zqhash != NULL");
    EXPECT_MISUSE(zq_hash_remove(hash, nullptr), source, "zq_hash_remove", "item != NULL");
    EXPECT_MISUSE(zq_hash_remove(hash, &item), source, "zq_hash_remove",
                  "targethasharray->entries > 0");
    EXPECT_MISUSE(zq_hash_lookup(nullptr, &item), source, "zq_hash_lookup", "zqhash != NULL");
    EXPECT_MISUSE(zq_hash_lookup(hash, nullptr), source, "zq_hash_lookup", "searchitem != NULL");
    EXPECT_MISUSE(zq_hash_enumerate_start(nullptr), source, "zq_hash_enumerate_start",
                  "zqhash != NULL");
    EXPECT_MISUSE(zq_hash_enumerate_next(nullptr, &item), source, "zq_hash_enumerate_next",
                  "zqhash != NULL");
    EXPECT_MISUSE(zq_hash_enumerate_next(hash, nullptr), source, "zq_hash_enumerate_next",
                  "item != NULL");
    EXPECT_MISUSE(
        zq_hash_debug_state(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), source,
        "zq_hash_debug_state", "zqhash != NULL");

    for (unsigned long key = 0; key < 5; key++)
        table.add(key);
    EXPECT_MISUSE(zq_hash_enumerate_next(hash, &item), source, "zq_hash_enumerate_next", "0");
    EXPECT_DEATH(zq_hash_enumerate_next(hash, &item), "invalid hash item");
}

// Random phases of growing and shrinking beside a map of the standard library.
static void walk_at_random(unsigned int seed, int steps)
{
    std::mt19937 random(seed);
    Table table;
    ASSERT_TRUE(table.get());
    std::unordered_map<unsigned long, int> model;
    bool resized[2] = {};
    size_t replaced = 0;
    for (int step = 0; step < steps; step++) {
        unsigned long key = random() % 700 * 7919;
        unsigned int growing = step / 3000 % 2 ? 5 : 75;
        const State before = state_of(table);
        bool acted;
        if (random() % 100 < growing) {
            replaced += model.count(key);
            model[key] = step;
            table.add(key, step);
            acted = true;
        } else {
            acted = model.erase(key) != 0;
            table.remove(key);
        }
        const State after = state_of(table);
        ASSERT_EQ(after.entries(), model.size());
        ASSERT_TRUE(after.bigger[1] == 0 || after.smaller[1] == 0);
        ASSERT_GE(after.main[1], 5u);
        if (acted && !before.steady() && !after.steady()) {
            ASSERT_LE(before.main[0] - after.main[0], 2u) << "more than one item was moved";
            ASSERT_LT(after.main[0], before.main[0]);
        }
        resized[0] |= after.bigger[1] != 0;
        resized[1] |= after.smaller[1] != 0;

        unsigned long wanted = random() % 700 * 7919;
        auto expected = model.find(wanted);
        const Item *found = table.lookup(wanted);
        ASSERT_EQ(found != nullptr, expected != model.end());
        ASSERT_EQ(found ? found->value : 0, found ? expected->second : 0);
        if (step % 97 == 0) {
            Keys keys = table.keys();
            ASSERT_EQ(keys.size(), model.size());
            for (unsigned long each : keys)
                ASSERT_TRUE(model.count(each));
            ASSERT_EQ(std::set(keys.begin(), keys.end()).size(), keys.size());
        }
    }
    EXPECT_EQ(table.destroyed.size(), replaced);
    EXPECT_TRUE(faults_injected() || (resized[0] && resized[1]));
}

TEST(zqhash, model)
{
    walk_at_random(1, faults_injected() ? 3000 : 20000);
}

// Tables share nothing.
TEST(zqhash, tables_of_several_threads)
{
    std::thread other(walk_at_random, 2, 6000);
    walk_at_random(3, 6000);
    other.join();
}

TEST(zqhash, lines_without_memory)
{
    if (!faults_injected()) {
        const std::vector<std::string> expected = {
            "[7] not enough memory for duplicating hashtable",
            "[7] not enough memory for hash array slots (336 bytes); "
            "[7] not enough memory to grow the hashtable from 5 to 21 slots",
            "[7] not enough memory for hash array slots (336 bytes); "
            "[7] not enough memory to shrink the hashtable from 85 to 21 slots",
            "[7] not enough memory for hash array slots (80 bytes)",
            "[7] not enough memory for hash array slots (80 bytes); "
            "[7] not enough memory to return the hash array to the minimum size, keeping the "
            "current size",
            "[7] not enough memory for hash array structure",
            "[7] not enough memory for hash array structure; "
            "[7] not enough memory to grow the hashtable from 5 to 21 slots",
            "[7] not enough memory for hash array structure; "
            "[7] not enough memory to return the hash array to the minimum size, keeping the "
            "current size",
            "[7] not enough memory for hash array structure; "
            "[7] not enough memory to shrink the hashtable from 85 to 21 slots",
            "[7] not enough memory for zqhash structure",
        };
        expect_lines_without_memory("zqhash.lines_without_memory", expected);
        return;
    }
    FaultLines lines;
    Table table;
    lines.step();
    if (!table.get())
        return;
    if (zqhash *copy = zq_hash_create_from(table.get()))
        zq_hash_destroy(copy);
    lines.step();
    // A failed resize is tried again by the next call.
    unsigned long key = 0;
    for (; key < 60; key++) {
        table.add(key);
        lines.step();
    }
    while (key-- > 3) {
        table.remove(key);
        lines.step();
    }
    zq_hash_clear(table.get());
    lines.step();
}

template <class Word>
static void check_remainders(std::mt19937_64 &random)
{
    const Word max = static_cast<Word>(-1);
    std::vector<Word> interesting = {2,       3,       4,       5,           7,           21,
                                     max - 1, max,     max / 2, max / 2 + 1, max / 2 + 2, max / 3,
                                     85,      1398101, 1365,    5592405};
    for (int i = 0; i < 300; i++)
        interesting.push_back(static_cast<Word>(random() >> random() % 62) | 2);
    for (Word divisor : interesting) {
        const auto by = reciprocal<Word>::of(divisor);
        auto check = [&](Word dividend) {
            ASSERT_EQ(by.remainder(dividend, divisor), dividend % divisor)
                << dividend << " by " << divisor;
        };
        check(0);
        check(1);
        for (Word dividend : interesting) {
            check(dividend);
            check(dividend - 1);
            check(static_cast<Word>(dividend * divisor));
            check(static_cast<Word>(dividend * divisor - 1));
            check(max - max % divisor);
            check(max - max % divisor - 1);
            check(static_cast<Word>(random()));
        }
    }
}

TEST(zqhash, slots_are_exact_remainders)
{
    std::mt19937_64 random(11);
    check_remainders<uint32_t>(random);
    check_remainders<uint64_t>(random);
    check_remainders<unsigned long>(random);
}
