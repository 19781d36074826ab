// The database of paths that have failed.
// The input is the file, in which a byte 1 stands for the path that asks for memory.

#include "zq/util/zqmallocfail.h"

#include <filesystem>
#include <set>
#include <sstream>
#include <thread>

#include "fuzz/support/captured.h"
#include "fuzz/support/fuzz.h"
#include "tests/support/scratch.h"

static const std::string DATABASE = "zqmallocfail.db";

namespace {
// The working directory, where the database is looked for. The fuzzer itself has files in its own.
class InFolder {
  public:
    explicit InFolder(const std::string &path) { std::filesystem::current_path(path); }
    ~InFolder() { std::filesystem::current_path(home); }

  private:
    const std::filesystem::path home = std::filesystem::current_path();
};

struct Loaded {
    std::set<std::string> paths;
    bool complete = true;
};
} // namespace

// Whether memory was given. A thread of its own makes the path the same from everywhere.
static bool given()
{
    void *block = nullptr;
    std::thread([&] { block = zq_mallocfail_malloc(10); }).join();
    free(block);
    return block != nullptr;
}

// The text of that path: the only line of a database that was empty.
static std::string path_text()
{
    FUZZ_CHECK(!given());
    std::string line = read_file(DATABASE);
    FUZZ_CHECK(line.find('\n') == line.size() - 1);
    line.pop_back();
    return line;
}

// The lines up to the first that has 4095 bytes with its line feed.
static Loaded load(const std::string &database)
{
    Loaded loaded;
    std::istringstream in(database);
    for (std::string line; loaded.complete && std::getline(in, line);) {
        loaded.complete = line.size() + !in.eof() < 4095;
        if (loaded.complete)
            loaded.paths.insert(line);
    }
    return loaded;
}

// Asks as a program does that finds this database. Returns the one that is there afterwards.
static std::string check_run(const std::string &database, const std::string &path)
{
    zq_mallocfail_uninit();
    bool known = false;
    const std::string err = captured(stderr, [&] { known = given(); });
    const Loaded loaded = load(database);
    FUZZ_CHECK(known == loaded.paths.contains(path));
    FUZZ_CHECK(err.starts_with("zq_mallocfail_file_load: buffer too short") == !loaded.complete);
    const std::string after = known ? database : database + path + "\n";
    FUZZ_CHECK(read_file(DATABASE) == after);
    return after;
}

void fuzz(Input &input)
{
    static const Scratch scratch;
    const InFolder folder(scratch.path());
    static const std::string path = path_text();

    std::string database;
    while (!input.empty()) {
        const char c = static_cast<char>(input.byte());
        if (c == 1)
            database += path;
        else if (c) // it is a text
            database += c;
    }
    scratch.write(DATABASE, database);
    const std::string after = check_run(database, path);
    FUZZ_CHECK(given()); // it has failed now
    check_run(after, path);
    zq_mallocfail_uninit();
}
