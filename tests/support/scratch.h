#ifndef TESTS_SUPPORT_SCRATCH_H
#define TESTS_SUPPORT_SCRATCH_H

#include <string>

// A fresh directory of the test's own, removed with all its contents at the end.
class Scratch {
  public:
    Scratch();
    ~Scratch();
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;

    const std::string &path() const { return directory; }
    std::string file(const std::string &name) const { return directory + "/" + name; }
    // Writes a file and returns its path.
    std::string write(const std::string &name, const std::string &content) const;

  private:
    std::string directory;
};

// While it lives, fresh Scratch directories are made in another directory.
class ScratchPlace {
  public:
    explicit ScratchPlace(const std::string &directory);
    ~ScratchPlace();
    ScratchPlace(const ScratchPlace &) = delete;
    ScratchPlace &operator=(const ScratchPlace &) = delete;

    // Memory, where the system has a file system for that.
    static std::string memory();

  private:
    std::string before;
};

std::string read_file(const std::string &path);

#endif
