// Usage: NAME_replay [FILE-OR-FOLDER...]
// Takes files through a fuzzer, one after the other; names that do not exist are passed over.

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/support/fuzz.h"

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static void replay(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    // Exactly as large as the file, so that a sanitizer sees the first byte too many.
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    fprintf(stderr, "%s\n", path.c_str());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
}

int main(int argc, char **argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    int count = 0;
    for (int i = 1; i < argc; i++) {
        if (std::filesystem::is_regular_file(argv[i])) {
            replay(argv[i]);
            count++;
        } else if (std::filesystem::exists(argv[i])) {
            for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
                replay(entry.path());
                count++;
            }
        }
    }
    printf("replayed %d inputs\n", count);
    return count > 0 ? 0 : 1;
}
