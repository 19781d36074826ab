#include "zq/util/zqurlencode.h"

#include <gtest/gtest.h>
#include <string>

#include "tests/support/expect.h"
#include "tests/support/log_capture.h"

using Context = Owned<zqurlencode, zq_urlencode_destroy>;

static Context create(const std::string &skipchars = "")
{
    LogCapture log;
    Context context(zq_urlencode_create());
    const LogLine line = {7, "not enough memory for URL encoding context"};
    if (!context)
        CHECK_PROMISE((log.take() == std::vector<LogLine>{line}));
    else
        zq_urlencode_skip(context.get(), skipchars.c_str());
    return context;
}

TEST(zqurlencode, strings)
{
    std::string all, all_encoded;
    for (int byte = 1; byte < 256; byte++) {
        char hex[4];
        snprintf(hex, sizeof(hex), "%%%02X", static_cast<unsigned int>(byte));
        bool alphanumeric = byte < 128 && isalnum(byte);
        bool passes = alphanumeric ||
                      std::string("-._~!'()*").find(static_cast<char>(byte)) != std::string::npos;
        all += static_cast<char>(byte);
        all_encoded += passes ? all.substr(all.size() - 1) : byte == ' ' ? "+" : hex;
    }
    const struct {
        std::string skipchars;
        std::string source;
        std::string encoded;
    } rows[] = {
        {"", "", ""},
        {"", "a b&c=d/\xc3\xa9", "a+b%26c%3Dd%2F%C3%A9"},
        {"", "Hello-World_1.0~!*'()", "Hello-World_1.0~!*'()"},
        {"", all, all_encoded},
        {"/ ", "a b/c+d", "a b/c%2Bd"},
        {"\xc3\xa9", "\xc3\xa9\xc3\xa8", "\xc3\xa9\xc3%A8"},
        {all, all, all},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.source);
        Context context = create(row.skipchars);
        ASSERT_TRUE(context);
        LogCapture log;
        char *encoded = nullptr;
        zqerror result = zq_urlencode_string(context.get(), &encoded, row.source.c_str());
        ZqString owner(encoded);
        if (!encoded) {
            const LogLine line = {7, row.source.empty()
                                         ? "not enough memory for an empty result string"
                                         : "not enough memory for encoded buffer (" +
                                               std::to_string(row.encoded.size() + 1) + " bytes)"};
            CHECK_PROMISE(result == ZQ_ERROR_NO_MEMORY);
            CHECK_PROMISE((log.take() == std::vector<LogLine>{line}));
        }
        EXPECT_EQ(result, ZQ_ERROR_NONE + 0u);
        EXPECT_STREQ(encoded, row.encoded.c_str());
        EXPECT_EQ(log.take(), std::vector<LogLine>{});
    }
}

TEST(zqurlencode, reset_removes_exemptions)
{
    Context context = create("/");
    ASSERT_TRUE(context);
    zq_urlencode_skip(context.get(), "&");
    char *encoded = nullptr;
    EXPECT_EQ(zq_urlencode_string(context.get(), &encoded, "/&="), ZQ_ERROR_NONE + 0u);
    EXPECT_STREQ(encoded, "/&%3D");
    zq_free(encoded);
    zq_urlencode_reset(context.get());
    EXPECT_EQ(zq_urlencode_string(context.get(), &encoded, "/&="), ZQ_ERROR_NONE + 0u);
    EXPECT_STREQ(encoded, "%2F%26%3D");
    zq_free(encoded);
}

// "#" marks bytes that must not be touched.
TEST(zqurlencode, buffers)
{
    const struct {
        std::string source;
        size_t capacity;
        zqerror result;
        size_t length;
        std::string buffer;
    } rows[] = {
        {"ab c", 0, ZQ_ERROR_OUT_OF_RANGE, 4, "######"},
        {"ab c", 3, ZQ_ERROR_OUT_OF_RANGE, 4, "ab+###"},
        {"ab c", 4, ZQ_ERROR_NONE, 4, "ab+c##"}, // complete without a terminator
        {"ab c", 5, ZQ_ERROR_NONE, 4, std::string("ab+c\0#", 6)},
        {"ab c", 6, ZQ_ERROR_NONE, 4, std::string("ab+c\0#", 6)},
        {"", 0, ZQ_ERROR_NONE, 0, "######"},
        {"", 1, ZQ_ERROR_NONE, 0, std::string("\0#####", 6)},
        {"a&", 3, ZQ_ERROR_OUT_OF_RANGE, 4, "a%2###"},
        {std::string("\0\xff", 2), 6, ZQ_ERROR_NONE, 6, "%00%FF"},
    };
    Context context = create();
    ASSERT_TRUE(context);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.source + " " + std::to_string(row.capacity));
        std::string buffer(6, '#');
        size_t length = row.capacity;
        EXPECT_EQ(zq_urlencode_buffer(context.get(), buffer.data(), &length, row.source.data(),
                                      row.source.size()),
                  row.result);
        EXPECT_EQ(length, row.length);
        EXPECT_EQ(buffer, row.buffer);
    }
    size_t length = 0;
    EXPECT_EQ(zq_urlencode_buffer(context.get(), nullptr, &length, "%", 1),
              ZQ_ERROR_OUT_OF_RANGE + 0u);
    EXPECT_EQ(length, 3u);
}

TEST(zqurlencode, one_call)
{
    LogCapture log;
    for (const char *source : {"", "a&b"}) {
        ZqString encoded(zq_urlencode(source));
        auto lines = log.take();
        if (!encoded) {
            const LogLine context = {7, "unable to create URL encoding context"};
            const LogLine string = {7, "unable to urlencode string '" + std::string(source) +
                                           "', error 12 (not enough memory)"};
            CHECK_PROMISE(lines.size() == 2);
            CHECK_PROMISE(lines[1] == context || lines[1] == string);
            continue;
        }
        EXPECT_STREQ(encoded.get(), *source ? "a%26b" : "");
        EXPECT_EQ(lines, std::vector<LogLine>{});
    }
}

TEST(zqurlencode, misuse_stops_the_process)
{
    Context owner = create();
    zqurlencode *context = owner.get();
    ASSERT_TRUE(context);
    size_t length = 1;
    char *string;
    const char *source = "util/zqurlencode";
    const char *object = "zqurlencode != NULL";
    EXPECT_MISUSE(zq_urlencode_destroy(nullptr), source, "zq_urlencode_destroy", object);
    EXPECT_MISUSE(zq_urlencode_reset(nullptr), source, "zq_urlencode_reset", object);
    EXPECT_MISUSE(zq_urlencode_skip(nullptr, ""), source, "zq_urlencode_skip", object);
    EXPECT_MISUSE(zq_urlencode_skip(context, nullptr), source, "zq_urlencode_skip",
                  "skipchars != NULL");
    const char *buffer = "zq_urlencode_buffer";
    EXPECT_MISUSE(zq_urlencode_buffer(nullptr, nullptr, &length, "", 0), source, buffer, object);
    EXPECT_MISUSE(zq_urlencode_buffer(context, nullptr, nullptr, "", 0), source, buffer,
                  "dstlenptr != NULL");
    EXPECT_MISUSE(zq_urlencode_buffer(context, nullptr, &length, "", 0), source, buffer,
                  "dst != NULL || *dstlenptr == 0");
    length = 0;
    EXPECT_MISUSE(zq_urlencode_buffer(context, nullptr, &length, nullptr, 0), source, buffer,
                  "src != NULL");
    EXPECT_MISUSE(zq_urlencode_string(nullptr, &string, ""), source, "zq_urlencode_string", object);
    EXPECT_MISUSE(zq_urlencode_string(context, nullptr, ""), source, "zq_urlencode_string",
                  "dstptr != NULL");
    EXPECT_MISUSE(zq_urlencode_string(context, &string, nullptr), source, "zq_urlencode_string",
                  "src != NULL");
    EXPECT_MISUSE(zq_urlencode(nullptr), source, "zq_urlencode", "src != NULL");
}
