#include "zq/util/zqurlencode.h"

#include "tests/support/expect.h"
#include "tests/support/log_capture.h"

using Context = Owned<zqurlencode, zq_urlencode_destroy>;

TEST(zqurlencode, lack_of_memory_and_of_room)
{
    LogCapture log;
    Context context(zq_urlencode_create());
    std::string said = joined(log.take());
    CHECK_PROMISE(context || said == "[7] not enough memory for URL encoding context");
    ASSERT_TRUE(context);
    for (auto [source, line] : {std::pair("", "[7] not enough memory for an empty result string"),
                                {"a&", "[7] not enough memory for encoded buffer (5 bytes)"}}) {
        char *encoded = nullptr;
        zqerror result = zq_urlencode_string(context.get(), &encoded, source);
        ZqString owner(encoded);
        said = joined(log.take());
        CHECK_PROMISE(encoded ? said.empty() : result == ZQ_ERROR_NO_MEMORY && said == line);

        owner.reset(zq_urlencode(source));
        said = joined(log.take());
        const std::string failed = std::string("[7] unable to urlencode string '") + source;
        CHECK_PROMISE(owner ? said.empty()
                            : said.ends_with("[7] unable to create URL encoding context") ||
                                  said.ends_with(failed + "', error 12 (not enough memory)"));
    }
    char buffer[] = "####";
    size_t length = 3;
    EXPECT_EQ(zq_urlencode_buffer(context.get(), buffer, &length, "a&", 2), 34u);
    EXPECT_EQ(length, 4u);
    EXPECT_STREQ(buffer, "a%2#");
}

TEST(zqurlencode, misuse)
{
    Context context(zq_urlencode_create());
    ASSERT_TRUE(context);
    size_t length = 1;
#define MISUSE(call, function, text) EXPECT_MISUSE(call, "util/zqurlencode", function, text)
    MISUSE(zq_urlencode_reset(nullptr), "zq_urlencode_reset", "zqurlencode != NULL");
    MISUSE(zq_urlencode_skip(context.get(), nullptr), "zq_urlencode_skip", "skipchars != NULL");
    MISUSE(zq_urlencode_buffer(context.get(), nullptr, &length, "", 0), "zq_urlencode_buffer",
           "dst != NULL || *dstlenptr == 0");
    MISUSE(zq_urlencode(nullptr), "zq_urlencode", "src != NULL");
}
