// The input is a program of operations on a map, beside one of the standard library.
// The first byte says whether values are released by the map.

#include "zq/adt/zqstringhash.h"

#include <algorithm>
#include <map>
#include <memory>
#include <vector>

#include "fuzz/support/fuzz.h"

namespace {
struct Value {
    void *value;
    unsigned int seen = 0; // the step that last enumerated it
};

class Model {
  public:
    explicit Model(bool release_values);
    void add(const std::string &key, void *value);
    void remove(const std::string &key);
    void lookup(const std::string &key);
    void remove_first();
    void clear();
    void replace_by_empty();
    void check(unsigned int step);

  private:
    static void release(void *value, void *context)
    {
        static_cast<Model *>(context)->released.push_back(value);
    }
    void check_released(std::vector<void *> expected);
    void check_all_released();

    const bool releases;
    std::map<std::string, Value> entries;
    std::vector<void *> released; // since it was last checked
    std::unique_ptr<zqstringhash, decltype(&zq_stringhash_destroy)> map;
};
} // namespace

Model::Model(bool release_values)
    : releases(release_values),
      map(zq_stringhash_create(releases ? release : nullptr, this), zq_stringhash_destroy)
{
    FUZZ_CHECK(map);
}

void Model::check_released(std::vector<void *> expected)
{
    if (!releases)
        expected.clear();
    std::sort(expected.begin(), expected.end());
    std::sort(released.begin(), released.end());
    FUZZ_CHECK(released == expected);
    released.clear();
}

void Model::check_all_released()
{
    std::vector<void *> values;
    for (const auto &[key, entry] : entries)
        values.push_back(entry.value);
    check_released(values);
    entries.clear();
}

void Model::add(const std::string &key, void *value)
{
    FUZZ_CHECK(zq_stringhash_add(map.get(), key.c_str(), value) == 0);
    const auto [entry, added] = entries.emplace(key, Value{value});
    check_released(added ? std::vector<void *>{} : std::vector<void *>{entry->second.value});
    entry->second.value = value;
}

void Model::remove(const std::string &key)
{
    const auto entry = entries.find(key);
    const bool known = entry != entries.end();
    FUZZ_CHECK(zq_stringhash_remove(map.get(), key.c_str()) == (known ? 0 : -1));
    check_released(known ? std::vector<void *>{entry->second.value} : std::vector<void *>{});
    if (known)
        entries.erase(entry);
}

void Model::lookup(const std::string &key)
{
    const auto entry = entries.find(key);
    FUZZ_CHECK(zq_stringhash_lookup(map.get(), key.c_str()) ==
               (entry == entries.end() ? nullptr : entry->second.value));
}

void Model::remove_first()
{
    const char *key;
    if (zq_stringhash_enumerate_start(map.get(), &key, nullptr))
        remove(std::string(key));
    else
        FUZZ_CHECK(!key && entries.empty());
}

void Model::clear()
{
    zq_stringhash_clear(map.get());
    check_all_released();
}

void Model::replace_by_empty()
{
    zqstringhash *const empty = zq_stringhash_create_from(map.get());
    FUZZ_CHECK(empty);
    map.reset(empty);
    check_all_released();
}

void Model::check(unsigned int step)
{
    size_t count = 0;
    const char *key;
    void *value;
    zqstringhashitem *item = zq_stringhash_enumerate_start(map.get(), &key, &value);
    for (; item; item = zq_stringhash_enumerate_next(map.get(), item, &key, &value), count++) {
        const auto entry = entries.find(key);
        FUZZ_CHECK(entry != entries.end() && entry->second.value == value);
        FUZZ_CHECK(entry->second.seen != step);
        entry->second.seen = step;
    }
    FUZZ_CHECK(count == entries.size() && !key && !value);
}

static void run_step(Model &model, Input &input, unsigned int step)
{
    void *const value = reinterpret_cast<void *>(static_cast<uintptr_t>(step % 5 ? step : 0));
    const unsigned int operation = input.below(8);
    switch (operation) {
    case 0:
        return model.add(input.text(), value);
    case 1:
        return model.remove(input.text());
    case 2:
        return model.lookup(input.text());
    case 3:
        return model.clear();
    case 4:
        return model.replace_by_empty();
    case 5:
        return model.remove_first();
    default:
        unsigned int number = input.byte();
        for (const unsigned int end = number + input.below(64); number < end; number++) {
            const std::string key = "key" + std::to_string(number);
            operation == 6 ? model.add(key, value) : model.remove(key);
        }
    }
}

void fuzz(Input &input)
{
    Model model(input.below(2));
    model.check(1);
    for (unsigned int step = 2; step < 100 && !input.empty(); step++) {
        run_step(model, input, step);
        model.check(step);
    }
    model.clear();
}
