// The input is a program of operations on a table, beside a map of the standard library.
// Its first byte says how keys are hashed, the others are operations and their keys and counts.

#include "zq/adt/zqhash.h"

#include <cstddef>
#include <memory>
#include <unordered_map>

#include "fuzz/support/fuzz.h"
#include "zq/adt/zqlist.h"

namespace {
struct Item {
    unsigned long key;
    unsigned int seen = 0; // the step that last enumerated it
    zqlistlink link = {};
};

struct State {
    unsigned long main, mainslots, bigger, biggerslots, smaller, smallerslots;
    bool resizing() const { return biggerslots + smallerslots != 0; }
};

enum class Going { none, one, all }; // which items may be destroyed

class Model {
  public:
    explicit Model(unsigned int way) : hashing(way) { FUZZ_CHECK(hash); }
    void add(unsigned long key);
    void remove(unsigned long key);
    Item *lookup(unsigned long key) const;
    void remove_first();
    void clear();
    void replace_by_empty();
    void check(unsigned int step) const;

  private:
    static unsigned long calc(const void *item, void *context);
    static int compare(const void *stored, const void *searched, void *context);
    static void destroy(void *item, void *context);
    State state() const;
    void check_moved(const State &before) const;

    const unsigned int hashing;
    std::unordered_map<unsigned long, Item *> items;
    Going going = Going::none;
    unsigned long going_key = 0;
    std::unique_ptr<zqhash, decltype(&zq_hash_destroy)> hash{
        zq_hash_create(offsetof(Item, link), calc, compare, destroy, this), zq_hash_destroy};
};
} // namespace

unsigned long Model::calc(const void *item, void *context)
{
    const unsigned long key = static_cast<const Item *>(item)->key;
    switch (static_cast<const Model *>(context)->hashing % 5) {
    case 0:
        return key;
    case 1:
        return ~key; // the largest numbers
    case 2:
        return static_cast<unsigned long>(key * 0x9E3779B97F4A7C15u); // any number
    case 3:
        return key % 7; // many collisions
    default:
        return ~0ul; // nothing but collisions
    }
}

int Model::compare(const void *stored, const void *searched, void *)
{
    return static_cast<const Item *>(stored)->key != static_cast<const Item *>(searched)->key;
}

void Model::destroy(void *item, void *context)
{
    const std::unique_ptr<Item> owned(static_cast<Item *>(item));
    Model &model = *static_cast<Model *>(context);
    FUZZ_CHECK(!owned->link.next && !owned->link.prev);
    FUZZ_CHECK(model.going == Going::all ||
               (model.going == Going::one && owned->key == model.going_key));
    const auto known = model.items.find(owned->key);
    FUZZ_CHECK(known != model.items.end() && known->second == item);
    model.items.erase(known);
}

State Model::state() const
{
    State now;
    zq_hash_debug_state(hash.get(), &now.main, &now.mainslots, &now.bigger, &now.biggerslots,
                        &now.smaller, &now.smallerslots);
    return now;
}

// A resize that was in progress has gone on.
void Model::check_moved(const State &before) const
{
    const State now = state();
    FUZZ_CHECK(!before.resizing() || !now.resizing() || now.main < before.main);
}

void Model::add(unsigned long key)
{
    const State before = state();
    Item *item = new Item{key};
    going = Going::one;
    going_key = key;
    zq_hash_add(hash.get(), item);
    going = Going::none;
    FUZZ_CHECK(items.emplace(key, item).second); // whoever had the key is gone
    check_moved(before);
}

Item *Model::lookup(unsigned long key) const
{
    const Item wanted{key};
    auto *found = static_cast<Item *>(zq_hash_lookup(hash.get(), &wanted));
    const auto known = items.find(key);
    FUZZ_CHECK(found == (known == items.end() ? nullptr : known->second));
    return found;
}

void Model::remove(unsigned long key)
{
    const std::unique_ptr<Item> item(lookup(key));
    if (!item)
        return;
    const State before = state();
    zq_hash_remove(hash.get(), item.get());
    FUZZ_CHECK(!item->link.next && !item->link.prev);
    items.erase(key);
    check_moved(before);
}

// How a table is emptied one by one: enumerating begins anew after each removal.
void Model::remove_first()
{
    const auto *first = static_cast<const Item *>(zq_hash_enumerate_start(hash.get()));
    FUZZ_CHECK((first != nullptr) == !items.empty());
    if (first)
        remove(first->key);
}

void Model::clear()
{
    going = Going::all;
    zq_hash_clear(hash.get());
    going = Going::none;
    FUZZ_CHECK(items.empty() && state().mainslots == 5 && !state().resizing());
}

void Model::replace_by_empty()
{
    zqhash *const empty = zq_hash_create_from(hash.get());
    FUZZ_CHECK(empty);
    going = Going::all;
    hash.reset(empty);
    going = Going::none;
    FUZZ_CHECK(items.empty());
}

void Model::check(unsigned int step) const
{
    const State now = state();
    FUZZ_CHECK(now.main + now.bigger + now.smaller == items.size());
    FUZZ_CHECK(now.mainslots >= 5 && (now.biggerslots == 0 || now.smallerslots == 0));
    size_t count = 0;
    void *entry = zq_hash_enumerate_start(hash.get());
    for (; entry; entry = zq_hash_enumerate_next(hash.get(), entry), count++) {
        Item *item = static_cast<Item *>(entry);
        const auto known = items.find(item->key);
        FUZZ_CHECK(known != items.end() && known->second == item && item->seen != step);
        item->seen = step;
    }
    FUZZ_CHECK(count == items.size());
}

static void run_step(Model &model, Input &input)
{
    const unsigned int operation = input.below(9);
    if (operation == 0)
        return model.clear();
    if (operation == 1)
        return model.replace_by_empty();
    const unsigned long key = input.byte();
    // The even operations work on one key, the others on as many as the next byte says.
    const unsigned long end = key + (operation % 2 ? input.below(64) : 1u);
    for (unsigned long k = key; k < end; k++) {
        if (operation < 4)
            model.add(k);
        else if (operation < 6)
            model.remove(k);
        else if (operation < 8)
            model.lookup(k);
        else
            model.remove_first();
    }
}

void fuzz(Input &input)
{
    Model model(input.byte());
    model.check(1);
    for (unsigned int step = 2; step < 100 && !input.empty(); step++) {
        run_step(model, input);
        model.check(step);
    }
    model.clear();
}
