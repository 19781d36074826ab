#include "zq/io/zqfile.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/expect.h"
#include "tests/support/faults.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch.h"
#include "zq/io/zqdeletefile.h"
#include "zq/io/zqrename.h"
#include "zq/io/zqtruncate.h"
#include "zq/io/zqutf8file.h"
#include "zq/util/zqlog.h"

// ---- the system calls of the library, in between ----

namespace {
// While it lives, counts the calls from 1 on, lets chosen ones fail and ends the process before a
// chosen one.
struct SystemCalls {
    explicit SystemCalls(std::vector<size_t> failing_ = {}, size_t last_ = 0)
        : failing(std::move(failing_)), last(last_)
    {
        current = this;
    }
    ~SystemCalls() { current = nullptr; }

    bool fails(const char *name, const std::string &detail)
    {
        seen.push_back(std::string(name).append(" ").append(detail, detail.rfind('/') + 1));
        if (seen.size() == last)
            _exit(0);
        bool chosen = std::find(failing.begin(), failing.end(), seen.size()) != failing.end();
        errno = chosen ? EIO : errno;
        return chosen;
    }

    std::vector<size_t> failing;
    size_t last;
    std::vector<std::string> seen;
    static inline SystemCalls *current;
};

// While it lives, seeks are noted instead of done; the one that is `failing` (from 1) fails.
struct SeekRecord {
    explicit SeekRecord(size_t failing_ = 0) : failing(failing_) { current = this; }
    ~SeekRecord() { current = nullptr; }
    size_t failing;
    std::vector<std::pair<long, int>> seen;
    static inline SeekRecord *current;
};
} // namespace

#define REAL(name) reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name))
#define FAILS(name, detail) (SystemCalls::current && SystemCalls::current->fails(name, detail))

extern "C" FILE *fopen(const char *name, const char *mode)
{
    if (FAILS("fopen", name + (std::string(" ") + mode)))
        return nullptr;
    return REAL(fopen)(name, mode);
}

extern "C" size_t fwrite(const void *data, size_t size, size_t count, FILE *file)
{
    return REAL(fwrite)(data, size, FAILS("fwrite", "") ? count / 2 : count, file);
}

extern "C" size_t fread(void *data, size_t size, size_t count, FILE *file)
{
    return REAL(fread)(data, size, FAILS("fread", "") ? count / 2 : count, file);
}

extern "C" int fclose(FILE *file)
{
    bool fails = FAILS("fclose", "");
    int result = REAL(fclose)(file);
    return fails ? EOF : result;
}

extern "C" int stat(const char *__restrict name, struct stat *__restrict status) noexcept
{
    return FAILS("stat", name) ? -1 : REAL(stat)(name, status);
}

extern "C" int unlink(const char *name) noexcept
{
    return FAILS("unlink", name) ? -1 : REAL(unlink)(name);
}

extern "C" int rename(const char *from, const char *to) noexcept
{
    return FAILS("rename", from) ? -1 : REAL(rename)(from, to);
}

extern "C" int fseek(FILE *file, long offset, int whence)
{
    SeekRecord *record = SeekRecord::current;
    if (!record)
        return REAL(fseek)(file, offset, whence);
    record->seen.emplace_back(offset, whence);
    return record->seen.size() == record->failing ? -1 : 0;
}

using Lines = std::vector<LogLine>;
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
        const char *mode;
        bool creates;
    } rows[] = {
        {zq_file_create_binary, "wb", true},     {zq_file_open_binary, "rb", false},
        {zq_file_update_binary, "rb+", false},   {zq_file_create_ascii, "w", true},
        {zq_file_open_ascii, "r", false},        {zq_file_append_ascii, "a", true},
        {zq_utf8file_create_binary, "wb", true}, {zq_utf8file_open_binary, "rb", false},
        {zq_utf8file_create_ascii, "w", true},   {zq_utf8file_append_ascii, "a", true},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.mode);
        Scratch scratch;
        SystemCalls calls;
        Stream missing(row.open(scratch.file("f").c_str()));
        EXPECT_EQ(missing != nullptr, row.creates);
        EXPECT_EQ(calls.seen[0], std::string("fopen f ") + row.mode);
        errno = 0;
        EXPECT_EQ(row.open(scratch.file("no/f").c_str()), nullptr);
        EXPECT_EQ(errno, ENOENT);
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
        EXPECT_EQ(zq_file_seek_forwards_64(file.get(), UINT64_MAX), 0);
        EXPECT_EQ(
            record.seen,
            (Steps{
                {LONG_MAX, SEEK_CUR}, {LONG_MAX, SEEK_CUR}, {LONG_MAX, SEEK_CUR}, {1, SEEK_CUR}}));
    }
    {
        SeekRecord record;
        EXPECT_EQ(zq_file_seek_backwards_64(file.get(), half), 0);
        EXPECT_EQ(zq_file_seek_backwards_64(file.get(), UINT64_MAX), 0);
        EXPECT_EQ(zq_file_seek64(file.get(), INT64_MIN, SEEK_CUR), 0);
        EXPECT_EQ(record.seen, (Steps{{-LONG_MAX, SEEK_CUR},
                                      {LONG_MIN, SEEK_CUR},
                                      {-LONG_MAX, SEEK_CUR},
                                      {LONG_MIN, SEEK_CUR}}));
    }
    SeekRecord record(2);
    EXPECT_EQ(zq_file_seek_forwards_64(file.get(), UINT64_MAX), -1);
    EXPECT_EQ(record.seen.size(), 2u);
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

TEST(zqfile, tells_whether_a_file_exists)
{
    Scratch scratch;
    std::string name = scratch.write("f", "");
    std::filesystem::create_symlink("nowhere", scratch.file("dangling"));
    for (auto exists : {zq_file_exists, zq_utf8file_exists}) {
        EXPECT_EQ(exists(name.c_str()), 1);
        EXPECT_EQ(exists(scratch.path().c_str()), 1);
        EXPECT_EQ(exists(scratch.file("g").c_str()), 0);
        EXPECT_EQ(exists(scratch.file("dangling").c_str()), 0);
        EXPECT_EQ(exists((name + "/below").c_str()), -1);
        EXPECT_EQ(exists(std::string(5000, 'x').c_str()), -1);
    }
}

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

    for (auto remove : {zq_deletefile, zq_utf8deletefile}) {
        errno = 0;
        EXPECT_EQ(remove(a.c_str()), -1);
        EXPECT_EQ(errno, ENOENT);
    }
    for (auto move : {zq_rename, zq_utf8rename}) {
        errno = 0;
        EXPECT_EQ(move(a.c_str(), b.c_str()), -1);
        EXPECT_EQ(errno, ENOENT);
    }
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

TEST(zqfile, saves_and_loads_whole_files)
{
    const struct {
        int (*save)(const char *, const void *, size_t);
        int (*load)(const char *, char **, size_t *);
    } sets[] = {
        {zq_file_data_save, zq_file_data_load},
        {zq_utf8file_data_save, zq_utf8file_data_load},
        {zq_file_data_save_with_backup, zq_file_data_load_with_backup},
        {zq_utf8file_data_save_with_backup, zq_utf8file_data_load_with_backup},
    };
    Scratch scratch;
    std::string name = scratch.file("f");
    for (const auto &set : sets) {
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
        for (const char *missing : {"none", "none/none", "."}) {
            char *loaded = const_cast<char *>("");
            size_t len = 77;
            EXPECT_EQ(set.load(scratch.file(missing).c_str(), &loaded, &len), -1) << missing;
            EXPECT_EQ(loaded, nullptr);
            EXPECT_EQ(len, 0u);
        }
        EXPECT_EQ(set.save(scratch.file("none/f").c_str(), "x", 1), -1);
    }
}

TEST(zqfile, looks_at_what_is_read_and_written_but_not_at_closing)
{
    Scratch scratch;
    std::string name = scratch.file("f");
    SystemCalls none;
    for (size_t failing : {1u, 2u, 3u}) {
        SystemCalls calls({failing});
        EXPECT_EQ(zq_file_data_save(name.c_str(), "abcd", 4), failing == 3 ? 0 : -1);
    }
    for (size_t failing : {1u, 2u, 3u}) {
        SystemCalls calls({failing});
        char *loaded;
        size_t len;
        int result = zq_file_data_load(name.c_str(), &loaded, &len);
        ZqString owner(loaded);
        EXPECT_EQ(result, failing == 3 ? 0 : -1);
        EXPECT_EQ(len, failing == 3 ? 4u : 0u);
        EXPECT_EQ(loaded == nullptr, result != 0);
    }
    EXPECT_EQ(zq_file_data_save("/dev/full", "abcd", 4), 0); // lost on closing
    std::string large(1'000'000, 'x');
    EXPECT_EQ(zq_file_data_save("/dev/full", large.data(), large.size()), -1);
}

// ---- saving with a backup ----

namespace {
struct BackupSet {
    int (*save)(const char *, const void *, size_t);
    int (*load)(const char *, char **, size_t *);
    const char *source;
};
const BackupSet native = {zq_file_data_save_with_backup, zq_file_data_load_with_backup,
                          "io/zqfile"};
const BackupSet utf8 = {zq_utf8file_data_save_with_backup, zq_utf8file_data_load_with_backup,
                        "io/zqutf8file"};

// A target and its backup, or what is left of them.
struct Saved {
    Scratch scratch;
    std::string name = scratch.write("f", "previous");
    std::string backup = scratch.write("f.bak", "older");

    std::string loaded(const BackupSet &set) const
    {
        char *data;
        size_t len;
        set.load(name.c_str(), &data, &len);
        ZqString owner(data);
        return data ? std::string(data, len) : "(none)";
    }
    std::string not_placed() const
    {
        return std::string("unable to rename '").append(name) + ".tmp' as '" + name + "'";
    }
    std::string all() const
    {
        return content(name) + ", " + content(backup) + ", " + content(name + ".tmp");
    }
};
} // namespace

TEST(zqfile, backs_up_the_previous_content)
{
    for (const BackupSet &set : {native, utf8}) {
        Saved files;
        std::filesystem::remove(files.name);
        std::filesystem::remove(files.backup);
        for (const char *all : {"1, (none), (none)", "2, 1, (none)", "3, 2, (none)"}) {
            LogCapture log;
            SystemCalls calls;
            EXPECT_EQ(set.save(files.name.c_str(), all, 1), 0);
            EXPECT_EQ(files.all(), all);
            EXPECT_EQ(log.take(), Lines{});
        }
        SystemCalls calls;
        set.save(files.name.c_str(), "4", 1);
        EXPECT_EQ(calls.seen,
                  (std::vector<std::string>{"fopen f.tmp wbe", "fwrite ", "fclose ", "stat f",
                                            "unlink f.bak", "rename f", "rename f.tmp"}));
        std::filesystem::remove(files.name);
        EXPECT_EQ(files.loaded(set), "3");
    }
}

// Every call of a save fails in turn; see the order above. Call 8 is the deletion of the temporary
// file after a failure.
TEST(zqfile, survives_the_failure_of_any_step)
{
    const std::string not_backup = "unable to rename the previous file as the backup file";
    const std::string not_placed = "unable to rename";
    const std::string not_deleted = "unable to delete the temporary file";
    const struct {
        std::vector<size_t> failing;
        int result;
        int utf8_result;
        const char *all; // target, backup, temporary
        const char *loaded;
        std::vector<std::string> lines;
    } rows[] = {
        {{1}, -1, -1, "previous, older, (none)", "previous", {not_deleted}},
        {{2}, -1, -1, "previous, older, (none)", "previous", {}},
        {{2, 4}, -1, -1, "previous, older, ne", "previous", {not_deleted}},
        {{3}, 0, 0, "new!, previous, (none)", "new!", {}},
        {{4}, 0, 0, "new!, older, (none)", "new!", {}}, // cannot tell: no backup is made
        {{5}, 0, 0, "new!, previous, (none)", "new!", {}},
        // The utf8 set reports success although the new content is lost.
        {{6}, -1, 0, "previous, (none), (none)", "previous", {not_backup}},
        {{6, 7}, -1, 0, "previous, (none), new!", "previous", {not_backup, not_deleted}},
        {{7}, -1, -1, "(none), previous, (none)", "previous", {not_placed}},
        {{7, 8}, -1, -1, "(none), previous, new!", "previous", {not_placed, not_deleted}},
    };
    if (faults_injected()) // which saves its state through the same calls
        return;
    for (const BackupSet &set : {native, utf8}) {
        for (const auto &row : rows) {
            SCOPED_TRACE(testing::Message()
                         << set.source << " " << testing::PrintToString(row.failing));
            Saved files;
            LogCapture log;
            {
                SystemCalls calls(row.failing);
                EXPECT_EQ(set.save(files.name.c_str(), "new!", 4),
                          set.source == utf8.source ? row.utf8_result : row.result);
            }
            EXPECT_EQ(files.all(), row.all);
            EXPECT_EQ(files.loaded(set), row.loaded);
            Lines expected;
            for (const std::string &line : row.lines)
                expected.push_back({7, line == not_placed ? files.not_placed() : line});
            EXPECT_EQ(log.take(), expected);
        }
    }
}

TEST(zqfile, logs_in_the_name_of_the_function_called)
{
    for (const BackupSet &set : {native, utf8}) {
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

// The process ends before the n-th call: the previous or the new content is found, never nothing.
TEST(zqfile, survives_the_end_of_the_process_at_any_step)
{
    if (faults_injected())
        return;
    for (const BackupSet &set : {native, utf8}) {
        for (size_t last = 1; last <= 8; last++) {
            Saved files;
            pid_t child = fork();
            if (child == 0) {
                SystemCalls calls({}, last);
                _exit(set.save(files.name.c_str(), "new!", 4) == 0 ? 0 : 1);
            }
            int status = -1;
            EXPECT_EQ(waitpid(child, &status, 0), child);
            EXPECT_EQ(status, 0);
            EXPECT_EQ(files.loaded(set), last == 8 ? "new!" : "previous") << "before call " << last;
            // What is left over is no hindrance for the next one.
            EXPECT_EQ(set.save(files.name.c_str(), "next", 4), 0);
            EXPECT_EQ(files.loaded(set), "next");
        }
    }
}

TEST(zqfile, falls_back_only_when_the_file_cannot_be_opened)
{
    for (const BackupSet &set : {native, utf8}) {
        Saved files;
        {
            SystemCalls calls({2}); // opened, but not read to the end
            EXPECT_EQ(files.loaded(set), "(none)");
        }
        std::filesystem::remove(files.name);
        EXPECT_EQ(files.loaded(set), "older");
        std::filesystem::remove(files.backup);
        EXPECT_EQ(files.loaded(set), "(none)");
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
    for (const BackupSet &set : {native, utf8}) {
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
