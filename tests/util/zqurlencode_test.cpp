#include "zq/util/zqurlencode.h"

#include "tests/support/expect.h"
#include "tests/support/log_capture.h"

using Context = Owned<zqurlencode, zq_urlencode_destroy>;

TEST(zqurlencode, strings)
{
    std::string all, all_encoded;
    for (int byte = 1; byte < 256; byte++) {
        char hex[4];
        snprintf(hex, sizeof(hex), "%%%02X", static_cast<unsigned int>(byte));
        all += static_cast<char>(byte);
        bool passes = (byte < 128 && isalnum(byte)) || strchr("-._~!'()*", byte);
        all_encoded += passes ? all.substr(all.size() - 1) : byte == ' ' ? "+" : hex;
    }
    const struct {
        std::string skipchars, source, encoded;
    } rows[] = {
        {"", "", ""},           {"", "a b&c=d/\xc3\xa9", "a+b%26c%3Dd%2F%C3%A9"},
        {"", all, all_encoded}, {"/ ", "a b/c+d", "a b/c%2Bd"},
        {all, all, all},
    };
    LogCapture log;
    Context context(zq_urlencode_create());
    std::string said = testing::PrintToString(log.take());
    CHECK_PROMISE(context || said == "{ [7] not enough memory for URL encoding context }");
    ASSERT_TRUE(context);
    for (const auto &row : rows) {
        zq_urlencode_reset(context.get());
        zq_urlencode_skip(context.get(), row.skipchars.substr(0, 1).c_str());
        zq_urlencode_skip(context.get(), row.skipchars.c_str());
        char *encoded = nullptr;
        zqerror result = zq_urlencode_string(context.get(), &encoded, row.source.c_str());
        ZqString owner(encoded);
        said = testing::PrintToString(log.take());
        const std::string size = std::to_string(row.encoded.size() + 1);
        if (!encoded) {
            CHECK_PROMISE(result == ZQ_ERROR_NO_MEMORY);
            CHECK_PROMISE(said == (row.source.empty()
                                       ? "{ [7] not enough memory for an empty result string }"
                                       : "{ [7] not enough memory for encoded buffer (" + size +
                                             " bytes) }"));
        }
        EXPECT_EQ(result, ZQ_ERROR_NONE + 0u);
        EXPECT_STREQ(encoded, row.encoded.c_str());
        EXPECT_EQ(said, "{}");

        encoded = zq_urlencode(row.source.c_str());
        owner.reset(encoded);
        said = testing::PrintToString(log.take());
        if (!encoded)
            CHECK_PROMISE(said.ends_with("[7] unable to create URL encoding context }") ||
                          said.ends_with("[7] unable to urlencode string '" + row.source +
                                         "', error 12 (not enough memory) }"));
        EXPECT_TRUE(!encoded || !row.skipchars.empty() || encoded == row.encoded) << encoded;
    }
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
        {"ab c", 3, ZQ_ERROR_OUT_OF_RANGE, 4, "ab+###"},
        {"ab c", 4, ZQ_ERROR_NONE, 4, "ab+c##"}, // complete without a terminator
        {"ab c", 5, ZQ_ERROR_NONE, 4, {"ab+c\0#", 6}},
        {"", 0, ZQ_ERROR_NONE, 0, "######"},
        {"", 1, ZQ_ERROR_NONE, 0, {"\0#####", 6}},
        {"a&", 3, ZQ_ERROR_OUT_OF_RANGE, 4, "a%2###"},
        {{"\0\xff", 2}, 6, ZQ_ERROR_NONE, 6, "%00%FF"},
    };
    Context context(zq_urlencode_create());
    ASSERT_TRUE(context);
    size_t length = 0;
    EXPECT_EQ(zq_urlencode_buffer(context.get(), nullptr, &length, "%", 1), 34u);
    EXPECT_EQ(length, 3u);
    for (const auto &row : rows) {
        std::string buffer(6, '#');
        length = row.capacity;
        EXPECT_EQ(zq_urlencode_buffer(context.get(), buffer.data(), &length, row.source.data(),
                                      row.source.size()),
                  row.result);
        EXPECT_EQ(length, row.length);
        EXPECT_EQ(buffer, row.buffer);
    }

    length = 1;
#define MISUSE(call, function, text) EXPECT_MISUSE(call, "util/zqurlencode", function, text)
    MISUSE(zq_urlencode_reset(nullptr), "zq_urlencode_reset", "zqurlencode != NULL");
    MISUSE(zq_urlencode_skip(context.get(), nullptr), "zq_urlencode_skip", "skipchars != NULL");
    MISUSE(zq_urlencode_buffer(context.get(), nullptr, &length, "", 0), "zq_urlencode_buffer",
           "dst != NULL || *dstlenptr == 0");
    MISUSE(zq_urlencode(nullptr), "zq_urlencode", "src != NULL");
}
