#include "Quorvil/EnterIfInteractive.h"
#include "Quorvil/QuorvilPos.h"
#include "Quorvil/ThreadSafeStream.h"
#include "tests/support/numberModel.h"

#include <gmock/gmock.h>

#include <climits>
#include <iostream>
#include <sstream>
#include <thread>

TEST(ParseNum, KnowsThreeForms)
{
    const std::pair<std::optional<int64_t>, std::vector<const char*>> rows[] = {
        {{}, {"0x", "-0x10", "+5", " 5", "5 ", "12a", "--1", "5-", "\xB5"}},
        {0, {"", "-", "0", "-0", "0xg", "0x/:@G`g\xE1"}},
        {10, {"010", "0xa", "0X\xFF A"}},
        {31, {"0x1F", "0X1f", "31"}},
        {18, {"0x1G2", "0x-12"}},
        {0xAFAF09, {"0xAFaf09"}},
        {-42, {"-42"}},
        {-1, {"0xFFFFFFFFFFFFFFFF", "-18446744073709551617"}},
        {INT64_MIN, {"0x18000000000000000", "9223372036854775808", "-9223372036854775808"}}};
    for (const auto& [value, texts] : rows)
        for (const char* text : texts) {
            EXPECT_EQ(numberModel::parsed(text), value) << text;
            EXPECT_EQ(numberModel::valueOf(text), value) << "the model at " << text;
        }
}

TEST(ParseNum, AgreesWithTheModelOnEveryShortText)
{
    const std::string alphabet = "019/:xX-afg\xFF";
    const size_t count = alphabet.size();
    for (size_t length = 1, texts = count; length <= 4; ++length, texts *= count)
        for (size_t number = 0; number < texts; ++number) {
            std::string text;
            for (size_t rest = number; text.size() < length; rest /= count)
                text += alphabet[rest % count];
            ASSERT_EQ(numberModel::parsed(text), numberModel::valueOf(text)) << text;
        }
}

TEST(ParseNum, ThrowsAnInvalidArgumentOfItsName)
{
    EXPECT_THAT([] { parseNum("x"); }, testing::ThrowsMessage<std::invalid_argument>("ParseException"));
}

TEST(NormalizePos, GivesTheRestThatIsNotNegative)
{
    for (int size = 1; size <= 9; ++size)
        for (int wanted = 0; wanted < size; ++wanted)
            for (int turns = -3; turns <= 3; ++turns)
                EXPECT_EQ(quorvil::stream::normalizePos(wanted + turns * size, size), wanted) << turns << ' ' << size;
    EXPECT_EQ(quorvil::stream::normalizePos(INT_MIN, 1), 0);
    EXPECT_EQ(quorvil::stream::normalizePos(INT_MIN, INT_MAX), INT_MAX - 1);
    EXPECT_EQ(quorvil::stream::normalizePos(-1, INT_MAX), INT_MAX - 1);
    for (const int size : {0, -1, INT_MIN})
        EXPECT_EQ(quorvil::stream::normalizePos(INT_MIN, size), 0) << size;
}

TEST(Pos, PrintsItsNumberAsTheStreamFormatsIt)
{
    std::ostringstream stream;
    stream << quorvil::Pos{12} << quorvil::Pos{-1} << std::hex << std::showbase << quorvil::Pos{255};
    EXPECT_EQ(stream.str(), "(Pos 12)(Pos -1)(Pos 0xff)");
}

/// Counts how often it is flushed.
struct CountingBuffer : std::stringbuf
{
    int sync() override
    {
        ++flushes;
        return std::stringbuf::sync();
    }
    int flushes = 0;
};

/// Puts buffers of the test behind `std::cin` and `std::cerr`.
class EnterIfInteractive : public testing::Test
{
protected:
    ~EnterIfInteractive() override
    {
        std::cin.rdbuf(realInput);
        std::cin.clear();
        std::cerr.rdbuf(realErrors);
        std::cerr << std::unitbuf;
    }

    std::stringbuf input{"first\nsecond\nlast"};
    CountingBuffer errors;
    std::streambuf* realInput = std::cin.rdbuf(&input);
    std::streambuf* realErrors = std::cerr.rdbuf(&errors);
};

TEST_F(EnterIfInteractive, TakesOneLineAfterItsQuestion)
{
    enterIfInteractive(false, "Nichts");
    EXPECT_EQ(errors.str() + "|" + std::to_string(input.in_avail()), "|17");
    enterIfInteractive(true, "Druck");
    EXPECT_EQ(errors.str(), "*** Nach ENTER: Druck ... > ");
    std::string line;
    std::getline(std::cin, line);
    EXPECT_EQ(line, "second");
    enterIfInteractive(true, "Ende");
    enterIfInteractive(true, "danach");
    EXPECT_TRUE(std::cin.eof());
    EXPECT_EQ(errors.str(), "*** Nach ENTER: Druck ... > *** Nach ENTER: Ende ... > *** Nach ENTER: danach ... > ");
}

TEST_F(EnterIfInteractive, HasFlushedItsQuestionAndLeavesTheConsoleToOthersWhenItWaits)
{
    /// Has nothing typed until another thread has written.
    struct Keyboard : std::streambuf
    {
        explicit Keyboard(const CountingBuffer& errors_)
            : errors(errors_)
        {
        }
        int underflow() override
        {
            flushesBefore = errors.flushes;
            std::thread([] { safeCerr << "Band 7"; }).join();
            return traits_type::eof();
        }
        const CountingBuffer& errors;
        int flushesBefore = 0;
    } keyboard(errors);
    std::cin.rdbuf(&keyboard);
    std::cerr << std::nounitbuf;
    enterIfInteractive(true, "Druck");
    EXPECT_EQ(errors.str(), "*** Nach ENTER: Druck ... > Band 7");
    EXPECT_EQ(keyboard.flushesBefore, 1);
}
