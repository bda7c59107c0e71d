// Data: UTF-8 and wide strings.

#include "Quorvil/QuorvilMystring.h"
#include "tests/support/environment.h"
#include "tests/support/interpose.h"
#include "tests/support/plainConversion.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <locale>
#include <random>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

SUPPORT_INTERPOSE(size_t, mbrtowc, (wchar_t * wide, const char* bytes, size_t limit, mbstate_t* state),
                  (wide, bytes, limit, state), noexcept)

namespace {

using support::CerrCapture;
using support::libraryToWide;
using support::plainToBytes;
using support::plainToWide;
using tolmen::mystring;
using tolmen::mywstring;

static_assert(std::is_empty_v<tolmen::Utf8Exception> && !std::is_polymorphic_v<tolmen::Utf8Exception>);
static_assert(std::has_virtual_destructor_v<mystring> && std::has_virtual_destructor_v<mywstring>);

using Counts = std::array<int, 8>;

constexpr std::array<int*, 8> counters = {
    &mystring::countDefaultConstr, &mystring::countCharConstr, &mystring::countCopyConstr,  &mystring::countCopyCast,
    &mystring::countMoveConstr,    &mystring::countMoveCast,   &mystring::countConstAssign, &mystring::countMoveAssign};

Counts counts()
{
    Counts values;
    std::transform(counters.begin(), counters.end(), values.begin(), [](const int* counter) { return *counter; });
    return values;
}

/// What `operation` adds to the counters.
template <typename Operation>
Counts counted(Operation operation)
{
    const Counts before = counts();
    operation();
    Counts added = counts();
    for (size_t i = 0; i < added.size(); ++i)
        added[i] -= before[i];
    return added;
}

constexpr Counts none{};
constexpr Counts oneChar{0, 1, 0, 0, 0, 0, 0, 0};

// ---- mystring

TEST(Mystring, EachOperationGivesItsTextAndCountsItself)
{
    // Longer than the small string, so that a move that copies leaves something behind.
    const std::string standard = "a text that does not fit into the small string";
    const mystring text(standard);
    const mywstring wide(std::wstring(standard.begin(), standard.end()));
    const char* const bytes = standard.c_str();
    std::string standardSource = standard;
    mystring source(standard);
    mystring result;
    struct Row
    {
        const char* operation;
        std::function<mystring()> act;
        Counts added;
    };
    const Row rows[] = {
        {"NUL-terminated", [&] { return mystring(bytes, true); }, oneChar},
        {"pointers", [&] { return mystring(bytes, bytes + standard.size()); }, none},
        {"iterators", [&] { return mystring(standard.begin(), standard.end()); }, none},
        {"std::string copied", [&] { return mystring(standard); }, {0, 0, 0, 1, 0, 0, 0, 0}},
        {"mystring copied", [&] { return mystring(text); }, {0, 0, 1, 0, 0, 0, 0, 0}},
        {"std::string moved", [&] { return mystring(std::move(standardSource)); }, {0, 0, 0, 0, 0, 1, 0, 0}},
        {"mystring moved", [&] { return mystring(std::move(source)); }, {0, 0, 0, 0, 1, 0, 0, 0}},
        {"mywstring", [&] { return mystring(wide); }, none},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.operation);
        EXPECT_EQ(counted([&] { EXPECT_EQ(row.act(), standard); }), row.added);
    }
    EXPECT_TRUE(standardSource.empty());
    EXPECT_TRUE(source.empty());
    EXPECT_EQ(counted([] { EXPECT_TRUE(mystring().empty()); }), (Counts{1, 0, 0, 0, 0, 0, 0, 0}));

    EXPECT_EQ(counted([&] { EXPECT_EQ(&(result = text), &result); }), (Counts{0, 0, 0, 0, 0, 0, 1, 0}));
    EXPECT_EQ(result, standard);
    EXPECT_EQ(counted([&] { EXPECT_EQ(&(source = std::move(result)), &source); }), (Counts{0, 0, 0, 0, 0, 0, 0, 1}));
    EXPECT_EQ(source, standard);
    EXPECT_TRUE(result.empty());
    EXPECT_EQ(counted([&] { EXPECT_EQ(&(result = wide), &result); }), none);
    EXPECT_EQ(result, standard);
}

TEST(Mystring, NullIsRefusedWhereATextIsExpected)
{
    const char* const null = nullptr;
    const std::function<void()> refused[] = {
        [&] { mystring text(null, false); },
        [&] { mystring text(null, "x"); },
        [&] { mywstring text(static_cast<const wchar_t*>(nullptr)); },
    };
    for (const auto& construct : refused) {
        try {
            construct();
            ADD_FAILURE() << "null was taken";
        } catch (const std::logic_error& error) {
            EXPECT_STREQ(error.what(), "basic_string::_M_construct null not valid");
        }
    }
    EXPECT_EQ(mystring(null, null), "");
}

TEST(Mystring, PlusOnAnRvalueAppendsInPlace)
{
    mystring a("left ", false);
    mystring b("right", false);
    EXPECT_EQ(counted([&] {
                  mystring&& sum = std::move(a) + std::move(b);
                  EXPECT_EQ(&sum, &a);
              }),
              none);
    EXPECT_EQ(a, "left right");
    EXPECT_EQ(b, "right");
    std::move(a) + std::move(a);
    EXPECT_EQ(a, "left rightleft right");
}

TEST(Mystring, TrimTakesTheNamedBytesFromBothEndsOnly)
{
    // All texts of up to six bytes over a blank, a letter and the two bytes of one umlaut.
    constexpr char alphabet[] = {' ', 'x', '\xC3', '\xA4'};
    for (const char* const wsBytes : {"", " ", "  ", "x ", "\xC3\xA4", "\xA4"}) {
        for (size_t length = 0; length <= 6; ++length) {
            std::string text(length, '?');
            for (size_t number = 0; number < size_t{1} << (2 * length); ++number) {
                for (size_t place = 0; place < length; ++place)
                    text[place] = alphabet[number >> (2 * place) & 3];
                const size_t first = text.find_first_not_of(wsBytes);
                const size_t last = text.find_last_not_of(wsBytes);
                const std::string kept = first == std::string::npos ? "" : text.substr(first, last - first + 1);
                mystring trimmed("?", false);
                const Counts added = counted([&] { EXPECT_EQ(mystring::trim(text.c_str(), wsBytes), kept); });
                ASSERT_EQ(added, kept.empty() ? oneChar : none) << "\"" << text << "\" without \"" << wsBytes << "\"";
            }
        }
    }
}

TEST(Mystring, CountersAreDumpedAsOneFlushedBlock)
{
    struct CountingBuffer : std::stringbuf
    {
        int sync() override
        {
            ++flushes;
            return 0;
        }
        int flushes = 0;
    } buffer;
    struct Grouped : std::numpunct<char>
    {
        char do_thousands_sep() const override
        {
            return '.';
        }
        std::string do_grouping() const override
        {
            return "\3";
        }
    };
    int value = 1001;
    for (int* const counter : counters)
        *counter = value++;
    std::streambuf* const console = std::cerr.rdbuf(&buffer);
    const std::locale plain = std::cerr.imbue(std::locale(std::locale::classic(), new Grouped));
    std::cerr << std::nounitbuf;
    const Counts after = counted(&mystring::dumpCounts);
    std::cerr << std::unitbuf;
    std::cerr.imbue(plain);
    std::cerr.rdbuf(console);
    EXPECT_EQ(after, none);
    EXPECT_EQ(buffer.str(), "Counts of mystring:\n"
                            "countDefaultConstr=1001\n"
                            "countCharConstr=1002\n"
                            "countCopyConstr=1003\n"
                            "countCopyCast=1004\n"
                            "countMoveConstr=1005\n"
                            "countMoveCast=1006\n"
                            "countConstAssign=1007\n"
                            "countMoveAssign=1008\n");
    EXPECT_EQ(buffer.flushes, 1);
}

// ---- mywstring

TEST(Mywstring, StandsForAStandardWideString)
{
    const std::wstring standard = L"a text that does not fit into the small string";
    std::wstring standardSource = standard;
    mywstring text(standard);
    EXPECT_EQ(mywstring(standard.c_str()), standard);
    EXPECT_EQ(mywstring(text), standard);
    EXPECT_EQ(mywstring(std::move(standardSource)), standard);
    EXPECT_TRUE(standardSource.empty());
    mywstring moved(std::move(text));
    EXPECT_EQ(moved, standard);
    EXPECT_TRUE(text.empty());
    EXPECT_EQ(&(text = moved), &text);
    EXPECT_EQ(text, standard);
    EXPECT_EQ(&(text = mywstring()), &text);
    EXPECT_TRUE(text.empty());
}

TEST(Mywstring, EqualsIgnoreCaseWantsOneLength)
{
    struct Row
    {
        std::wstring left;
        std::wstring right;
        bool equal;
    };
    for (const Row& row : {Row{L"", L"", true}, Row{L"Drucker", L"dRUCKER", true}, Row{L"Drucker", L"Druckes", false},
                           Row{L"Druck", L"Drucker", false}, Row{L"Drucker", L"Druck", false},
                           Row{std::wstring(L"a\0b", 3), std::wstring(L"A\0c", 3), true}})
        EXPECT_EQ(mywstring(row.left).equalsIgnoreCase(mywstring(row.right)), row.equal)
            << mystring(mywstring(row.left));
}

// ---- conversion, in each locale

class Conversion : public testing::TestWithParam<const char*>
{
protected:
    void SetUp() override
    {
        setenv("LOCPATH", QUORVIL_TEST_LOCALES, 1);
        if (!std::setlocale(LC_CTYPE, GetParam()))
            GTEST_SKIP() << "the locale " << GetParam() << " is not there: " QUORVIL_TEST_LOCALES " was not made";
        utf8 = std::strcmp(GetParam(), "C") != 0;
    }

    void TearDown() override
    {
        std::setlocale(LC_ALL, "C");
    }

    void expectPlain(const std::string& bytes)
    {
        const support::Converted expected = plainToWide(bytes);
        ASSERT_EQ(libraryToWide(bytes, cerr), expected) << testing::PrintToString(bytes) << " " << expected.report;
    }

    bool utf8 = false;
    CerrCapture cerr;
};

INSTANTIATE_TEST_SUITE_P(Locale, Conversion, testing::Values("C", "C.UTF-8", "de_DE.UTF-8"), [](const auto& parameter) {
    std::string name;
    for (const char* c = parameter.param; *c; ++c)
        name += std::isalnum(*c) ? std::string(1, *c) : "";
    return name;
});

/// Both ends of each range of bytes that UTF-8, in any of its ages, tells apart.
constexpr char edges[] = {'\0',   'a',    '\x7F', '\x80', '\x8F', '\x90', '\x9F', '\xA0', '\xBF', '\xC0',
                          '\xC1', '\xC2', '\xDF', '\xE0', '\xE1', '\xED', '\xEE', '\xEF', '\xF0', '\xF1',
                          '\xF4', '\xF5', '\xF7', '\xF8', '\xFB', '\xFC', '\xFD', '\xFE', '\xFF'};

TEST_P(Conversion, OfAllShortByteStringsEqualsThePlainLoop)
{
    ASSERT_NO_FATAL_FAILURE(expectPlain(""));
    for (const char a : edges) {
        ASSERT_NO_FATAL_FAILURE(expectPlain({a}));
        for (const char b : edges) {
            ASSERT_NO_FATAL_FAILURE(expectPlain({a, b}));
            for (const char c : edges)
                ASSERT_NO_FATAL_FAILURE(expectPlain({a, b, c}));
        }
    }
    // Of the longer ones, those that begin like a character of four bytes, alone and in front of eight letters.
    for (const char a : {'\xF0', '\xF1', '\xF3', '\xF4', '\xF5'})
        for (const char b : edges)
            for (const char c : {'a', '\x7F', '\x80', '\xBF', '\xC0'})
                for (const char d : {'a', '\x7F', '\x80', '\xBF', '\xC0'}) {
                    ASSERT_NO_FATAL_FAILURE(expectPlain({a, b, c, d}));
                    ASSERT_NO_FATAL_FAILURE(expectPlain({a, b, c, d, 'l', 'e', 't', 't', 'e', 'r', 's', '.'}));
                }
}

/// Characters of each length, those that only old UTF-8 knows, and each kind of bad byte.
const char* const pieces[] = {"a", "eight ch", "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x96\xA8", "\xEF\xBF\xBF",
                              "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80", "\xFC\x84\x80\x80\x80\x80",
                              // from here on they end the conversion
                              "\x80", "\xC3", "\xE2\x82", "\xF0\x9F\x96", "\xED\xA0\x80", "\xC0\x80", "\xFF"};
constexpr size_t goodPieces = 9;

TEST_P(Conversion, EqualsThePlainLoopAtEveryPlaceOfALongText)
{
    // The ends of the batches that text goes through are where a character could come apart.
    for (const size_t start : {size_t{0}, size_t{503}, size_t{1015}})
        for (size_t before = start; before < start + 12; ++before)
            for (const char* const piece : pieces)
                for (const char* const behind : {"", "\xC3\xA4 and more"})
                    ASSERT_NO_FATAL_FAILURE(expectPlain(std::string(before, 'x') + piece + behind));
}

TEST_P(Conversion, EqualsThePlainLoopOnRandomTexts)
{
    std::minstd_rand random(20260711);
    for (int round = 0; round < 1000; ++round) {
        std::string text;
        for (size_t n = random() % 700; n > 0; --n)
            text += pieces[random() % goodPieces];
        if (random() % 2)
            text += pieces[random() % std::size(pieces)];
        ASSERT_NO_FATAL_FAILURE(expectPlain(text + std::string(random() % 20, 'e')));
    }
}

TEST_P(Conversion, OfEveryCharacterEqualsThePlainLoopBothWays)
{
    std::vector<std::uint32_t> starts = {0x1FFF80, 0x3FFFF80, 0x7FFFFF80, 0xFFFFFF00};
    constexpr std::uint32_t step = support::emulated ? 0x700 : 0x100;
    for (std::uint32_t start = 0; start < 0x110100; start += step)
        starts.push_back(start);
    for (const std::uint32_t start : starts) {
        mywstring block;
        for (std::uint32_t i = 0; i < 0x100; ++i)
            block += static_cast<wchar_t>(start + i);
        const Counts before = counts();
        mystring bytes("rest of before", false);
        bytes = block;
        EXPECT_EQ(counts()[1], before[1] + 1);
        ASSERT_EQ(bytes, plainToBytes(block)) << "from " << start;
        ASSERT_NO_FATAL_FAILURE(expectPlain(bytes));
        const bool surrogates = start >= 0xD800 && start < 0xE000;
        if (utf8 && start < 0x110000 && !surrogates) {
            ASSERT_EQ(mywstring(bytes), block) << "from " << start;
        }
    }
}

TEST_P(Conversion, OfWideTextDropsWhatTheLocaleCannotExpressAndNoOther)
{
    std::minstd_rand random(20260711);
    constexpr std::array<std::uint32_t, 12> characters = {0,      'a',    0x7F,     0x80,     0x7FF,      0x800,
                                                          0xD800, 0xFFFF, 0x10FFFF, 0x110000, 0x7FFFFFFF, 0x80000000};
    for (int round = 0; round < 1000; ++round) {
        mywstring wide;
        for (size_t n = random() % 100; n > 0; --n)
            wide.append(random() % 20, static_cast<wchar_t>(characters[random() % characters.size()]));
        ASSERT_EQ(mystring(wide), plainToBytes(wide));
    }
    EXPECT_EQ(cerr.take(), "");
    EXPECT_EQ(mystring(mywstring(L"Stra\x00DF"
                                 L"e \x20AC")),
              utf8 ? "Stra\xC3\x9F"
                     "e \xE2\x82\xAC"
                   : "Strae ");
}

TEST_P(Conversion, OfWellFormedUtf8DecodesWithoutACallACharacter)
{
    const mystring text("Auftr\xC3\xA4ge f\xC3\xBCr 12 \xE2\x82\xAC \xF0\x9F\x96\xA8", false);
    const int before = mbrtowcFault.calls;
    if (utf8) {
        EXPECT_EQ(mywstring(text).size(), 19U);
    } else {
        EXPECT_THROW(mywstring{text}, tolmen::Utf8Exception);
    }
    EXPECT_EQ(mbrtowcFault.calls - before, utf8 ? 0 : 6);
}

TEST_P(Conversion, ReportsAnErrorOfTheFunctionAndKeepsWhatStandsBeforeIt)
{
    // The third call fails: under UTF-8 the characters beyond Unicode are those that call.
    const mystring text(utf8 ? "ab\xF7\xBF\xBF\xBF\xF7\xBF\xBF\xBF\xF7\xBF\xBF\xBF" : "abc", false);
    const std::wstring kept = utf8 ? L"ab\x1FFFFF\x1FFFFF" : L"ab";
    for (const int error : {EILSEQ, ENOMEM}) {
        mywstring wide;
        {
            const support::FaultScope fault(mbrtowcFault, -1, error, 3, 1);
            EXPECT_THROW(wide = text, tolmen::Utf8Exception);
        }
        EXPECT_EQ(wide, kept);
        std::string report = std::string("mbrtowc: ") + std::strerror(error) + "\n";
        if (error == ENOMEM)
            report += "mbrtowc: Unerwarteter Fehler: Cannot allocate memory\n  Maybe, no valid locale was set. Current "
                      "locale for LC_CTYPE: " +
                      std::string(GetParam()) + "\n";
        EXPECT_EQ(cerr.take(), report);
    }
}

TEST_P(Conversion, ReportsWhereACutOffCharacterBegins)
{
    const std::string before(1000, 'x');
    EXPECT_THROW(mywstring(mystring(before + "\xE2\x82")), tolmen::Utf8Exception);
    EXPECT_EQ(cerr.take(),
              utf8 ? "utf8 string that shall be converted to utf32 does not contain a valid multibyte character at pos "
                     "1000\n"
                   : "mbrtowc: Invalid or incomplete multibyte or wide character\n");
}

TEST_P(Conversion, ChangesOfCaseGoByTheLocale)
{
    mystring bytes("a\xC3\xA4z AZ", false);
    bytes.toUpperCase();
    EXPECT_EQ(bytes, "A\xC3\xA4Z AZ");
    bytes.toLowerCase();
    EXPECT_EQ(bytes, "a\xC3\xA4z az");
    mywstring wide(L"a\x00E4z AZ");
    const mywstring other(L"A\x00C4Z az");
    EXPECT_EQ(wide.equalsIgnoreCase(other), utf8);
    wide.toUpperCase();
    EXPECT_EQ(wide, utf8 ? L"A\x00C4Z AZ" : L"A\x00E4Z AZ");
    wide.toLowerCase();
    EXPECT_EQ(wide, L"a\x00E4z az");
}

} // namespace
