// Data: text data files.

#include "Quorvil/GeneralException.h"
#include "Quorvil/QuorvilDataIO.h"
#include "Quorvil/QuorvilSyncLockGroup.h"
#include "tests/support/interpose.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <limits>
#include <locale>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

SUPPORT_INTERPOSE(FILE*, fdopen, (int descriptor, const char* mode), (descriptor, mode), noexcept)

namespace {

using quorvil::TextFileDataIO;
namespace fs = std::filesystem;

constexpr const char* badWrite = "TextFileDataIO: Problem beim Schreiben";
constexpr const char* badRead = "TextFileDataIO: Problem beim Lesen";
constexpr const char* notForWriting =
    "TextFileDataIO has not been opened for writing, but one of the w() method has been called.";
constexpr const char* notForReading =
    "TextFileDataIO has not been opened for reading, but one of the r() method has been called.";

/// The text of the exception that `act` throws, or "nothing".
template <typename Act>
std::string thrownBy(Act act)
{
    try {
        act();
    } catch (const util::GeneralException& exception) {
        return exception.what();
    }
    return "nothing";
}

/// The descriptors of this process that lead to `file`.
std::vector<int> descriptorsOf(const fs::path& file)
{
    std::vector<int> result;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (fs::read_symlink(entry, gone) == file)
            result.push_back(std::stoi(entry.path().filename()));
    }
    return result;
}

class TextFile : public testing::Test
{
protected:
    TextFile()
    {
        std::string pattern = fs::temp_directory_path() / "quorvilDataXXXXXX";
        folder = mkdtemp(pattern.data());
        file = folder / "state.txt";
    }
    ~TextFile() override
    {
        fs::remove_all(folder);
    }

    std::unique_ptr<TextFileDataIO> forWrite()
    {
        return std::unique_ptr<TextFileDataIO>(TextFileDataIO::forWrite(file));
    }

    std::unique_ptr<TextFileDataIO> forRead()
    {
        return std::unique_ptr<TextFileDataIO>(TextFileDataIO::forRead(file));
    }

    std::unique_ptr<TextFileDataIO> forRead(const std::string& content)
    {
        std::ofstream(file) << content;
        return forRead();
    }

    std::string content() const
    {
        std::ifstream stream(file);
        return {std::istreambuf_iterator<char>(stream), {}};
    }

    /// What `r` makes of `text`, nothing where it fails. A failed `r` must leave its target alone.
    template <typename Value>
    std::optional<Value> read(const std::string& text)
    {
        const auto io = forRead(text);
        Value value = 1;
        if (thrownBy([&] { io->r(value); }) == "nothing")
            return value;
        EXPECT_EQ(value, Value{1});
        EXPECT_EQ(thrownBy([&] { io->r(value); }), badRead) << "failure has to stay";
        return std::nullopt;
    }

    /// Writes the values, compares the file, and reads them back.
    template <typename Value>
    void expectRoundTrip(const std::vector<Value>& values, const std::string& text)
    {
        {
            const std::unique_ptr<quorvil::IDataIO> io = forWrite();
            for (const Value value : values)
                io->w(value);
        }
        EXPECT_EQ(content(), text);
        const std::unique_ptr<quorvil::IDataIO> io = forRead();
        for (const Value value : values) {
            Value restored{};
            io->r(restored);
            EXPECT_EQ(restored, value);
        }
        Value behind = values[0];
        EXPECT_EQ(thrownBy([&] { io->r(behind); }), badRead);
        EXPECT_EQ(behind, values[0]);
    }

    fs::path folder;
    fs::path file;
};

TEST_F(TextFile, HoldsOneDecimalNumberALineOfEachType)
{
    expectRoundTrip<bool>({true, false}, "1\n0\n");
    expectRoundTrip<char>({'A', '\0', '\x7F', '\x80', '\xE4', '\xFF'}, "65\n0\n127\n128\n228\n255\n");
    expectRoundTrip<signed char>({-128, -1, 0, 127}, "-128\n-1\n0\n127\n");
    expectRoundTrip<unsigned char>({0, 65, 255}, "0\n65\n255\n");
    expectRoundTrip<short>({SHRT_MIN, -1, SHRT_MAX}, "-32768\n-1\n32767\n");
    expectRoundTrip<unsigned short>({0, USHRT_MAX}, "0\n65535\n");
    expectRoundTrip<int>({INT_MIN, -5, INT_MAX}, "-2147483648\n-5\n2147483647\n");
    expectRoundTrip<unsigned int>({0, 300, UINT_MAX}, "0\n300\n4294967295\n");
}

TEST_F(TextFile, IsReadBackByTheWidthOfItsTarget)
{
    EXPECT_EQ(read<bool>("2\n"), true);
    EXPECT_EQ(read<bool>("-1\n"), true);
    EXPECT_EQ(read<bool>("00\n"), false);
    EXPECT_EQ(read<char>("321\n"), 'A');
    EXPECT_EQ(read<char>("-28\n"), '\xE4');
    EXPECT_EQ(read<signed char>("200\n"), -56);
    EXPECT_EQ(read<unsigned char>("300\n"), 44);
    EXPECT_EQ(read<unsigned short>("65539\n"), 3);
    EXPECT_EQ(read<short>("65539\n"), std::nullopt);
    EXPECT_EQ(read<short>("-32769\n"), std::nullopt);
    EXPECT_EQ(read<int>("2147483648\n"), std::nullopt);
    EXPECT_EQ(read<unsigned char>("4294967296\n"), std::nullopt);
    EXPECT_EQ(read<int>(" \t\r\n\n  010 rest"), 10);
    for (const char* const noNumber : {"", "\n", "x\n", "-\n", "\n+", "7"}) {
        EXPECT_EQ(read<bool>(noNumber), std::nullopt) << noNumber;
        EXPECT_EQ(read<char>(noNumber), std::nullopt) << noNumber;
        EXPECT_EQ(read<signed char>(noNumber), std::nullopt) << noNumber;
        EXPECT_EQ(read<unsigned char>(noNumber), std::nullopt) << noNumber;
        EXPECT_EQ(read<short>(noNumber), std::nullopt) << noNumber;
        EXPECT_EQ(read<unsigned short>(noNumber), std::nullopt) << noNumber;
        EXPECT_EQ(read<int>(noNumber), std::nullopt) << noNumber;
        EXPECT_EQ(read<unsigned int>(noNumber), std::nullopt) << noNumber;
    }
}

TEST_F(TextFile, KeepsItsFormatUnderALocaleThatGroupsDigits)
{
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
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Grouped));
    expectRoundTrip<int>({1234567}, "1234567\n");
    EXPECT_EQ(read<int>("1.234\n"), 1);
    std::locale::global(before);
}

TEST_F(TextFile, IsCutByForWriteAndStaysInItsDirection)
{
    std::ofstream(file) << "what was there before\n";
    const auto writer = forWrite();
    EXPECT_EQ(content(), "");
    int value = 3;
    EXPECT_EQ(thrownBy([&] { writer->r(value); }), notForReading);
    writer->w(5);
    writer->close();

    const auto reader = forRead();
    EXPECT_EQ(thrownBy([&] { reader->w(6); }), notForWriting);
    EXPECT_EQ(thrownBy([&] { reader->w(6U); }), notForWriting);
    EXPECT_EQ(thrownBy([&] { reader->close(); }), "nothing");
    reader->r(value);
    EXPECT_EQ(value, 5);
    EXPECT_EQ(content(), "5\n");

    TextFileDataIO neither(file);
    short narrow = 4;
    EXPECT_EQ(thrownBy([&] { neither.w(true); }), notForWriting);
    EXPECT_EQ(thrownBy([&] { neither.r(narrow); }), notForReading);
    EXPECT_EQ(thrownBy([&] { neither.close(); }), "nothing");
    EXPECT_EQ(narrow, 4);
}

TEST_F(TextFile, GoesThroughTheWideOperations)
{
    class Doubling : public TextFileDataIO
    {
    public:
        Doubling()
            : TextFileDataIO("")
        {
        }
        using TextFileDataIO::r;
        using TextFileDataIO::w;
        void w(int value) override
        {
            calls += "i" + std::to_string(value);
        }
        void w(unsigned int value) override
        {
            calls += "u" + std::to_string(value);
        }
        void r(int& value) override
        {
            value = 7;
        }
        void r(unsigned int& value) override
        {
            value = 8;
        }
        std::string calls;
    } io;
    io.w(true);
    io.w('\xE4');
    io.w(static_cast<signed char>(-3));
    io.w(static_cast<short>(-4));
    io.w(static_cast<unsigned char>(5));
    io.w(static_cast<unsigned short>(6));
    EXPECT_EQ(io.calls, "i1i228i-3i-4u5u6");
    bool truth = false;
    char character = 0;
    signed char small = 0;
    unsigned char byte = 0;
    unsigned short word = 0;
    io.r(truth);
    io.r(character);
    io.r(small);
    io.r(byte);
    io.r(word);
    EXPECT_TRUE(truth);
    EXPECT_EQ(character + small + byte + word, 7 + 7 + 8 + 8);
    short own = 0;
    EXPECT_EQ(thrownBy([&] { io.r(own); }), notForReading);
}

TEST_F(TextFile, ThatCannotBeOpenedIsNamedAndNothingLeaks)
{
    const auto descriptors = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
    const auto before = descriptors();
    fs::create_symlink("loop", folder / "loop");
    for (const fs::path& path : {folder / "missing" / "state.txt", folder / "loop", folder / std::string(300, 'n')}) {
        EXPECT_EQ(thrownBy([&] { TextFileDataIO::forWrite(path); }), "Kann nicht in Datei schreiben: " + path.string());
        EXPECT_EQ(thrownBy([&] { TextFileDataIO::forRead(path); }), "Kann nicht von Datei lesen: " + path.string());
    }
    EXPECT_EQ(thrownBy([&] { TextFileDataIO::forRead(file); }), "Kann nicht von Datei lesen: " + file.string());
    EXPECT_EQ(thrownBy([&] { TextFileDataIO::forWrite(folder); }), "Kann nicht in Datei schreiben: " + folder.string());
    for (int direction = 0; direction < 2; ++direction) {
        const support::FaultScope fault(fdopenFault, 0, ENOMEM);
        EXPECT_NE(thrownBy([&] { direction ? TextFileDataIO::forRead("/dev/null") : TextFileDataIO::forWrite(file); }),
                  "nothing");
    }
    EXPECT_EQ(descriptors(), before);
}

TEST_F(TextFile, ThatTheSystemDoesNotReadFailsTheRead)
{
    const std::unique_ptr<TextFileDataIO> io(TextFileDataIO::forRead(folder));
    int value = 3;
    EXPECT_EQ(thrownBy([&] { io->r(value); }), badRead);
    EXPECT_EQ(value, 3);
}

TEST_F(TextFile, IsClosedByCloseOrAtTheEndAndNotInherited)
{
    for (const bool closing : {true, false}) {
        auto io = forWrite();
        io->w(7);
        const std::vector<int> open = descriptorsOf(file);
        ASSERT_EQ(open.size(), 1U);
        EXPECT_TRUE(fcntl(open[0], F_GETFD) & FD_CLOEXEC);
        if (closing) {
            io->close();
            EXPECT_EQ(descriptorsOf(file).size(), 0U);
            EXPECT_EQ(thrownBy([&] { io->close(); }), "nothing");
            EXPECT_EQ(thrownBy([&] { io->w(8); }), badWrite);
        }
        io.reset();
        EXPECT_EQ(content(), "7\n");
        EXPECT_EQ(descriptorsOf(file).size(), 0U);
    }
    auto io = forRead();
    const std::vector<int> open = descriptorsOf(file);
    ASSERT_EQ(open.size(), 1U);
    EXPECT_TRUE(fcntl(open[0], F_GETFD) & FD_CLOEXEC);
    io.reset();
    EXPECT_EQ(descriptorsOf(file).size(), 0U);
}

TEST(TextFileOnAFullDisk, FailsAtTheWriteThatFindsOutAndStaysFailed)
{
    const std::unique_ptr<TextFileDataIO> io(TextFileDataIO::forWrite("/dev/full"));
    std::string failure = "nothing";
    int written = 0;
    while (failure == "nothing" && written < 1000000) {
        failure = thrownBy([&] { io->w(written); });
        ++written;
    }
    EXPECT_EQ(failure, badWrite);
    EXPECT_EQ(thrownBy([&] { io->w(1U); }), badWrite);
    EXPECT_EQ(thrownBy([&] { io->close(); }), badWrite);
    EXPECT_EQ(thrownBy([&] { io->close(); }), "nothing");
}

TEST(TextFileOnAFullDisk, TellsInCloseWhatTheDestructorKeepsToItself)
{
    for (const bool closing : {true, false}) {
        std::unique_ptr<TextFileDataIO> io(TextFileDataIO::forWrite("/dev/full"));
        io->w(5);
        testing::internal::CaptureStdout();
        if (closing) {
            EXPECT_EQ(thrownBy([&] { io->close(); }), badWrite);
        }
        io.reset();
        const std::string announced = std::string("[WARN Quorvil/GeneralException:65]    Constructing GeneralException "
                                                  "with msg ") +
                                      badWrite + "\n";
        EXPECT_EQ(testing::internal::GetCapturedStdout(), closing ? announced : "");
    }
}

TEST(BufferToFileThread, DoesNothing)
{
    const auto threads = [] { return std::distance(fs::directory_iterator("/proc/self/task"), {}); };
    const auto before = threads();
    quorvil::sync::LockGroup lock;
    unsigned char buffer[4] = {1, 2, 3, 4};
    unsigned char* read = buffer + 1;
    unsigned char* write = buffer + 2;
    quorvil::BufferToFileThread thread;
    thread.start(-1, lock, buffer, sizeof buffer, read, write);
    thread.start(STDOUT_FILENO, lock, nullptr, 0, read, write);
    EXPECT_EQ(threads(), before);
    thread.run();
    thread.join();
    EXPECT_TRUE(read == buffer + 1 && write == buffer + 2);
    EXPECT_TRUE(std::equal(std::begin(buffer), std::end(buffer), "\1\2\3\4"));
}

} // namespace
