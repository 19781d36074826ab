#include "zq/adt/zqhash.h"

#include <random>
#include <sstream>
#include <thread>

#include "tests/support/expect.h"
#include "tests/support/faults.h"
#include "zq/adt/zqlist.h"
#include "zq/internal/zqreciprocal.h"

namespace {
using Keys = std::vector<unsigned long>;

struct Item {
    unsigned long key;
    zqlistlink link = {};
};

unsigned long key_of(const void *item)
{
    return static_cast<const Item *>(item)->key;
}

// Keys hash to themselves, so that every item's slot is known.
struct Table {
    Keys destroyed;
    Owned<zqhash, zq_hash_destroy> hash{
        zq_hash_create(offsetof(Item, link), calc, compare, destroy, this)};

    static unsigned long calc(const void *item, void *) { return key_of(item); }
    static int compare(const void *a, const void *b, void *) { return key_of(a) != key_of(b); }
    static void destroy(void *item, void *context)
    {
        std::unique_ptr<Item> stored(static_cast<Item *>(item));
        EXPECT_TRUE(!stored->link.next && !stored->link.prev);
        static_cast<Table *>(context)->destroyed.push_back(stored->key);
    }
    void add(unsigned long key) { zq_hash_add(hash.get(), new Item{key}); }
    Item *lookup(unsigned long key) const
    {
        Item wanted{key};
        return static_cast<Item *>(zq_hash_lookup(hash.get(), &wanted));
    }
    void remove(unsigned long key)
    {
        std::unique_ptr<Item> item(lookup(key));
        if (item)
            zq_hash_remove(hash.get(), item.get());
        EXPECT_TRUE(!item || (!item->link.next && !item->link.prev));
    }
    Keys keys() const
    {
        Keys found;
        void *item = zq_hash_enumerate_start(hash.get());
        for (; item; item = zq_hash_enumerate_next(hash.get(), item))
            found.push_back(key_of(item));
        return found;
    }
    // Items and slots: of the main array, the bigger one, the smaller one.
    Keys state() const
    {
        Keys now(6);
        zq_hash_debug_state(hash.get(), &now[0], &now[1], &now[2], &now[3], &now[4], &now[5]);
        return now;
    }
};

// Adds, removes and looks up the keys, which are there with ? and not with !.
void play(Table &table, const char *operations)
{
    std::istringstream in(operations);
    char operation;
    for (unsigned long key; in >> operation >> key;) {
        if (operation == '+')
            table.add(key);
        else if (operation == '-')
            table.remove(key);
        else
            EXPECT_EQ(table.lookup(key) != nullptr, operation == '?') << key;
    }
}
} // namespace

TEST(zqhash, resizes_one_move_at_a_time)
{
    LogCapture log(13);
    Table table;
    ASSERT_TRUE(table.hash);
    const struct {
        const char *operations;
        Keys state, destroyed;
    } rows[] = {
        {"+0 +1 +2 +3", {4, 5, 0, 0, 0, 0}, {}},
        {"+4", {5, 5, 0, 21, 0, 0}, {}},
        {"+5", {4, 5, 2, 21, 0, 0}, {}},
        {"!6 ?1 ?5", {3, 5, 3, 21, 0, 0}, {}},
        {"+6 +7 +8", {9, 21, 0, 0, 0, 0}, {}},
        {"+9 -0 -1 -2 -3 -4 -5 -6", {3, 21, 0, 0, 0, 0}, {}},
        {"-7", {2, 21, 0, 0, 0, 5}, {}},
        {"?9", {1, 21, 0, 0, 1, 5}, {}},
        {"-9", {1, 5, 0, 0, 0, 0}, {}},
        {"-8 +0 +1 +2 +3 +4", {5, 5, 0, 21, 0, 0}, {}},
        {"+3", {3, 5, 2, 21, 0, 0}, {3}},    // from the main array; 0 moves
        {"+3", {2, 5, 3, 21, 0, 0}, {3, 3}}, // from the bigger array; 1 moves
        {"+2", {5, 21, 0, 0, 0, 0}, {3, 3, 2}},
    };
    for (const auto &row : rows) {
        play(table, row.operations);
        EXPECT_EQ(table.state(), row.state) << row.operations;
        EXPECT_EQ(table.destroyed, row.destroyed) << row.operations;
    }
    const LogLine grow = {13, "start growing hashtable to 21 slots"},
                  grown = {13, "replacing the main hash array with the bigger one"},
                  shrink = {13, "start shrinking hashtable to 5 slots"},
                  shrunk = {13, "replacing the main hash array with the smaller one"};
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{13, "create an initial hash array of size 5"},
                                                grow,
                                                grown,
                                                shrink,
                                                shrunk,
                                                grow,
                                                grown}));
    zq_hash_debug_state(table.hash.get(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
}

TEST(zqhash, enumerates_and_clears_the_new_array_then_the_old)
{
    Table table;
    ASSERT_TRUE(table.hash);
    play(table, "+12 +7 +9");
    EXPECT_EQ(table.keys(), (Keys{12, 7, 9}));
    play(table, "+5 +3");
    EXPECT_EQ(table.keys(), (Keys{5, 12, 7, 3, 9})) << "the bigger array is still empty";
    play(table, "+33 ?12"); // slot 12 of 21; 5 moves
    EXPECT_EQ(table.keys(), (Keys{5, 33, 12, 7, 3, 9}));

    if (zqhash *other = zq_hash_create_from(table.hash.get())) {
        zq_hash_add(other, new Item{99});
        zq_hash_destroy(other);
    }
    zq_hash_clear(table.hash.get());
    EXPECT_EQ(table.destroyed, (Keys{99, 5, 33, 12, 7, 3, 9}));
    EXPECT_EQ(table.state(), (Keys{0, 5, 0, 0, 0, 0}));
    EXPECT_EQ(table.keys(), Keys{});
}

// Removal keeps its books in the array being filled, wherever the item lies.
static void remove_unlooked()
{
    Table table;
    Item *item = new Item{315};
    play(table, "+105 +210");
    zq_hash_add(table.hash.get(), item);
    play(table, "+420 +525 +630");
    zq_hash_remove(table.hash.get(), item);
    zq_hash_clear(table.hash.get());
}

TEST(zqhash, misuse)
{
    Table table;
    ASSERT_TRUE(table.hash);
    zqhash *hash = table.hash.get();
    Item item{7};
#define MISUSE(call, function, expression) EXPECT_MISUSE(call, "adt/zqhash", function, expression)
    MISUSE(zq_hash_create(0, nullptr, Table::compare, Table::destroy, nullptr), "zq_hash_create",
           "calchashcallback != NULL");
    MISUSE(zq_hash_add(nullptr, &item), "zq_hash_add", "zqhash != NULL");
    MISUSE(zq_hash_lookup(hash, nullptr), "zq_hash_lookup", "searchitem != NULL");
    MISUSE(zq_hash_remove(hash, &item), "zq_hash_remove", "targethasharray->entries > 0");
    MISUSE(remove_unlooked(), "zq_hash_array_clear", "zqhasharray->entries == 0");

    play(table, "+0 +1 +2 +3 +4 +5");
    ASSERT_EQ(table.state(), (Keys{4, 5, 2, 21, 0, 0}));
    zq_hash_remove(hash, &item);
    EXPECT_EQ(table.state(), (Keys{4, 5, 2, 21, 0, 0})) << "an item of neither array stays out";
    MISUSE(zq_hash_enumerate_next(hash, &item), "zq_hash_enumerate_next", "0");
    EXPECT_DEATH(zq_hash_enumerate_next(hash, &item), "invalid hash item");
}

// Notes how full the main array is, of how many slots, where a resize starts.
static void grow_and_shrink()
{
    Table table;
    ASSERT_TRUE(table.hash);
    std::vector<Keys> starts;
    bool resizing = false;
    for (unsigned long step = 0; step < 800; step++) {
        if (step < 400)
            table.add(step);
        else
            table.remove(799 - step);
        const Keys now = table.state();
        if (!resizing && now[3] + now[5] != 0)
            starts.push_back({now[0], now[1]});
        resizing = now[3] + now[5] != 0;
    }
    EXPECT_EQ(starts, (std::vector<Keys>{{5, 5},
                                         {19, 21},
                                         {77, 85},
                                         {307, 341}, // growing
                                         {136, 1365},
                                         {34, 341},
                                         {8, 85},
                                         {2, 21}}));
}

// Tables of several threads share nothing.
TEST(zqhash, resizes_by_factors_of_four)
{
    std::thread other(grow_and_shrink);
    grow_and_shrink();
    other.join();
}

TEST(zqhash, lines_without_memory)
{
    if (!faults_injected()) {
        const std::string none = "[7] not enough memory ";
        const std::string structure = none + "for hash array structure";
        const auto slots = [&](size_t count) {
            return none + "for hash array slots (" + std::to_string(count * sizeof(zqlist)) +
                   " bytes)";
        };
        expect_lines_without_memory(
            "zqhash.lines_without_memory",
            {none + "for duplicating hashtable", none + "for zqhash structure", structure, slots(5),
             structure + "; " + none + "to grow the hashtable from 5 to 21 slots",
             slots(21) + "; " + none + "to shrink the hashtable from 85 to 21 slots",
             structure + "; " + none +
                 "to return the hash array to the minimum size, keeping the current size"});
        return;
    }
    FaultLines lines;
    Table table;
    lines.step();
    if (!table.hash)
        return;
    if (zqhash *copy = zq_hash_create_from(table.hash.get()))
        zq_hash_destroy(copy);
    lines.step();
    // A failed resize is tried again by the next call.
    unsigned long key = 0;
    for (; key < 60; key++, lines.step())
        table.add(key);
    for (; key-- > 3; lines.step())
        table.remove(key);
    zq_hash_clear(table.hash.get());
    lines.step();
}

TEST(zqhash, slots_are_exact_remainders)
{
    std::mt19937_64 random(11);
    auto check = [&]<class Word>(Word max) {
        std::vector<Word> words = {2, 3, 5, 21, 85, max - 1, max, max / 2, max / 2 + 1, max / 3};
        for (int i = 0; i < 300; i++)
            words.push_back(static_cast<Word>(random() >> random() % 62) | 2);
        for (Word divisor : words) {
            const auto by = reciprocal<Word>::of(divisor);
            for (Word word : words)
                for (Word value : {word, static_cast<Word>(word * divisor), max - max % divisor})
                    for (Word dividend : {value, static_cast<Word>(value - 1)})
                        ASSERT_EQ(by.remainder(dividend, divisor), dividend % divisor)
                            << dividend << " by " << divisor;
        }
    };
    check(UINT32_MAX);
    check(ULONG_MAX);
}
