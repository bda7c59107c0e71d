// Data: what the replayed fuzz harnesses, which compare with models, do not reach: texts, failures, memory, order.

#include "Quorvil/Bitmaps.h"
#include "Quorvil/EnterIfInteractive.h"
#include "Quorvil/GeneralException.h"
#include "Quorvil/QuorvilBitStream.h"
#include "Quorvil/QuorvilBits.h"
#include "Quorvil/QuorvilDataIO.h"
#include "Quorvil/QuorvilMystring.h"
#include "Quorvil/QuorvilParseNum.h"
#include "Quorvil/QuorvilPos.h"
#include "Quorvil/ThreadSafeStream.h"
#include "tests/support/allocationCount.h"
#include "tests/support/assertion.h"
#include "tests/support/environment.h"
#include "tests/support/groupingLocale.h"
#include "tests/support/interpose.h"
#include "tests/support/temporaryFolder.h"

#include <climits>
#include <clocale>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <iconv.h>
#include <thread>

SUPPORT_INTERPOSE(size_t, mbrtowc, (wchar_t * wide, const char* bytes, size_t limit, mbstate_t* state),
                  (wide, bytes, limit, state), noexcept)
SUPPORT_INTERPOSE(FILE*, fdopen, (int descriptor, const char* mode), (descriptor, mode), noexcept)

namespace {

using tolmen::mystring, tolmen::mywstring;
using Bytes = std::vector<uint8_t>;
namespace fs = std::filesystem;

[[maybe_unused]] const int localesReady = setenv("LOCPATH", QUORVIL_TEST_LOCALES, 1);

// ---- bitmaps and bits

TEST(Bitmap, InsertCountsFromTheHighestBitAndSinglePixelsFromTheLowest)
{
    Bytes memory(6), source{0x2D, 0xC0};
    bmp::Bitmap bitmap(memory.data(), 24, 2, 3);
    const support::AllocationCount allocations;
    bitmap.clip(20, 1, 1, 1);
    for (const int pixel : {0, 7, 10, 47})
        bitmap.orBit(pixel % 24, pixel / 24, true);
    bitmap.orBit(7, 0, false);
    for (int pixel = 0; pixel < 48; ++pixel)
        EXPECT_EQ(bitmap.getBit(pixel % 24, pixel / 24), pixel == 0 || pixel == 7 || pixel == 10 || pixel == 47);
    bitmap.unclip();
    bitmap.insert(bmp::Bitmap(source.data(), 16, 1, 2), 5, 0, 6, INT_MAX, 1, 1);
    EXPECT_EQ(allocations.allocations(), 0U);
    EXPECT_EQ(memory, (Bytes{0x81, 0x04, 0x00, 0x5C, 0x00, 0x80}));
}

TEST(Bits, TakeAndReplaceEveryRange)
{
    constexpr uint64_t pattern = 0x9E3779B97F4A7C15;
    const support::AllocationCount allocations;
    for (int low = 0; low < 64; ++low)
        for (int count = 1; count <= 64 - low; ++count) {
            const uint64_t taken = bits(pattern, low, count);
            for (int bit = 0; bit < 64; ++bit)
                ASSERT_EQ(taken >> bit & 1, bit < count ? pattern >> (low + bit) & 1 : 0) << low << ' ' << count;
            if (low + count > 32)
                continue;
            auto target = static_cast<uint32_t>(~pattern);
            setBits(target, low, count, static_cast<uint32_t>(taken | ~0ULL << count));
            for (int bit = 0; bit < 32; ++bit)
                ASSERT_EQ((target ^ pattern) >> bit & 1, bit < low || bit >= low + count) << low << ' ' << count;
        }
    EXPECT_EQ(allocations.allocations(), 0U);
}

TEST(BitStreams, PackFromTheLeastSignificantBitAndTakeNoMemoryWithinTheCapacity)
{
    VecByteOutputStream sink;
    const auto output = BitOutputStream::create(sink);
    output->write(0, 64, 0);
    Bytes content{0xAD, 0x02, 0xFF};
    const support::AllocationCount allocations;
    VecByteInputStream source(std::move(content));
    output->reset();
    output->write(4, 8, 0xABCD);
    output->writeBit(true);
    output->flush();
    sink.flush();
    EXPECT_EQ(source.readUint8(), 0xAD);
    EXPECT_EQ(allocations.allocations(), 0U);
    EXPECT_EQ(sink.bytes(), (Bytes{0xBC, 0x01}));
    const auto input = BitInputStream::create(source);
    EXPECT_EQ(input->read(3) + input->read(), 2U);
    EXPECT_EQ(input->read(32), 0xFF0u) << "behind the end";
}

TEST(BitStreams, KeepWhatAFailedByteStreamHasNotTaken)
{
    struct Source : IByteInputStream
    {
        uint8_t readUint8() override
        {
            return ++calls == 2 ? throw std::bad_alloc() : static_cast<uint8_t>(calls);
        }
        int calls = 0;
    } source;
    const auto input = BitInputStream::create(source);
    EXPECT_THROW(input->read(32), std::bad_alloc);
    EXPECT_EQ(input->read(16), 0x0301u);
    struct Sink : VecByteOutputStream
    {
        void writeUint8(uint8_t byte) override
        {
            ++calls == 2 ? throw std::bad_alloc() : VecByteOutputStream::writeUint8(byte);
        }
        void reset() override
        {
            throw std::bad_alloc();
        }
        int calls = 0;
    } sink;
    const auto output = BitOutputStream::create(sink);
    EXPECT_THROW(output->write(0, 32, 0x04030201), std::bad_alloc);
    EXPECT_THROW(output->reset(), std::bad_alloc);
    BitOutputStream::create(sink)->write(0, 3, 5); // gone without a flush
    output->flush();
    EXPECT_EQ(sink.bytes(), (Bytes{1, 2, 3, 4}));
}

TEST(DataDeathTest, CallersFaultsFailTheirAssertions)
{
    uint8_t memory[1300];
    bmp::Bitmap bitmap(memory, 100, 100, 13);
    VecByteOutputStream sink;
    const auto output = BitOutputStream::create(sink);
    VecByteInputStream source({});
    const auto input = BitInputStream::create(source);
    uint32_t word = 0;
    output->write(0, 1, 1);
    output->flush(); // off a byte border: closed
    const std::string bitmapText = "bmp::Bitmap::Bitmap(uint8_t*, int, int, int)";
    const std::string clip = "void bmp::Bitmap::clip(int, int, int, int)";
    const struct
    {
        std::function<void()> call;
        std::string file, function, expression;
    } rows[] = {
        {[&] { bmp::Bitmap(memory, 0, 0, -1); }, "Bitmaps", bitmapText, "widthPixels > 0"},
        {[&] { bmp::Bitmap(memory, 1, 0, 1); }, "Bitmaps", bitmapText, "heightPixels > 0"},
        {[&] { bmp::Bitmap(memory, 9, 1, 1); }, "Bitmaps", bitmapText, "bytesPerRow >= ((widthPixels + 7) >> 3)"},
        {[&] { bitmap.clip(100, 100, 0, 0); }, "Bitmaps", clip, "x < widthPixels"},
        {[&] { bitmap.clip(0, 100, 1, 1); }, "Bitmaps", clip, "y < heightPixels"},
        {[&] { bitmap.clip(-5, 0, 5, 0); }, "Bitmaps", clip, "w > 0"},
        {[&] { bitmap.clip(0, -5, 1, 5); }, "Bitmaps", clip, "h > 0"},
        {[&] { input->read(0); }, "QuorvilBits", "uint64_t bits(uint64_t, int, int)",
         "lowBitIdx >= 0 && lowBitIdx < 64 && bitCount > 0 && bitCount <= 64 - lowBitIdx"},
        {[&] { setBits(word, 1, 32, 0); }, "QuorvilBits", "void setBits(uint32_t&, int, int, uint32_t)",
         "lowBitIdx >= 0 && lowBitIdx < 32 && bitCount >= 0 && bitCount <= 32 - lowBitIdx"},
        {[&] { output->writeBit(true); }, "QuorvilBitStream",
         "virtual void BitOutputStreamImpl::write(int, int, uint32_t)", "bitIdx >= 0 && bitIdx < 32"},
        {[&] { input->read(33); }, "QuorvilBitStream", "virtual uint32_t BitInputStreamImpl::read(int)",
         "numBits >= 0 && numBits <= 32"},
    };
    for (const auto& row : rows)
        EXPECT_DEATH(row.call(), support::assertion("Quorvil/" + row.file, row.function, row.expression));
}

TEST(FormatBits32, PrintsTheWordWhateverTheLocaleIs)
{
    const support::GroupingEverywhere grouping;
    EXPECT_EQ(formatBits32(0x12345678), "\ndec: 305419896\nhex: 12345678\nbin:\n\n"
                                        " 31 30 29 28  27 26 25 24  23 22 21 20  19 18 17 16\n"
                                        "  0  0  0  1   0  0  1  0   0  0  1  1   0  1  0  0\n\n"
                                        " 15 14 13 12  11 10  9  8   7  6  5  4   3  2  1  0\n"
                                        "  0  1  0  1   0  1  1  0   0  1  1  1   1  0  0  0\n");
}

// ---- strings

constexpr int* counters[] = {&mystring::countDefaultConstr, &mystring::countCharConstr, &mystring::countCopyConstr,
                             &mystring::countCopyCast,      &mystring::countMoveConstr, &mystring::countMoveCast,
                             &mystring::countConstAssign,   &mystring::countMoveAssign};

TEST(Mystring, EachOperationGivesItsTextAndCountsItself)
{
    // Longer than the small string, so that a move that copies leaves something behind.
    const std::string standard = "a text that does not fit into the small string";
    const mystring text(standard);
    const mywstring wide(std::wstring(standard.begin(), standard.end()));
    std::string movedStandard = standard;
    mystring moved(standard), result;
    const auto uncounted = [](const std::string& from) { return mystring(from.begin(), from.end()); };
    const struct
    {
        std::function<mystring()> act;
        const int* counter; ///< the one that it counts in, if any
        bool allocates = true;
    } rows[] = {{[&] { return uncounted(mystring().append(standard)); }, &mystring::countDefaultConstr},
                {[&] { return uncounted(mystring::trim("  ", " ").append(standard)); }, &mystring::countCharConstr},
                {[&] { return mystring(standard.c_str(), true); }, &mystring::countCharConstr},
                {[&] { return mystring(standard.data(), standard.data() + standard.size()); }, nullptr},
                {[&] { return mystring(standard.begin(), standard.end()); }, nullptr},
                {[&] { return mystring(standard); }, &mystring::countCopyCast},
                {[&] { return mystring(text); }, &mystring::countCopyConstr},
                {[&] { return mystring(wide); }, nullptr},
                {[&] { return mystring(std::move(movedStandard)); }, &mystring::countMoveCast, false},
                {[&] { return mystring(std::move(moved)); }, &mystring::countMoveConstr, false},
                {[&] { return uncounted(result = text); }, &mystring::countConstAssign},
                {[&] { return uncounted(moved = std::move(result)); }, &mystring::countMoveAssign},
                {[&] { return uncounted(result = wide); }, nullptr},
                {[&] { return mystring::trim((" " + standard + "x").c_str(), "x "); }, nullptr}};
    for (const auto& row : rows) {
        int before[std::size(counters)];
        std::ranges::transform(counters, before, [](const int* counter) { return *counter; });
        const support::AllocationCount allocations;
        const mystring made = row.act();
        EXPECT_EQ(allocations.allocations() != 0, row.allocates);
        for (size_t i = 0; i < std::size(counters); ++i)
            EXPECT_EQ(*counters[i] - before[i], counters[i] == row.counter) << &row - rows;
        EXPECT_EQ(made, standard);
    }
    EXPECT_EQ(mystring::trim(" \xA4x \xC3\xA4", " \xC3\xA4"), "x");
    EXPECT_EQ(mystring::trim(" x ", ""), " x ");
    mystring left("left ", false);
    std::move(left) + std::move(moved); // appends in place
    EXPECT_EQ(left, "left " + standard);
}

TEST(Mystring, CountersAreDumpedAsOneBlock)
{
    const support::GroupingEverywhere grouping;
    int number = 1001;
    for (int* const counter : counters)
        *counter = number++;
    testing::internal::CaptureStderr();
    mystring::dumpCounts();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Counts of mystring:\ncountDefaultConstr=1001\ncountCharConstr=1002\ncountCopyConstr=1003\n"
              "countCopyCast=1004\ncountMoveConstr=1005\ncountMoveCast=1006\ncountConstAssign=1007\n"
              "countMoveAssign=1008\n");
}

TEST(Mywstring, MovesComparesAndRefusesNull)
{
    std::wstring standard = L"a text that does not fit into the small string";
    mywstring text(standard.c_str()), other(text);
    const support::AllocationCount allocations;
    mywstring first(std::move(standard)), second(std::move(text));
    text = std::move(second);
    text.toUpperCase();
    EXPECT_TRUE(text.equalsIgnoreCase(first) && !mywstring().equalsIgnoreCase(text));
    EXPECT_FALSE(mywstring(L"ab").equalsIgnoreCase(mywstring(L"AC")));
    text.toLowerCase();
    EXPECT_TRUE(first == text && other == text && second.empty());
    EXPECT_EQ(allocations.allocations(), 0U);
    const char* const null = nullptr;
    const std::function<void()> refused[] = {[=] { mystring(null, false); }, [=] { mystring(null, "x"); },
                                             [] { mywstring(static_cast<const wchar_t*>(nullptr)); }};
    for (const auto& construct : refused)
        EXPECT_THAT(construct, testing::ThrowsMessage<std::logic_error>("basic_string::_M_construct null not valid"));
    EXPECT_EQ(mystring(null, null), "");
}

/// Sets the locale; false, with a word on it, where the machine cannot convert its characters.
bool setLocaleForConversion(const char* locale)
{
    EXPECT_TRUE(std::setlocale(LC_CTYPE, locale)) << locale;
    const std::string name = locale;
    const iconv_t conversion = iconv_open("WCHAR_T", name.ends_with("EUC-JP") ? "EUC-JP" : "UTF-8");
    if (conversion == reinterpret_cast<iconv_t>(-1)) {
        std::cout << locale << " is left out: the C library has no module for its characters\n";
        return false;
    }
    iconv_close(conversion);
    return true;
}

TEST(Conversion, ReportsWhereItFailsAndKeepsWhatStandsBefore)
{
    const support::GroupingEverywhere grouping;
    const std::string invalid = "mbrtowc: Invalid or incomplete multibyte or wide character\n";
    const std::string cutOff = "utf8 string that shall be converted to utf32 does not contain a valid multibyte "
                               "character at pos ";
    const std::string noMemory =
        "mbrtowc: Cannot allocate memory\nmbrtowc: Unerwarteter Fehler: Cannot allocate memory\n"
        "  Maybe, no valid locale was set. Current locale for LC_CTYPE: C\n";
    const struct
    {
        const char* locale;
        std::string bytes;
        std::wstring wide;
        std::string report;
        int calls = 0;  ///< of the locale's function: none where the locale is UTF-8 and the text well-formed
        int failAt = 0; ///< the call that lacks memory
    } rows[] = {
        {"C.UTF-8", "\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x96\xA8", L"\xE4 \x20AC \x1F5A8", ""},
        {"C.UTF-8", std::string(1000, 'x') + "\xE2\x82", std::wstring(1000, L'x'), cutOff + "1000\n", 1},
        {"de_DE.UTF-8", "gr\xC3\xBC\xC3\x9F", L"gr\xFC\xDF", ""},
        {"de_DE.UTF-8", "gr\xC3\xBC\xC3\xC3", L"gr\xFC", invalid, 1},
        {"ja_JP.EUC-JP", "a\xA4\xA2\xA4", L"a\x3042", cutOff + "3\n", 3},
        {"C", std::string("a\0b\xC3", 4), std::wstring(L"a\0b", 3), invalid, 4},
        {"C", "abc", L"ab", noMemory, 3, 3},
    };
    for (const auto& row : rows) {
        if (!setLocaleForConversion(row.locale))
            continue;
        mbrtowcFault.calls = 0;
        std::optional<support::FaultScope> fault;
        if (row.failAt != 0)
            fault.emplace(mbrtowcFault, -1, ENOMEM, row.failAt, 1);
        mywstring wide(L"rest of before");
        testing::internal::CaptureStderr();
        if (row.report.empty())
            wide = mystring(row.bytes);
        else
            EXPECT_THROW(wide = mystring(row.bytes), tolmen::Utf8Exception);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), row.report);
        EXPECT_EQ(wide, row.wide);
        EXPECT_EQ(mbrtowcFault.calls, row.calls);
    }
    EXPECT_THROW(mywstring(mystring("\xC3", false)), tolmen::Utf8Exception);
}

TEST(Conversion, OfWideTextDropsWhatTheLocaleCannotExpressAndCaseGoesByTheLocale)
{
    const std::tuple<const char*, std::string, std::wstring> rows[] = {
        {"C", "a", L"a\xE4"},
        {"C.UTF-8", "a\xC3\xA4", L"A\xC4"},
        {"de_DE.UTF-8", "\xC3\xA4\xC3\x9F", L"\xC4\xDF"},
        {"ja_JP.EUC-JP", "a\xA4\xA2", L"A\x3042\x10FFFF"}};
    for (const auto& [locale, bytes, characters] : rows) {
        if (!setLocaleForConversion(locale))
            continue;
        mywstring wide(characters);
        wide.toLowerCase();
        EXPECT_EQ(mystring(wide), bytes) << locale;
        mystring text("\xC3\xA4 a", false);
        text.toUpperCase();
        EXPECT_EQ(text, "\xC3\xA4 A");
        text.toLowerCase();
        EXPECT_EQ(text, "\xC3\xA4 a");
    }
}

// ---- numbers, positions, a line from the console

TEST(ParseNum, KnowsThreeForms)
{
    using Row = std::pair<const char*, int64_t>;
    const Row rows[] = {Row{"", 0},
                        Row{"-", 0},
                        Row{"-042", -42},
                        Row{"0xaG2", 0xA2},
                        Row{"0X1fB", 0x1FB},
                        Row{"0x-12", 0x12},
                        Row{"0x18000000000000000", INT64_MIN},
                        Row{"-9223372036854775808", INT64_MIN}};
    const support::AllocationCount allocations;
    for (const auto& [text, value] : rows)
        EXPECT_EQ(parseNum(text), value) << text;
    EXPECT_EQ(allocations.allocations(), 0U);
    for (const char* const text : {"0x", "+5", "12a", "5-", "1:", "/"})
        EXPECT_THAT([=] { parseNum(text); }, testing::ThrowsMessage<std::invalid_argument>("ParseException"));
}

TEST(Pos, IsBroughtIntoItsRangeAndPrintedAsTheStreamFormatsIt)
{
    using quorvil::stream::normalizePos;
    const support::AllocationCount allocations;
    for (int size = 1; size <= 9; ++size)
        for (int pos = -20; pos <= 20; ++pos)
            EXPECT_EQ(normalizePos(pos, size), (pos + 20 * size) % size) << pos << ' ' << size;
    EXPECT_EQ(normalizePos(INT_MIN, -1) + normalizePos(5, 0), 0);
    EXPECT_EQ(allocations.allocations(), 0U);
    std::ostringstream stream;
    stream << quorvil::Pos{-1} << std::hex << std::showbase << quorvil::Pos{255};
    EXPECT_EQ(stream.str(), "(Pos -1)(Pos 0xff)");
}

TEST(EnterIfInteractive, LeavesTheConsoleToOthersWhileItWaitsForALine)
{
    /// Has nothing typed until another thread has written.
    struct Keyboard : std::streambuf
    {
        int underflow() override
        {
            std::thread([] { safeCerr << "Band 7"; }).join();
            return traits_type::eof();
        }
    } keyboard;
    std::streambuf* const realInput = std::cin.rdbuf(&keyboard);
    testing::internal::CaptureStderr();
    enterIfInteractive(false, "Nichts");
    enterIfInteractive(true, "Druck");
    std::cin.rdbuf(realInput);
    std::cin.clear();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "*** Nach ENTER: Druck ... > Band 7");
}

// ---- data files

using quorvil::TextFileDataIO;

constexpr const char* badWrite = "TextFileDataIO: Problem beim Schreiben";
constexpr const char* badRead = "TextFileDataIO: Problem beim Lesen";
constexpr const char* notForWriting =
    "TextFileDataIO has not been opened for writing, but one of the w() method has been called.";
constexpr const char* notForReading =
    "TextFileDataIO has not been opened for reading, but one of the r() method has been called.";

std::unique_ptr<TextFileDataIO> forWrite(const std::string& file)
{
    return std::unique_ptr<TextFileDataIO>(TextFileDataIO::forWrite(file));
}

std::unique_ptr<TextFileDataIO> forRead(const std::string& file)
{
    return std::unique_ptr<TextFileDataIO>(TextFileDataIO::forRead(file));
}

/// How many descriptors this process has. Each that leads to a data file is close-on-exec.
long descriptors()
{
    long count = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
        const int flags = fcntl(std::stoi(entry.path().filename()), F_GETFD);
        EXPECT_TRUE(!fs::read_symlink(entry).string().ends_with("state.txt") || (flags & FD_CLOEXEC)) << entry;
        ++count;
    }
    return count;
}

class TextFile : public testing::Test
{
protected:
    /// Reads `text` back as `values` and no more: what comes behind fails, and goes on failing.
    template <typename Value>
    void expectRead(const std::string& text, const std::vector<Value>& values)
    {
        std::ofstream(file) << text;
        const std::unique_ptr<quorvil::IDataIO> io = forRead(file);
        Value restored = 1;
        for (const Value value : values) {
            io->r(restored);
            EXPECT_EQ(restored, value);
        }
        for (int i = 0; i < 2; ++i)
            EXPECT_THAT([&] { io->r(restored); }, testing::ThrowsMessage<util::GeneralException>(badRead));
        EXPECT_EQ(restored, values.empty() ? Value(1) : values.back());
    }

    /// Writes the values over what was there, compares the file, and reads them back.
    template <typename Value>
    void expectRoundTrip(const std::vector<Value>& values, const std::string& text)
    {
        std::ofstream(file) << std::string(100, 'x');
        std::unique_ptr<quorvil::IDataIO> io = forWrite(file);
        for (const Value value : values)
            io->w(value);
        io.reset();
        std::stringstream content;
        content << std::ifstream(file).rdbuf();
        EXPECT_EQ(content.str(), text);
        expectRead(text, values);
    }

    const support::TemporaryFolder folder;
    const std::string file = folder / "state.txt";
};

TEST_F(TextFile, HoldsOneDecimalNumberALineOfEachTypeWhateverTheLocaleIs)
{
    const support::GroupingEverywhere grouping;
    expectRoundTrip<bool>({true, false}, "1\n0\n");
    expectRoundTrip<char>({'A', '\0', '\x7F', '\x80', '\xFF'}, "65\n0\n127\n128\n255\n");
    expectRoundTrip<signed char>({-128, 127}, "-128\n127\n");
    expectRoundTrip<unsigned char>({65, 255}, "65\n255\n");
    expectRoundTrip<short>({SHRT_MIN, SHRT_MAX}, "-32768\n32767\n");
    expectRoundTrip<unsigned short>({0, USHRT_MAX}, "0\n65535\n");
    expectRoundTrip<int>({INT_MIN, INT_MAX}, "-2147483648\n2147483647\n");
    expectRoundTrip<unsigned int>({300, UINT_MAX}, "300\n4294967295\n");
}

TEST_F(TextFile, IsReadBackByTheWidthOfItsTarget)
{
    expectRead<bool>("2 -1\n00\n+", {true, true, false});
    expectRead<char>("321\n-28\nx", {'A', '\xE4'});
    expectRead<signed char>("200\n2147483648\n", {-56});
    expectRead<unsigned char>("300\n4294967296\n", {44});
    expectRead<short>("\t\r\n\n 010\n32768\n", {10});
}

TEST_F(TextFile, NarrowOperationsGoThroughTheWideOnesOfADerivedClass)
{
    struct Derived : TextFileDataIO
    {
        using TextFileDataIO::TextFileDataIO, TextFileDataIO::w, TextFileDataIO::r;
        void w(int value) override
        {
            written += std::to_string(value) + ' ';
        }
        void w(unsigned int value) override
        {
            written += std::to_string(value) + "u ";
        }
        void r(int& value) override
        {
            value = 0x141;
        }
        void r(unsigned int& value) override
        {
            value = 0x10142;
        }
        std::string written;
    } derived(file);
    const auto restored = [&io = static_cast<quorvil::IDataIO&>(derived)](auto value) {
        io.w(value);
        io.r(value);
        return int{value};
    };
    EXPECT_EQ((std::vector{restored(false), restored('\xFF'), restored(static_cast<signed char>(-1)),
                           restored(static_cast<unsigned char>(200)), restored(static_cast<unsigned short>(60'000))}),
              (std::vector{1, 0x41, 0x41, 0x42, 0x142}));
    EXPECT_THROW(restored(short{-5}), util::GeneralException) << "this one reads by itself";
    EXPECT_EQ(derived.written, "0 255 -1 200u 60000u -5 ");
}

TEST_F(TextFile, FailsByTheTextOfItsFailureAndLeavesNothingOpen)
{
    int value = 3;
    const std::string missing = folder / "missing/state.txt";
    const auto fill = [](int numbers) {
        const auto io = forWrite("/dev/full");
        for (int i = 0; i < numbers; ++i)
            io->w(i);
        EXPECT_EQ(numbers, 1) << "the buffer does not take as many";
        io->close();
    };
    const struct
    {
        std::function<void()> act;
        std::string text; ///< of the exception, if there is one
    } rows[] = {
        {[&] { forWrite(missing); }, "Kann nicht in Datei schreiben: " + missing},
        {[&] { forRead(missing); }, "Kann nicht von Datei lesen: " + missing},
        {[&] { forWrite(folder.path); }, "Kann nicht in Datei schreiben: " + folder.path},
        {[&] { forRead(folder.path)->r(value); }, badRead},
        {[&] { forWrite(file)->r(value); }, notForReading},
        {[&] { forRead(file)->close(), forRead(file)->w(6U); }, notForWriting},
        {[&] { TextFileDataIO(file).r(value); }, notForReading},
        {[&] { TextFileDataIO(file).close(), TextFileDataIO(file).w(6U); }, notForWriting},
        {[&] {
             const auto io = forWrite(file);
             io->close(), io->close(), io->w(8);
         },
         badWrite},
        {[&] { fill(1); }, badWrite},
        {[&] { fill(100'000); }, badWrite},
        {[&] { forWrite("/dev/full")->w(5); }, ""}, // the destructor keeps it to itself
        {[&] { forWrite(file)->w(7); }, ""},
        {[&] { forRead(file)->r(value); }, ""},
    };
    for (const auto& row : rows) {
        const long before = descriptors();
        testing::internal::CaptureStdout();
        if (row.text.empty())
            row.act();
        else
            EXPECT_THAT(row.act, testing::ThrowsMessage<util::GeneralException>(row.text));
        EXPECT_EQ(testing::internal::GetCapturedStdout().empty(), row.text.empty()) << row.text;
        EXPECT_EQ(descriptors(), before) << row.text;
    }
    EXPECT_EQ(value, 7);
    const long before = descriptors();
    const auto open = forWrite(file);
    EXPECT_EQ(descriptors(), before + 1);
    const support::FaultScope fault(fdopenFault, 0, ENOMEM);
    EXPECT_THROW(forWrite(file), util::GeneralException);
    EXPECT_THROW(forRead(file), util::GeneralException);
    EXPECT_EQ(descriptors(), before + 1);
}

} // namespace
