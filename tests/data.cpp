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
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <thread>

SUPPORT_INTERPOSE(size_t, mbrtowc, (wchar_t * wide, const char* bytes, size_t limit, mbstate_t* state),
                  (wide, bytes, limit, state), noexcept)
SUPPORT_INTERPOSE(FILE*, fdopen, (int descriptor, const char* mode), (descriptor, mode), noexcept)

namespace {

using tolmen::mystring, tolmen::mywstring;
using Bytes = std::vector<uint8_t>;

[[maybe_unused]] const int localesReady = setenv("LOCPATH", QUORVIL_TEST_LOCALES, 1);

// ---- bitmaps and bits

TEST(Bitmap, InsertCountsFromTheHighestBitAndSinglePixelsFromTheLowest)
{
    Bytes memory(6), source{0x2D, 0xC0};
    bmp::Bitmap bitmap(memory.data(), 24, 2, 3);
    const support::AllocationCount allocations;
    bitmap.clip(20, 1, INT_MAX, INT_MAX);
    for (const int pixel : {0, 7, 10, 47})
        bitmap.orBit(pixel % 24, pixel / 24, true);
    bitmap.orBit(1, 0, false);
    for (int pixel = 0; pixel < 48; ++pixel)
        EXPECT_EQ(bitmap.getBit(pixel % 24, pixel / 24), pixel == 0 || pixel == 7 || pixel == 10 || pixel == 47);
    bitmap.unclip();
    bitmap.insert(bmp::Bitmap(source.data(), 16, 1, 2), 5, 0, 6, INT_MAX, 1, 1);
    EXPECT_EQ(allocations.allocations(), 0U);
    EXPECT_EQ(memory, (Bytes{0x81, 0x04, 0x00, 0x5C, 0x00, 0x80}));
}

TEST(Bitmap, InsertTakesRowsWithoutAGapThatHoldMorePixelsThanAnIntCounts)
{
    if (support::threadSanitized)
        GTEST_SKIP() << "its shadow of the memory does not fit into every machine";
    const size_t bytes = size_t{INT_MAX} / 8 + 1;
    void* const memory =
        mmap(nullptr, 2 * bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    auto* const from = static_cast<uint8_t*>(memory);
    from[0] = from[bytes - 1] = 0x81;
    bmp::Bitmap target(from + bytes, 1 << 23, 256, 1 << 20);
    target.insert(bmp::Bitmap(from, 1 << 23, 256, 1 << 20), 0, 0, 1 << 23, 256, 0, 0);
    EXPECT_TRUE(from[bytes] == 0x81 && from[2 * bytes - 1] == 0x81);
    munmap(memory, 2 * bytes);
}

TEST(Bits, TakeAndReplaceEveryRange)
{
    constexpr uint64_t pattern = 0x9E3779B97F4A7C15;
    for (int low = 0; low < 64; ++low)
        for (int count = 1; count <= 64 - low; ++count) {
            const uint64_t taken = bits(pattern, low, count);
            ASSERT_EQ(taken, pattern << (64 - low - count) >> (64 - count)) << low << ' ' << count;
            auto target = static_cast<uint32_t>(~pattern);
            setBits(target, low % 32, 0, UINT32_MAX);
            if (low + count <= 32)
                setBits(target, low, count, static_cast<uint32_t>(taken | ~0ULL << count));
            for (int bit = 0; bit < 32; ++bit)
                ASSERT_EQ((target ^ pattern) >> bit & 1, low + count > 32 || bit < low || bit >= low + count);
        }
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
    output->flush(); // on a byte border: open
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
    struct Stream : IByteInputStream, VecByteOutputStream
    {
        uint8_t readUint8() override
        {
            return ++calls == 2 ? throw std::bad_alloc() : static_cast<uint8_t>(calls);
        }
        void writeUint8(uint8_t byte) override
        {
            ++calls == 2 ? throw std::bad_alloc() : VecByteOutputStream::writeUint8(byte);
        }
        void reset() override
        {
            throw std::bad_alloc();
        }
        int calls = 0;
    } source, sink;
    const auto input = BitInputStream::create(source);
    EXPECT_THROW(input->read(32), std::bad_alloc);
    EXPECT_EQ(input->read(16), 0x0301u);
    EXPECT_EQ(source.calls, 3) << "none ahead";
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
    output->write(0, 1, 1);
    output->flush(); // off a byte border: closed
    VecByteInputStream source({});
    const auto input = BitInputStream::create(source);
    uint32_t word = 0;
    const std::string constructor = "bmp::Bitmap::Bitmap(uint8_t*, int, int, int)";
    const std::string bitsText = "uint64_t bits(uint64_t, int, int)";
    const std::string field = "lowBitIdx >= 0 && lowBitIdx < 64 && bitCount > 0 && bitCount <= 64 - lowBitIdx";
    const std::string setText = "void setBits(uint32_t&, int, int, uint32_t)";
    const std::string wordField = "lowBitIdx >= 0 && lowBitIdx < 32 && bitCount >= 0 && bitCount <= 32 - lowBitIdx";
    const std::string read = "virtual uint32_t BitInputStreamImpl::read(int)";
    const std::string clip = "void bmp::Bitmap::clip(int, int, int, int)";
    const std::tuple<std::function<void()>, std::string, std::string, std::string> rows[] = {
        {[&] { bmp::Bitmap(memory, 0, 0, -1); }, "Bitmaps", constructor, "widthPixels > 0"},
        {[&] { bmp::Bitmap(memory, 1, 0, 1); }, "Bitmaps", constructor, "heightPixels > 0"},
        {[&] { bmp::Bitmap(memory, 9, 1, 1); }, "Bitmaps", constructor, "bytesPerRow >= ((widthPixels + 7) >> 3)"},
        {[&] { bitmap.clip(100, 100, 0, 0); }, "Bitmaps", clip, "x < widthPixels"},
        {[&] { bitmap.clip(0, 100, 1, 1); }, "Bitmaps", clip, "y < heightPixels"},
        {[&] { bitmap.clip(-5, 0, 5, 0); }, "Bitmaps", clip, "w > 0"},
        {[&] { bitmap.clip(0, -5, 1, 5); }, "Bitmaps", clip, "h > 0"},
        {[&] { input->read(0); }, "QuorvilBits", bitsText, field},
        {[&] { bits(0, 63, 2); }, "QuorvilBits", bitsText, field},
        {[&] { bits(0, -1, 1); }, "QuorvilBits", bitsText, field},
        {[&] { bits(0, 64, 1); }, "QuorvilBits", bitsText, field},
        {[&] { BitOutputStream::create(sink)->write(-1, 1, 0); }, "QuorvilBits", bitsText, field},
        {[&] { setBits(word, 1, 32, 0); }, "QuorvilBits", setText, wordField},
        {[&] { setBits(word, 1, -1, 0); }, "QuorvilBits", setText, wordField},
        {[&] { setBits(word, -1, 1, 0); }, "QuorvilBits", setText, wordField},
        {[&] { setBits(word, 32, 0, 0); }, "QuorvilBits", setText, wordField},
        {[&] { output->writeBit(true); }, "QuorvilBitStream",
         "virtual void BitOutputStreamImpl::write(int, int, uint32_t)", "bitIdx >= 0 && bitIdx < 32"},
        {[&] { input->read(33); }, "QuorvilBitStream", read, "numBits >= 0 && numBits <= 32"},
        {[&] { input->read(-1); }, "QuorvilBitStream", read, "numBits >= 0 && numBits <= 32"},
    };
    for (const auto& [call, file, function, expression] : rows)
        EXPECT_DEATH(call(), support::assertion("Quorvil/" + file, function, expression));
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

TEST(Mystring, EachOperationGivesItsTextAndCountsItself)
{
    const support::GroupingEverywhere grouping;
    // Longer than the small string, so that a move that copies leaves something behind.
    const std::string standard = "some text that does not fit into the small string";
    const mystring text(standard);
    const mywstring wide(std::wstring(standard.begin(), standard.end()));
    std::string movedStandard = standard;
    mystring moved(standard), result;
    const auto uncounted = [](const std::string& from) { return mystring(from.begin(), from.end()); };
    const std::tuple<std::function<mystring()>, std::string, bool> rows[] = {
        {[&] { return uncounted(mystring().append(standard)); }, "countDefaultConstr", true},
        {[&] { return uncounted(mystring::trim("  ", " ").append(standard)); }, "countCharConstr", true},
        {[&] { return mystring(standard.c_str(), true); }, "countCharConstr", true},
        {[&] { return mystring(standard.data(), standard.data() + standard.size()); }, "", true},
        {[&] { return mystring(standard); }, "countCopyCast", true},
        {[&] { return mystring(text); }, "countCopyConstr", true},
        {[&] { return mystring(wide); }, "", true},
        {[&] { return mystring(std::move(movedStandard)); }, "countMoveCast", false},
        {[&] { return mystring(std::move(moved)); }, "countMoveConstr", false},
        {[&] { return uncounted(result = text); }, "countConstAssign", true},
        {[&] { return uncounted(moved = std::move(result)); }, "countMoveAssign", true},
        {[&] { return uncounted(result = wide); }, "", true},
        {[&] { return mystring::trim((" " + standard + "x").c_str(), "x "); }, "", true}};
    for (const auto& [act, counter, allocates] : rows) {
        mystring::countDefaultConstr = mystring::countCharConstr = mystring::countCopyConstr = 1000;
        mystring::countCopyCast = mystring::countMoveConstr = mystring::countMoveCast = 1000;
        mystring::countConstAssign = mystring::countMoveAssign = 1000;
        const support::AllocationCount allocations;
        const mystring made = act();
        EXPECT_EQ(allocations.allocations() != 0, allocates) << counter;
        EXPECT_EQ(made, standard);
        std::string expected = "Counts of mystring:\n";
        for (const std::string name : {"countDefaultConstr", "countCharConstr", "countCopyConstr", "countCopyCast",
                                       "countMoveConstr", "countMoveCast", "countConstAssign", "countMoveAssign"})
            expected += name + (name == counter ? "=1001\n" : "=1000\n");
        testing::internal::CaptureStderr();
        mystring::dumpCounts();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), expected);
    }
    EXPECT_EQ(mystring::trim(" \xA4x \xC3\xA4", " \xC3\xA4"), "x");
    mystring left("left\xE4", false);
    std::move(left) + std::move(moved); // appends in place
    left.toUpperCase();
    EXPECT_EQ(left.substr(0, 7) + moved, "LEFT\xE4SO" + standard);
    left.toLowerCase();
    EXPECT_EQ(left, "left\xE4" + standard);
}

TEST(Mywstring, MovesComparesChangesCaseAndRefusesNull)
{
    ASSERT_TRUE(std::setlocale(LC_CTYPE, "C.UTF-8"));
    std::wstring standard = L"\xE4 text that does not fit into the small string";
    mywstring text(standard.c_str()), other(text), copy(standard), assigned;
    assigned = copy;
    const support::AllocationCount allocations;
    mywstring first(std::move(standard)), second(std::move(text));
    text = std::move(second);
    text.toUpperCase();
    EXPECT_TRUE(text.front() == L'\xC4' && text.equalsIgnoreCase(first) && !mywstring().equalsIgnoreCase(text));
    text.toLowerCase();
    EXPECT_TRUE(first == text && other == text && copy == text && assigned == text && second.empty());
    EXPECT_EQ(allocations.allocations(), 0U);
    EXPECT_FALSE(mywstring(L"ab").equalsIgnoreCase(mywstring(L"AC")));
    const char* const null = nullptr;
    const std::function<void()> refused[] = {[=] { mystring(null, false); }, [=] { mystring(null, "x"); },
                                             [] { mywstring(static_cast<const wchar_t*>(nullptr)); }};
    for (const auto& construct : refused)
        EXPECT_THAT(construct, testing::ThrowsMessage<std::logic_error>("basic_string::_M_construct null not valid"));
    EXPECT_EQ(mystring(null, null), "");
}

TEST(Conversion, ReportsWhereItFailsKeepsWhatStandsBeforeAndDropsWhatTheLocaleCannotExpress)
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
        std::string good, bad;
        std::wstring wide;
        std::string report;
        int failAt = 0; ///< the call of the locale's function that lacks memory
    } rows[] = {
        {"de_DE.UTF-8", "gr\xC3\xBC\xC3\x9F \xF0\x9F\x96\xA8", "", L"gr\xFC\xDF \x1F5A8", ""},
        {"C.UTF-8", std::string(1000, 'x'), "\xE2\x82", std::wstring(1000, L'x'), cutOff + "1000\n"},
        {"ja_JP.EUC-JP", "a\xA4\xA2", "\xA4", L"a\x3042", cutOff + "3\n"},
        {"C", std::string("a\0b", 3), "\xC3", std::wstring(L"a\0b", 3), invalid},
        {"C", "ab", "c", L"ab", noMemory, 3},
    };
    for (const auto& row : rows) {
        EXPECT_TRUE(std::setlocale(LC_CTYPE, row.locale)) << row.locale;
        if (std::string(row.locale).ends_with("JP") && std::mblen("\xA4\xA2", 2) != 2) {
            std::cout << row.locale << " is left out: the C library has no module for its characters\n";
            continue;
        }
        std::optional<support::FaultScope> fault;
        if (row.failAt != 0)
            fault.emplace(mbrtowcFault, -1, ENOMEM, row.failAt, 1);
        mywstring wide(L"rest of before");
        testing::internal::CaptureStderr();
        if (row.bad.empty())
            wide = mystring(row.good);
        else
            EXPECT_THROW(wide = mystring(row.good + row.bad), tolmen::Utf8Exception);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), row.report);
        EXPECT_EQ(wide, row.wide);
        wide.insert(1, L"\xDC80"); // no character
        EXPECT_EQ(mystring(wide), row.good);
    }
}

// ---- numbers, positions, a line from the console

TEST(ParseNum, TakesNoMemoryAndNamesItsException)
{
    const support::AllocationCount allocations;
    EXPECT_EQ(parseNum("-042"), -42);
    EXPECT_EQ(parseNum("0xaG2"), 0xA2);
    EXPECT_EQ(allocations.allocations(), 0U);
    EXPECT_THAT([] { parseNum("+5"); }, testing::ThrowsMessage<std::invalid_argument>("ParseException"));
}

TEST(Pos, IsBroughtIntoItsRangeAndPrintedAsTheStreamFormatsIt)
{
    using quorvil::stream::normalizePos;
    const support::AllocationCount allocations;
    for (int pos = -20; pos <= 20; ++pos)
        EXPECT_EQ(normalizePos(pos, 5), (pos + 20) % 5);
    EXPECT_EQ(normalizePos(INT_MIN, -1) + normalizePos(5, 0) + normalizePos(INT_MIN, 1), 0);
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
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "*** Nach ENTER: Druck ... > Band 7");
}

// ---- data files

using quorvil::TextFileDataIO;

std::unique_ptr<TextFileDataIO> forWrite(const std::string& file)
{
    return std::unique_ptr<TextFileDataIO>(TextFileDataIO::forWrite(file));
}

std::unique_ptr<TextFileDataIO> forRead(const std::string& file)
{
    return std::unique_ptr<TextFileDataIO>(TextFileDataIO::forRead(file));
}

TEST(TextFileDataIO, HoldsOneDecimalNumberALineWhateverTheLocaleIs)
{
    const support::GroupingEverywhere grouping;
    const support::TemporaryFolder folder;
    const std::string file = folder / "state.txt";
    std::ofstream(file) << std::string(100, 'x');
    const std::tuple values(false, true, 'A', '\xE4', static_cast<signed char>(-128), static_cast<unsigned char>(255),
                            short{SHRT_MIN}, static_cast<unsigned short>(USHRT_MAX), INT_MIN, INT_MAX, UINT_MAX);
    std::apply([io = forWrite(file)](auto... value) { (io->w(value), ...); }, values);
    std::stringstream content;
    content << std::ifstream(file).rdbuf();
    EXPECT_EQ(content.str(), "0\n1\n65\n228\n-128\n255\n-32768\n65535\n-2147483648\n2147483647\n4294967295\n");
    auto restored = values;
    std::apply([](auto&... value) { ((value = 1), ...); }, restored);
    std::apply([io = forRead(file)](auto&... value) { (io->r(value), ...); }, restored);
    EXPECT_EQ(restored, values);
}

TEST(TextFileDataIO, NarrowOperationsGoThroughTheWideOnesOfADerivedClass)
{
    struct Derived : TextFileDataIO
    {
        using TextFileDataIO::TextFileDataIO, TextFileDataIO::w, TextFileDataIO::r;
        MOCK_METHOD(void, w, (int), (override));
        MOCK_METHOD(void, w, (unsigned int), (override));
        MOCK_METHOD(void, r, (int&), (override));
        MOCK_METHOD(void, r, (unsigned int&), (override));
    } derived("");
    EXPECT_CALL(derived, w(testing::An<int>())).Times(4);
    EXPECT_CALL(derived, w(testing::An<unsigned int>())).Times(2);
    EXPECT_CALL(derived, r(testing::An<int&>())).Times(3);
    EXPECT_CALL(derived, r(testing::An<unsigned int&>())).Times(2);
    const auto pass = [&io = static_cast<quorvil::IDataIO&>(derived)](auto... value) {
        (io.w(value), ...);
        (io.r(value), ...);
    };
    pass(true, 'x', static_cast<signed char>(1), static_cast<unsigned char>(1), static_cast<unsigned short>(1));
    EXPECT_THROW(pass(short{1}), util::GeneralException) << "this one reads by itself";
}

TEST(TextFileDataIO, FailsByTheTextOfItsFailureAndLeavesNothingOpen)
{
    const support::TemporaryFolder folder;
    const std::string file = folder / "state.txt", missing = folder / "missing/state.txt";
    const std::string badWrite = "TextFileDataIO: Problem beim Schreiben";
    int value = 3;
    const auto fill = [](int numbers) {
        auto io = forWrite("/dev/full");
        for (int i = 0; i < numbers; ++i)
            io->w(i);
        return io;
    };
    const auto withoutMemory = [](const auto& open) {
        const support::FaultScope fault(fdopenFault, 0, ENOMEM);
        open("/dev/null");
    };
    const std::pair<std::function<void()>, std::string> rows[] = {
        {[&] { forWrite(missing); }, "Kann nicht in Datei schreiben: " + missing},
        {[&] { forRead(missing); }, "Kann nicht von Datei lesen: " + missing},
        {[&] { withoutMemory(forWrite); }, "Kann nicht in Datei schreiben: /dev/null"},
        {[&] { withoutMemory(forRead); }, "Kann nicht von Datei lesen: /dev/null"},
        {[&] { forRead(folder.path)->r(value); }, "TextFileDataIO: Problem beim Lesen"},
        {[&] { forWrite(file)->r(value); },
         "TextFileDataIO has not been opened for reading, but one of the r() method has been called."},
        {[&] { forRead(file)->close(), forRead(file)->w(6U); },
         "TextFileDataIO has not been opened for writing, but one of the w() method has been called."},
        {[&] {
             const auto io = forWrite(file);
             io->close(), io->close(), io->w(8);
         },
         badWrite},
        {[&] { fill(1)->close(); }, badWrite},
        {[&] { fill(100'000); }, badWrite},
        {[&] { fill(1); }, ""}, // the destructor keeps it to itself
        {[&] { forWrite(file)->w(7); }, ""},
        {[&] { forRead(file)->r(value); }, ""},
    };
    const auto descriptors = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    const auto before = descriptors();
    for (const auto& [act, text] : rows) {
        testing::internal::CaptureStdout();
        if (text.empty())
            act();
        else
            EXPECT_THAT(act, testing::ThrowsMessage<util::GeneralException>(text));
        EXPECT_EQ(testing::internal::GetCapturedStdout().empty(), text.empty()) << text;
        EXPECT_EQ(descriptors(), before) << text;
    }
    EXPECT_EQ(value, 7);
    const int next = dup(STDIN_FILENO);
    close(next);
    const auto open = forRead(file);
    EXPECT_EQ(fcntl(next, F_GETFD), FD_CLOEXEC);
}

} // namespace
