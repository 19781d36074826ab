// Signals at 1 kHz to a thread that works on files and directories.

#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/expect.h"
#include "tests/support/random_bytes.h"
#include "tests/support/scratch.h"
#include "tests/support/signal_storm.h"
#include "zq/io/zqdir.h"
#include "zq/io/zqfile.h"
#include "zq/io/zqmkdir.h"
#include "zq/io/zqutf8dir.h"

namespace fs = std::filesystem;

static std::string load(const std::string &name)
{
    char *data;
    size_t size;
    EXPECT_EQ(zq_file_data_load_with_backup(name.c_str(), &data, &size), 0);
    ZqString owner(data);
    return owner ? std::string(data, size) : "";
}

TEST(io_signal_storm, files_are_saved_and_loaded_whole)
{
    SignalStorm storm;
    Scratch scratch;
    const std::string name = scratch.file("file");
    for (size_t round = 0; round < 4; round++) {
        const std::string content = random_bytes((4 << 20) + round);
        EXPECT_EQ(zq_file_data_save_with_backup(name.c_str(), content.data(), content.size()), 0);
        EXPECT_TRUE(load(name) == content);
        EXPECT_EQ(fs::exists(name + ".bak"), round > 0);
        EXPECT_FALSE(fs::exists(name + ".tmp"));
    }
}

// What is read short because of a signal goes on at the same byte.
TEST(io_signal_storm, pipes_are_read_on)
{
    SignalStorm storm;
    Scratch scratch;
    const std::string name = scratch.file("pipe"), sent = random_bytes(2 << 20);
    ASSERT_EQ(mkfifo(name.c_str(), 0600), 0);
    std::atomic<bool> interrupted{false};
    auto writing = sheltered<std::thread>([&] {
        FILE *pipe = fopen(name.c_str(), "w");
        while (!interrupted)
            std::this_thread::yield();
        EXPECT_EQ(fwrite(sent.data(), 1, sent.size(), pipe), sent.size());
        fclose(pipe);
    });
    FILE *pipe = nullptr;
    while (!pipe && (pipe = zq_file_open_binary(name.c_str())) == nullptr)
        EXPECT_EQ(errno, EINTR);
    std::string received(sent.size() + 1, '\0');
    size_t at = 0;
    do {
        clearerr(pipe);
        at += zq_file_read(pipe, &received[at], received.size() - at);
        EXPECT_TRUE(!ferror(pipe) || errno == EINTR) << errno;
        interrupted = interrupted || ferror(pipe);
    } while (!feof(pipe) && at < received.size());
    writing.join();
    received.resize(at);
    EXPECT_TRUE(received == sent);
    EXPECT_EQ(zq_file_close(pipe), 0);
}

TEST(io_signal_storm, trees_are_made_and_removed_whole)
{
    SignalStorm storm;
    Scratch scratch;
    const std::string top = scratch.file("top");
    for (auto *remove : {zq_dir_remove_recursive, zq_utf8dir_remove_recursive}) {
        for (int i = 0; i < (faults_injected() ? 5 : 100); i++) {
            const std::string directory =
                top + "/" + std::to_string(i % 25) + "/a/" + std::to_string(i);
            EXPECT_EQ(zq_mkdir_recursive(directory.c_str()), 0u);
            EXPECT_EQ(zq_file_data_save((directory + "/file").c_str(), "x", 1), 0);
        }
        EXPECT_EQ(remove(top.c_str()), 0);
        EXPECT_EQ(fs::exists(top), false);
    }
}
