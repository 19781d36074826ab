#include "tests/support/scratch.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdlib.h>
#include <unistd.h>

Scratch::Scratch()
{
    std::string name = (std::filesystem::temp_directory_path() / "zqtest.XXXXXX").string();
    if (!mkdtemp(name.data()))
        abort();
    directory = name;
}

Scratch::~Scratch()
{
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
}

std::string Scratch::write(const std::string &name, const std::string &content) const
{
    std::string path = file(name);
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return std::move(content).str();
}

ScratchPlace::ScratchPlace(const std::string &directory)
    : before(std::filesystem::temp_directory_path())
{
    setenv("TMPDIR", directory.c_str(), 1);
}

ScratchPlace::~ScratchPlace()
{
    setenv("TMPDIR", before.c_str(), 1);
}

std::string ScratchPlace::memory()
{
    return access("/dev/shm", W_OK) == 0 ? "/dev/shm" : std::filesystem::temp_directory_path();
}
