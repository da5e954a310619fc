#include "Certificates/NSData+KeyfoldAdditions.h"
#include "Tests/Certificates/VectorFile.h"
#include "Tests/Support/Fixtures.h"
#include "Tests/Support/LibraryFunction.h"

#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/err.h>

#include <atomic>
#include <new>
#include <random>

namespace {

std::atomic<std::size_t> allocations{0};
/// Which stream from now on finds no memory; 0: none.
int failingStream = 0;

/// Whether this is the one; tells it as libcrypto does.
bool streamFails()
{
    if (failingStream == 0 || --failingStream > 0)
        return false;
    ERR_raise(ERR_LIB_BIO, ERR_R_MALLOC_FAILURE);
    return true;
}

} // namespace

// Not inlined: g++ would see malloc behind one operator and not free behind the other.
[[gnu::noinline]] void* operator new(std::size_t size)
{
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* const memory = std::malloc(size > 0 ? size : 1))
        return memory;
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }

[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

// In front of libcrypto's.
BIO* BIO_new(const BIO_METHOD* type)
{
    static const auto real = kf::test::libraryFunction(&BIO_new);
    return streamFails() ? nullptr : real(type);
}

BIO* BIO_new_mem_buf(const void* bytes, int length)
{
    static const auto real = kf::test::libraryFunction(&BIO_new_mem_buf);
    return streamFails() ? nullptr : real(bytes, length);
}

namespace kf::test {
namespace {

using namespace KeyfoldAdditions;
using namespace std::string_literals;

Ref<NSString> latin1(std::string_view text)
{
    return NSString::stringWithLatin1({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

Ref<NSData> dataOf(std::string_view text) { return NSData::dataWithBytes(text.data(), text.size()); }

std::string textOf(const Ref<NSData>& data) { return {reinterpret_cast<const char*>(data->bytes()), data->length()}; }

std::string decodedText(std::string_view base64) { return textOf(dataWithBase64EncodedString(latin1(base64))); }

std::string randomBytes(std::size_t length)
{
    std::mt19937 engine(static_cast<std::mt19937::result_type>(length));
    std::string bytes(length, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(engine());
    return bytes;
}

/// What the openssl program makes of the same bytes, in lines of 64.
std::string opensslBase64(const std::string& bytes)
{
    const auto file = std::filesystem::temp_directory_path() / ("keyfold-base64-" + std::to_string(::getpid()));
    writeFile(file, bytes);
    auto text = mustRun({"openssl", "base64", "-in", file.string()});
    std::filesystem::remove(file);
    return text;
}

TEST(Base64Decoding, GivesWhatTheFilterGives)
{
    const auto rows = readVectors("base64.txt", 2);
    ASSERT_GT(rows.size(), 10U);
    for (const auto& row : rows) {
        EXPECT_EQ(decodedText(row[0]), row[1]) << row[0];
        // The width of the string makes no difference.
        EXPECT_EQ(
            textOf(dataWithBase64EncodedString(NSString::stringWithCharacters(latin1(row[0])->characters()))), row[1]);
    }
}

TEST(Base64Decoding, DiscardsTheWindowInWhichAForeignCharacterStands)
{
    std::string text(4000, 'A');
    text[1024] = '*';
    EXPECT_EQ(decodedText(text), std::string(768, '\0'));
    text[1024] = 'A';
    text[1023] = '*';
    EXPECT_EQ(decodedText(text), "");
}

TEST(Base64Decoding, IgnoresWhiteSpaceAnywhere)
{
    const std::string bytes = randomBytes(1000);
    const std::string lines = opensslBase64(bytes);
    std::string line;
    for (const char c : lines)
        if (c != '\n')
            line += c;
    EXPECT_EQ(decodedText(lines), bytes);
    EXPECT_EQ(decodedText(line), bytes);
    std::string crlf;
    for (std::size_t i = 0; i < line.size(); i += 76)
        crlf += line.substr(i, 76) + "\r\n";
    EXPECT_EQ(decodedText(crlf), bytes);
    EXPECT_EQ(decodedText("  \t" + line + " \n\n"), bytes);
    std::string spread;
    for (const char c : line)
        spread += " "s + c + "\v\f\xA0";
    EXPECT_EQ(decodedText(spread), bytes);
    EXPECT_EQ(textOf(dataWithBase64EncodedString(NSString::stringWithCharacters(u"\u2003aGVs\u2028bG8\u3000=\u00A0"))),
        "hello");
    EXPECT_EQ(decodedText(" \r\n\t "), "");
}

TEST(Base64Decoding, StripsMoreWhiteSpaceThanOneMatchCanHold)
{
    EXPECT_EQ(decodedText("aGVs" + std::string(3'000'000, ' ') + "bG8="), "hello");
}

TEST(Base64Decoding, ForeignCharactersEndItQuietly)
{
    // The text is cut to as many bytes as it has characters; then characters
    // behind the last group of four are dropped.
    EXPECT_EQ(decodedText("\xC5GVsbG8="), "");
    EXPECT_EQ(textOf(dataWithBase64EncodedString(NSString::stringWithCharacters(u"aGVsbG8=\u20AC"))), "hello");
    EXPECT_EQ(textOf(dataWithBase64EncodedString(NSString::stringWithCharacters(u"aGVs\xD800"))), "");
    EXPECT_EQ(textOf(dataWithBase64EncodedString(NSString::stringWithCharacters(u"aGVs\U0001F600"))), "hel");
    EXPECT_EQ(textOf(dataWithBase64EncodedString(NSString::stringWithCharacters(u"aGVs\U0001F600bG"))), "");
    std::u16string late(1024, u'A');
    late += u'\u20AC';
    EXPECT_EQ(textOf(dataWithBase64EncodedString(NSString::stringWithCharacters(late))), std::string(768, '\0'));
}

TEST(Base64Decoding, HasNoLimitOfLength)
{
    const std::string bytes = randomBytes(1 << 20);
    const auto text = base64Encoding(dataOf(bytes));
    EXPECT_EQ(textOf(dataWithBase64EncodedString(text)), bytes);
}

TEST(Base64Decoding, GivesImmutableData)
{
    EXPECT_STREQ(dataWithBase64EncodedString(latin1("aGVs"))->className(), "NSData");
}

TEST(Base64Decoding, NilGivesDataThatNobodyFilled)
{
    const auto data = dataWithBase64EncodedString(nullptr);
    ASSERT_TRUE(data);
    EXPECT_EQ(data->length(), 0U);
    const auto receiver = dataOf("untouched");
    EXPECT_EQ(initWithBase64EncodedString(receiver, nullptr), receiver);
}

TEST(Base64Decoding, InitialisesWithTheDecodedBytes)
{
    EXPECT_EQ(textOf(initWithBase64EncodedString(NSData::data(), latin1("aGVsbG8="))), "hello");
}

TEST(Base64Decoding, LeavesOpensslsErrorQueueAsItWas)
{
    ERR_clear_error();
    ERR_raise(ERR_LIB_USER, 7);
    decodedText("aGVs*");
    EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), 7);
    EXPECT_EQ(ERR_get_error(), 0U);
}

TEST(Base64Encoding, WritesLinesOf64)
{
    EXPECT_EQ(toUTF8(base64Encoding(dataOf(""))), "");
    EXPECT_EQ(toUTF8(base64Encoding(dataOf("hel"))), "aGVs\n");
    EXPECT_EQ(toUTF8(base64Encoding(dataOf("hell"))), "aGVsbA==\n");
    EXPECT_EQ(toUTF8(base64Encoding(dataOf(std::string(48, '\0')))), std::string(64, 'A') + "\n");
    EXPECT_EQ(toUTF8(base64Encoding(dataOf(std::string(49, '\0')))), std::string(64, 'A') + "\nAA==\n");
}

TEST(Base64Encoding, AgreesWithTheOpensslProgramAndDecodesAgain)
{
    for (const std::size_t length : {1U, 2U, 3U, 47U, 48U, 49U, 511U, 512U, 513U, 767U, 768U, 769U, 5000U}) {
        const std::string bytes = randomBytes(length);
        const auto text = base64Encoding(dataOf(bytes));
        EXPECT_EQ(toUTF8(text), opensslBase64(bytes)) << length;
        EXPECT_EQ(textOf(dataWithBase64EncodedString(text)), bytes) << length;
    }
}

TEST(Base64Encoding, BelongsToTheCallerAlone)
{
    EXPECT_EQ(base64Encoding(dataOf("hel"))->retainCount(), 1U);
    EXPECT_FALSE(base64Encoding(nullptr));
}

TEST(Base64, GivesNothingWhereTheFilterFindsNoMemory)
{
    ERR_clear_error();
    for (const int nth : {1, 2}) {
        failingStream = nth;
        EXPECT_EQ(decodedText("aGVsbG8="), "");
        EXPECT_EQ(failingStream, 0);
        failingStream = nth;
        EXPECT_FALSE(base64Encoding(dataOf("hello")));
        EXPECT_EQ(failingStream, 0);
        EXPECT_EQ(ERR_get_error(), 0U);
    }
}

TEST(HexString, HasTwoLowerCaseDigitsForAByte)
{
    EXPECT_EQ(toUTF8(hexString(dataOf("\x00\xAB\xFF"s))), "00abff");
    EXPECT_EQ(toUTF8(hexString(dataOf("\x01\x23\x45\x67\x89\xAB\xCD\xEF"))), "0123456789abcdef");
    EXPECT_EQ(toUTF8(hexString(dataOf(""))), "");
    EXPECT_FALSE(hexString(dataOf("a"))->isMutable());
    EXPECT_FALSE(hexString(nullptr));
}

TEST(HexString, AllocatesNothingForAByte)
{
    const auto data = dataOf(std::string(1 << 20, 'x'));
    const std::size_t before = allocations.load();
    const auto text = hexString(data);
    EXPECT_LE(allocations.load() - before, 4U);
    EXPECT_EQ(text->length(), 1 << 21);
}

} // namespace
} // namespace kf::test
