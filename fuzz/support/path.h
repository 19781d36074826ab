#ifndef FUZZ_SUPPORT_PATH_H
#define FUZZ_SUPPORT_PATH_H

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

// A path as the queries of documents take it, as arguments: names, some with an index behind them.
template <class Index>
struct Step {
    std::string name;
    std::optional<Index> index;
};
template <class Index>
using Path = std::vector<Step<Index>>;
constexpr size_t PATH_MAX_STEPS = 3;

// Calls query(name, index, ...) as the path has them, from its step `next` on.
template <class Index, class Query, class... Arguments>
auto along(const Path<Index> &path, size_t next, Query query, Arguments... arguments)
{
    if (next == path.size())
        return query(arguments...);
    if constexpr (sizeof...(Arguments) < 2 * PATH_MAX_STEPS) {
        const char *const name = path[next].name.c_str();
        return path[next].index
                   ? along(path, next + 1, query, arguments..., name, *path[next].index)
                   : along(path, next + 1, query, arguments..., name);
    }
    abort();
}

#endif
