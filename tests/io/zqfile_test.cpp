#include "zq/io/zqfile.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <span>
#include <unistd.h>

#include "tests/support/expect.h"
#include "tests/support/faults.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch.h"
#include "tests/support/system_faults.h"
#include "zq/io/zqdeletefile.h"
#include "zq/io/zqrename.h"
#include "zq/io/zqtruncate.h"
#include "zq/io/zqutf8file.h"
#include "zq/util/zqlog.h"

namespace {
// While it lives, seeks are noted instead of done; the one that is `failing` (from 1) fails.
struct SeekRecord {
    explicit SeekRecord(size_t failing_ = 0) : failing(failing_) { current = this; }
    ~SeekRecord() { current = nullptr; }
    size_t failing;
    std::vector<std::pair<long, int>> seen;
    static inline SeekRecord *current;
};
} // namespace

extern "C" int fseek(FILE *file, long offset, int whence)
{
    SeekRecord *record = SeekRecord::current;
    if (!record)
        return next_symbol<&fseek>()(file, offset, whence);
    record->seen.emplace_back(offset, whence);
    return record->seen.size() == record->failing ? -1 : 0;
}

using Stream = Owned<FILE, zq_file_close>;

static std::string content(const std::string &path)
{
    return std::filesystem::exists(path) ? read_file(path) : "(none)";
}

// ---- streams ----

TEST(zqfile, opens_in_the_stated_modes)
{
    const struct {
        FILE *(*open)(const char *);
        int flags;
        bool creates;
        const char *kept; // of the content
    } rows[] = {
        {zq_file_create_binary, O_WRONLY, true, ""},
        {zq_file_open_binary, O_RDONLY, false, "old"},
        {zq_file_update_binary, O_RDWR, false, "old"},
        {zq_file_create_ascii, O_WRONLY, true, ""},
        {zq_file_open_ascii, O_RDONLY, false, "old"},
        {zq_file_append_ascii, O_WRONLY | O_APPEND, true, "old"},
        {zq_utf8file_create_binary, O_WRONLY, true, ""},
        {zq_utf8file_open_binary, O_RDONLY, false, "old"},
        {zq_utf8file_create_ascii, O_WRONLY, true, ""},
        {zq_utf8file_append_ascii, O_WRONLY | O_APPEND, true, "old"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        Scratch scratch;
        const std::string old = scratch.write("f", "old");
        Stream file(row.open(old.c_str()));
        ASSERT_NE(file, nullptr);
        EXPECT_EQ(fcntl(fileno(file.get()), F_GETFL) & (O_ACCMODE | O_APPEND), row.flags);
        EXPECT_EQ(content(old), row.kept);
        file.reset(row.open(scratch.file("g").c_str()));
        EXPECT_EQ(file != nullptr, row.creates);
    }
}

TEST(zqfile, reads_writes_and_seeks)
{
    Scratch scratch;
    Stream file(zq_file_create_binary(scratch.file("f").c_str()));
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(zq_file_write(file.get(), "0123456789", 10), 10u);
    file.reset(zq_file_update_binary(scratch.file("f").c_str()));
    ASSERT_NE(file, nullptr);

    const struct {
        int64_t offset;
        int whence;
        int result;
        int64_t position; // after it, each starting from 4
    } rows[] = {
        {0, SEEK_SET, 0, 0},   {7, SEEK_SET, 0, 7},  {-1, SEEK_SET, -1, 4},   {0, SEEK_CUR, 0, 4},
        {3, SEEK_CUR, 0, 7},   {-4, SEEK_CUR, 0, 0}, {-5, SEEK_CUR, -1, 4},   {0, SEEK_END, 0, 10},
        {-10, SEEK_END, 0, 0}, {5, SEEK_END, 0, 15}, {-11, SEEK_END, -1, 10},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.offset << " from " << row.whence);
        LogCapture log;
        EXPECT_EQ(zq_file_seek(file.get(), 4, SEEK_SET), 0);
        EXPECT_EQ(zq_file_seek64(file.get(), row.offset, row.whence), row.result);
        EXPECT_EQ(ftell(file.get()), row.position);
        EXPECT_EQ(zq_file_get_length(file.get()), 10);
        EXPECT_EQ(ftell(file.get()), row.position);
        Lines expected;
        if (row.whence == SEEK_SET && row.offset < 0)
            expected = {{6, "SEEK_SET cannot be called with a negative offset"}};
        EXPECT_EQ(log.take(), expected);
    }
    char buffer[4] = "";
    EXPECT_EQ(zq_file_seek(file.get(), -2, SEEK_END), 0);
    EXPECT_EQ(zq_file_read(file.get(), buffer, 4), 2u);
    EXPECT_STREQ(buffer, "89");
}

TEST(zqfile, takes_long_ways_in_steps_of_a_long)
{
    using Steps = std::vector<std::pair<long, int>>;
    const uint64_t half = static_cast<uint64_t>(LONG_MAX);
    Stream file(tmpfile());
    {
        SeekRecord record;
        EXPECT_EQ(zq_file_seek_forwards_64(file.get(), 0), 0);
        EXPECT_EQ(zq_file_seek_forwards_64(file.get(), half), 0);
        EXPECT_EQ(zq_file_seek_forwards_64(file.get(), 2 * half + 1), 0);
        EXPECT_EQ(
            record.seen,
            (Steps{
                {LONG_MAX, SEEK_CUR}, {LONG_MAX, SEEK_CUR}, {LONG_MAX, SEEK_CUR}, {1, SEEK_CUR}}));
    }
    {
        SeekRecord record;
        EXPECT_EQ(zq_file_seek_backwards_64(file.get(), half), 0);
        EXPECT_EQ(zq_file_seek_backwards_64(file.get(), 2 * half + 1), 0);
        EXPECT_EQ(zq_file_seek64(file.get(), LONG_MIN, SEEK_CUR), 0);
        EXPECT_EQ(record.seen, (Steps{{-LONG_MAX, SEEK_CUR},
                                      {LONG_MIN, SEEK_CUR},
                                      {-LONG_MAX, SEEK_CUR},
                                      {LONG_MIN, SEEK_CUR}}));
    }
    SeekRecord record(2);
    EXPECT_EQ(zq_file_seek_forwards_64(file.get(), 2 * half + 1), -1);
    EXPECT_EQ(record.seen.size(), 2u);
}

TEST(zqfile, works_beyond_32_bits)
{
    Scratch scratch;
    const std::string name = scratch.write("f", "");
    EXPECT_EQ(zq_truncate(name.c_str(), 5'000'000'000), 0);
    EXPECT_EQ(zq_file_exists(name.c_str()), 1);
    Stream file(zq_file_update_binary(name.c_str()));
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(zq_file_seek64(file.get(), 6'000'000'000, SEEK_SET), 0);
    EXPECT_EQ(zq_file_write(file.get(), "01", 2), 2u);
    EXPECT_EQ(zq_file_get_length(file.get()), 6'000'000'002);
    EXPECT_EQ(zq_file_seek64(file.get(), -4'294'967'296, SEEK_CUR), 0);
    EXPECT_EQ(ftello(file.get()), 1'705'032'706);
    EXPECT_EQ(zq_file_seek64(file.get(), 4'294'967'295, SEEK_CUR), 0);
    char last[2] = "";
    EXPECT_EQ(zq_file_read(file.get(), last, 2), 1u);
    EXPECT_STREQ(last, "1");
}

TEST(zqfile, notices_streams_that_cannot_seek)
{
    int pipes[2];
    ASSERT_EQ(pipe(pipes), 0);
    close(pipes[1]);
    Stream file(fdopen(pipes[0], "rb"));
    LogCapture log;
    EXPECT_EQ(zq_file_get_length(file.get()), -1);
    EXPECT_EQ(zq_file_seek64(file.get(), 0, SEEK_END), -1);
    EXPECT_EQ(log.take(), (Lines{{6, "Failed to seek at the end of the file"}}));
}

// ---- names ----

TEST(zqfile, deletes_renames_and_truncates)
{
    Scratch scratch;
    std::string a = scratch.write("a", "content");
    std::string b = scratch.file("b");
    EXPECT_EQ(zq_rename(a.c_str(), b.c_str()), 0);
    EXPECT_EQ(zq_utf8rename(b.c_str(), a.c_str()), 0);
    EXPECT_EQ(zq_truncate(a.c_str(), 3), 0);
    EXPECT_EQ(content(a), "con");
    EXPECT_EQ(zq_truncate(a.c_str(), 5'000'000'000), 0);
    EXPECT_EQ(std::filesystem::file_size(a), 5'000'000'000u);
    EXPECT_EQ(zq_truncate(a.c_str(), -1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(zq_deletefile(a.c_str()), 0);
    EXPECT_EQ(content(a), "(none)");
}

TEST(zqfile, deletes_by_wide_names)
{
    Scratch scratch;
    std::string name = scratch.write("h\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", "");
    std::wstring wide(scratch.path().begin(), scratch.path().end());
    wide += L"/h\x00E9\x20AC\x1F600";
    LogCapture log;
    EXPECT_EQ(zq_wdeletefile(wide.c_str()), 0);
    EXPECT_EQ(content(name), "(none)");
    wide += static_cast<wchar_t>(0x110000);
    log.take();
    errno = 0;
    EXPECT_EQ(zq_wdeletefile(wide.c_str()), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(log.take(), (Lines{{6, "invalid wide character 0x00110000"}}));
}

// ---- whole files ----

namespace {
struct Set {
    int (*save)(const char *, const void *, size_t);
    int (*load)(const char *, char **, size_t *);
    const char *source;
};
const Set sets[] = {
    {zq_file_data_save, zq_file_data_load, "io/zqfile"},
    {zq_utf8file_data_save, zq_utf8file_data_load, "io/zqutf8file"},
    {zq_file_data_save_with_backup, zq_file_data_load_with_backup, "io/zqfile"},
    {zq_utf8file_data_save_with_backup, zq_utf8file_data_load_with_backup, "io/zqutf8file"},
};
const std::span<const Set> with_backup(sets + 2, 2);
} // namespace

TEST(zqfile, saves_and_loads_whole_files)
{
    Scratch scratch;
    std::string name = scratch.file("f");
    SystemCalls calls;
    for (const Set &set : sets) {
        for (const std::string &data :
             {std::string(100'000, 'x'), std::string("a\0b", 3), std::string()}) {
            EXPECT_EQ(set.save(name.c_str(), data.empty() ? nullptr : data.data(), data.size()), 0);
            char *loaded = nullptr;
            size_t len = 77;
            EXPECT_EQ(set.load(name.c_str(), &loaded, &len), 0);
            ZqString owner(loaded);
            if (!loaded) // out of memory
                continue;
            EXPECT_EQ(std::string(loaded, len + 1), data + '\0');
            EXPECT_EQ(set.load(name.c_str(), &loaded, nullptr), 0);
            owner.reset(loaded);
        }
        char *loaded = const_cast<char *>("");
        size_t len = 77;
        EXPECT_EQ(set.load(scratch.path().c_str(), &loaded, &len), -1) << "a directory";
        EXPECT_TRUE(loaded == nullptr && len == 0);
    }
    for (const SystemCall &call : calls.seen)
        EXPECT_TRUE(call.name != "open" || call.flags & O_CLOEXEC);
}

TEST(zqfile, does_not_look_at_closing)
{
    EXPECT_EQ(zq_file_data_save("/dev/full", "abcd", 4), 0);
    const std::string large(1'000'000, 'x');
    EXPECT_EQ(zq_file_data_save("/dev/full", large.data(), large.size()), -1);
}

// ---- saving with a backup ----

TEST(zqfile, backs_up_what_there_is)
{
    for (const Set &set : with_backup) {
        Scratch scratch;
        LogCapture log;
        const std::string name = scratch.file("f");
        for (const char *all : {"1, (none)", "2, 1"}) {
            EXPECT_EQ(set.save(name.c_str(), all, 1), 0);
            EXPECT_EQ(content(name) + ", " + content(name + ".bak"), all);
        }
        EXPECT_EQ(log.take(), Lines{});
    }
}

TEST(zqfile, logs_in_the_name_of_the_function_called)
{
    for (const Set &set : with_backup) {
        Scratch scratch;
        LogCapture log;
        zq_log_logfile_set_name(nullptr, scratch.file("log").c_str());
        zq_log_logfile_enable(nullptr);
        set.save(scratch.file("none/f").c_str(), "x", 1);
        zq_log_logfile_disable(nullptr);
        EXPECT_NE(content(scratch.file("log")).find(std::string(" ") + set.source + ":"),
                  std::string::npos);
    }
}

TEST(zqfile, lines_without_memory)
{
    if (!faults_injected()) {
        expect_lines_without_memory("zqfile.lines_without_memory",
                                    {"[7] not enough memory for temporary file name",
                                     "[7] not enough memory for backup file name",
                                     "[7] not enough memory for backup file name '/no/file.bak'"});
        return;
    }
    for (const Set &set : with_backup) {
        FaultLines lines;
        Scratch scratch;
        if (set.save(scratch.file("f").c_str(), "x", 1) != 0)
            CHECK_PROMISE(std::filesystem::is_empty(scratch.path()));
        lines.step();
        char *data = const_cast<char *>("");
        size_t len = 77;
        set.load("/no/file", &data, &len);
        CHECK_PROMISE(data == nullptr && len == 0);
    }
}

// ---- misuse ----

TEST(zqfile, stops_on_misuse)
{
    char *data;
    char buffer[1];
    FILE *none = nullptr;
    Stream file(tmpfile());
#define ROW(file, call, expression)                                                                \
    EXPECT_MISUSE(call, "io/" file, std::string(#call).substr(0, std::string(#call).find('(')),    \
                  expression)
#define WHENCE "whence == SEEK_SET || whence == SEEK_CUR || whence == SEEK_END"
    ROW("zqfile", zq_file_create_binary(NULL), "filename != NULL");
    ROW("zqfile", zq_file_open_binary(NULL), "filename != NULL");
    ROW("zqfile", zq_file_update_binary(NULL), "filename != NULL");
    ROW("zqfile", zq_file_create_ascii(NULL), "filename != NULL");
    ROW("zqfile", zq_file_open_ascii(NULL), "filename != NULL");
    ROW("zqfile", zq_file_append_ascii(NULL), "filename != NULL");
    ROW("zqfile", zq_file_read(none, buffer, 1), "file != NULL");
    ROW("zqfile", zq_file_read(file.get(), NULL, 1), "buffer != NULL");
    ROW("zqfile", zq_file_write(none, buffer, 1), "file != NULL");
    ROW("zqfile", zq_file_write(file.get(), NULL, 1), "buffer != NULL");
    ROW("zqfile", zq_file_seek(none, 0, SEEK_SET), "file != NULL");
    ROW("zqfile", zq_file_seek(file.get(), 0, 77), WHENCE);
    ROW("zqfile", zq_file_seek64(none, 0, SEEK_SET), "file != NULL");
    ROW("zqfile", zq_file_seek64(file.get(), 0, 77), WHENCE);
    ROW("zqfile", zq_file_seek_forwards_64(none, 0), "file != NULL");
    ROW("zqfile", zq_file_seek_backwards_64(none, 0), "file != NULL");
    ROW("zqfile", zq_file_close(none), "file != NULL");
    ROW("zqfile", zq_file_exists(NULL), "filename != NULL");
    ROW("zqfile", zq_file_data_save(NULL, "", 0), "filename != NULL");
    ROW("zqfile", zq_file_data_save("/", NULL, 1), "data != NULL || datalen == 0");
    ROW("zqfile", zq_file_data_load(NULL, &data, NULL), "filename != NULL");
    ROW("zqfile", zq_file_data_load("/", NULL, NULL), "dataptr != NULL");
    ROW("zqfile", zq_file_data_save_with_backup(NULL, "", 0), "filename != NULL");
    ROW("zqfile", zq_file_data_save_with_backup("/", NULL, 1), "data != NULL || datalen == 0");
    ROW("zqfile", zq_file_data_load_with_backup(NULL, &data, NULL), "filename != NULL");
    ROW("zqfile", zq_file_data_load_with_backup("/", NULL, NULL), "dataptr != NULL");
    ROW("zqutf8file", zq_utf8file_create_binary(NULL), "filename != NULL");
    ROW("zqutf8file", zq_utf8file_open_binary(NULL), "filename != NULL");
    ROW("zqutf8file", zq_utf8file_create_ascii(NULL), "filename != NULL");
    ROW("zqutf8file", zq_utf8file_append_ascii(NULL), "filename != NULL");
    ROW("zqutf8file", zq_utf8file_exists(NULL), "filename != NULL");
    ROW("zqutf8file", zq_utf8file_data_save("/", NULL, 1), "data != NULL || datalen == 0");
    ROW("zqutf8file", zq_utf8file_data_load("/", NULL, NULL), "dataptr != NULL");
    ROW("zqutf8file", zq_utf8file_data_save_with_backup("/", NULL, 1),
        "data != NULL || datalen == 0");
    ROW("zqutf8file", zq_utf8file_data_load_with_backup(NULL, &data, NULL), "filename != NULL");
    ROW("zqdeletefile", zq_deletefile(NULL), "filename != NULL");
    ROW("zqdeletefile", zq_utf8deletefile(NULL), "filename != NULL");
    ROW("zqdeletefile", zq_wdeletefile(NULL), "wfilename != NULL");
    ROW("zqrename", zq_rename(NULL, ""), "oldpath != NULL");
    ROW("zqrename", zq_utf8rename("", NULL), "newpath != NULL");
    ROW("zqtruncate", zq_truncate(NULL, 0), "filename != NULL");
}
