// SHA-1 and SHA-256, each with every implementation that this machine can run.
#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <vector>

#include "tests/support/expect.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch.h"
#include "zq/crypto/zqsha1.h"
#include "zq/crypto/zqsha256.h"
#include "zq/internal/zqsha.h"

namespace {
using Bytes = std::string;
constexpr char VECTORS[] = "/usr/lib/python3/dist-packages/cryptography_vectors/hashes/";

#define FAMILY(Name, family, bytes, vector_files, what)                                            \
    struct Name {                                                                                  \
        using Context = zq##family;                                                                \
        static constexpr size_t size = bytes;                                                      \
        static constexpr const char *vectors = vector_files;                                       \
        static constexpr const char *no_memory = "not enough memory for " what " context";         \
        static constexpr auto create = zq_##family##_create;                                       \
        static constexpr auto destroy = zq_##family##_destroy;                                     \
        static constexpr auto init = zq_##family##_init;                                           \
        static constexpr auto update = zq_##family##_update;                                       \
        static constexpr auto finalize = zq_##family##_finalize;                                   \
        static constexpr auto digest = zq_##family##_digest;                                       \
        static constexpr auto portable = zq_##family##_compress_portable;                          \
        static constexpr auto hardware = zq_##family##_find_hardware;                              \
        static constexpr auto *in_use = &zq_##family##_compress;                                   \
    }
FAMILY(Sha1, sha1, 20, "SHA1/SHA1", "SHA-1");
FAMILY(Sha256, sha256, 32, "SHA2/SHA256", "SHA256");

Bytes from_hex(const std::string &hex)
{
    Bytes bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

// The bits of a message of that length as they end its last block.
Bytes length_field(uint64_t length)
{
    Bytes field;
    for (int shift = 56; shift >= 0; shift -= 8)
        field += static_cast<char>(length * 8 >> shift);
    return field;
}

// The next "name = value" of a file of test vectors; empty at its end.
std::string next_value(std::istream &in, const std::string &name)
{
    for (std::string line; std::getline(in, line);) {
        line.erase(line.find_last_not_of("\r") + 1);
        if (line.rfind(name + " = ", 0) == 0)
            return line.substr(name.size() + 3);
    }
    return "";
}

template <class T>
class sha : public testing::Test {
  protected:
    void SetUp() override
    {
        LogCapture log;
        context.reset(T::create());
        if (!context)
            CHECK_PROMISE((log.take() == std::vector<LogLine>{{7, T::no_memory}}));
        ASSERT_TRUE(context);
    }
    void TearDown() override { T::in_use->store(nullptr); }

    std::vector<sha_compress<typename T::Context>> implementations()
    {
        if (auto hardware = T::hardware())
            return {T::portable, hardware};
        return {T::portable};
    }

    Bytes raw()
    {
        Bytes bytes(T::size, 0);
        EXPECT_EQ(T::digest(context.get(), reinterpret_cast<unsigned char *>(bytes.data())), 0);
        return bytes;
    }

    // The digest of a message that is fed in pieces.
    Bytes digest(const Bytes &message, size_t piece = SIZE_MAX)
    {
        T::init(context.get());
        for (size_t at = 0; at < message.size(); at += std::min(piece, message.size() - at))
            T::update(context.get(), message.data() + at, std::min(piece, message.size() - at));
        T::finalize(context.get());
        return raw();
    }

    Owned<typename T::Context, T::destroy> context;
};

using Families = testing::Types<Sha1, Sha256>;
} // namespace

TYPED_TEST_SUITE(sha, Families);

TYPED_TEST(sha, a_machine_uses_its_instructions)
{
#if defined(__x86_64__) || defined(__aarch64__)
    const std::string processor = read_file("/proc/cpuinfo");
    EXPECT_EQ(TypeParam::hardware() != nullptr, processor.find(" sha_ni") != std::string::npos ||
                                                    processor.find(" sha2") != std::string::npos);
#endif
    this->digest("");
    EXPECT_EQ(TypeParam::in_use->load(), this->implementations().back());
}

TYPED_TEST(sha, published_digests)
{
    const struct {
        Bytes message;
        const char *sha1, *sha256;
    } rows[] = {
        {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709",
         "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d",
         "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {Bytes(55, 'a'), "c1c8bbdc22796e28c0e15163d20899b65621d65a",
         "9f4390f8d30c2dd92ec9f095b65e2b9ae9b0a925a5258e241c9f1e910f734318"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "84983e441c3bd26ebaae4aa1f95129e5e54670f1",
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {Bytes(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f",
         "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    };
    for (auto compress : this->implementations()) {
        TypeParam::in_use->store(compress);
        for (const auto &row : rows) {
            const char *expected = TypeParam::size == 20 ? row.sha1 : row.sha256;
            for (size_t piece : {size_t{1}, size_t{63}, size_t{65}, SIZE_MAX})
                EXPECT_EQ(this->digest(row.message, piece), from_hex(expected)) << piece;
        }
    }
}

TYPED_TEST(sha, nist_messages)
{
    for (const char *kind : {"ShortMsg.rsp", "LongMsg.rsp"}) {
        std::ifstream in(std::string(VECTORS) + TypeParam::vectors + kind);
        if (!in)
            GTEST_SKIP() << "python3-cryptography-vectors is not installed";
        size_t count = 0;
        for (std::string len; !(len = next_value(in, "Len")).empty(); count++) {
            Bytes message = from_hex(next_value(in, "Msg"));
            message.resize(std::stoul(len) / 8);
            std::string expected = next_value(in, "MD");
            for (auto compress : this->implementations()) {
                TypeParam::in_use->store(compress);
                EXPECT_EQ(this->digest(message, 97), from_hex(expected)) << len;
            }
        }
        EXPECT_GE(count, 64u) << kind;
    }
}

// The digest is the chaining value as it stands, before, at and after the end of a message.
TYPED_TEST(sha, digest_reads_the_chaining_value)
{
    const Bytes initial = from_hex(
        TypeParam::size == 20 ? "67452301efcdab8998badcfe10325476c3d2e1f0"
                              : "6a09e667bb67ae853c6ef372a54ff53a510e527f9b05688c1f83d9ab5be0cd19");
    EXPECT_EQ(this->raw(), initial);
    TypeParam::update(this->context.get(), "x", 1);
    TypeParam::update(this->context.get(), nullptr, 0);
    EXPECT_EQ(this->raw(), initial);
    Bytes digest = this->digest("x");
    EXPECT_EQ(this->raw(), digest);
    TypeParam::init(this->context.get());
    EXPECT_EQ(this->raw(), initial);
}

// What waits in the block after a finalize is what the padding left there: the message's own bytes,
// or, when the padding took two blocks, zeros and the length.
TYPED_TEST(sha, feeding_continues_after_finalize)
{
    for (size_t waiting : {0u, 1u, 55u, 56u, 63u}) {
        Bytes message(64 + waiting, 'm');
        Bytes more(64 - waiting, 'x');
        Bytes length = length_field(message.size());
        Bytes padding = Bytes(1, '\x80') + Bytes((waiting < 56 ? 55 : 119) - waiting, 0) + length;
        Bytes kept =
            waiting < 56 ? message.substr(64) : Bytes(56, 0) + length.substr(0, waiting - 56);
        this->digest(message);
        TypeParam::update(this->context.get(), more.data(), more.size());
        Bytes continued = this->raw();

        Bytes blocks = message + padding + kept + more;
        ASSERT_EQ(blocks.size() % 64, 0u);
        TypeParam::init(this->context.get());
        TypeParam::update(this->context.get(), blocks.data(), blocks.size());
        EXPECT_EQ(continued, this->raw()) << waiting;
    }
}

TYPED_TEST(sha, the_length_has_64_bits)
{
    for (uint64_t length : {uint64_t{1} << 29, uint64_t{0x123456789a} << 6, uint64_t{7} << 61}) {
        TypeParam::init(this->context.get());
        this->context->length = length;
        TypeParam::finalize(this->context.get());
        Bytes digest = this->raw();

        Bytes block = Bytes(1, '\x80') + Bytes(55, 0) + length_field(length);
        TypeParam::init(this->context.get());
        TypeParam::update(this->context.get(), block.data(), block.size());
        EXPECT_EQ(digest, this->raw()) << length;
    }
}

TEST(sha_misuse, stops_the_process)
{
    Owned<zqsha1, zq_sha1_destroy> sha1(zq_sha1_create());
    Owned<zqsha256, zq_sha256_destroy> sha256(zq_sha256_create());
    ASSERT_TRUE(sha1 && sha256);
    EXPECT_MISUSE(zq_sha1_update(nullptr, "", 0), "crypto/zqsha1", "zq_sha1_update",
                  "zqsha1 != NULL");
    EXPECT_MISUSE(zq_sha256_digest(sha256.get(), nullptr), "crypto/zqsha256", "zq_sha256_digest",
                  "digest != NULL");
    // The code that both share reports for the family it was called by.
    sha1->chunkuse = sha256->chunkuse = 64;
    EXPECT_MISUSE(zq_sha1_update(sha1.get(), "x", 1), "crypto/zqsha1", "zq_sha1_update",
                  "copycount > 0");
    EXPECT_MISUSE(zq_sha256_update(sha256.get(), "x", 1), "crypto/zqsha256", "zq_sha256_update",
                  "copycount > 0");
}
