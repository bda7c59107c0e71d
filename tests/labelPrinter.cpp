#include "Failure.h"
#include "ResultFiles.h"
#include "RunLengthFile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <png.h>
#include <poll.h>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

/// A picture as the tests see it: a row is a text of '0' and '1'.
using Rows = std::vector<std::string>;

std::string bytesOf(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void put(const fs::path& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

Rows unpacked(const std::string& raster, int width, int height)
{
    Rows rows(static_cast<size_t>(height));
    const size_t pitch = static_cast<size_t>(width + 7) / 8;
    for (size_t y = 0; y < rows.size(); ++y)
        for (size_t x = 0; x < static_cast<size_t>(width); ++x)
            rows[y] += (raster.at(y * pitch + x / 8) & 0x80 >> x % 8) != 0 ? '1' : '0';
    return rows;
}

/// Reads a PBM file of the simplest kind, raw, or plain with one comment line.
Rows readPbm(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    std::string kind;
    int width = 0;
    int height = 0;
    std::getline(file, kind);
    if (file.peek() == '#')
        file.ignore(1000, '\n');
    file >> width >> height;
    file.ignore();
    Rows rows;
    if (kind != "P1")
        return unpacked({std::istreambuf_iterator<char>(file), {}}, width, height);
    for (std::string row; std::getline(file, row);)
        rows.push_back(row);
    return rows;
}

Rows readPng(const fs::path& path)
{
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    if (png_image_begin_read_from_file(&image, path.c_str()) == 0)
        return {image.message};
    image.format = PNG_FORMAT_GRAY;
    std::string grey(PNG_IMAGE_SIZE(image), '\0');
    if (png_image_finish_read(&image, nullptr, grey.data(), 0, nullptr) == 0)
        return {image.message};
    Rows rows(image.height);
    for (size_t i = 0; i < grey.size(); ++i)
        rows[i / image.width] += grey[i] == '\0' ? '1' : grey[i] == '\xFF' ? '0' : '?';
    return rows;
}

/// The part of a picture; a solid one is made of itself.
Rows cut(const Rows& picture, int x, int y, int width, int height)
{
    Rows part;
    for (int row = y; row < y + height; ++row)
        part.push_back(picture[static_cast<size_t>(row)].substr(static_cast<size_t>(x), static_cast<size_t>(width)));
    return part;
}

/// What a job should give: everything drawn is a picture, put down pixel by pixel. It takes only jobs without a fault.
std::vector<Rows> model(const fs::path& jobPath)
{
    std::vector<Rows> results;
    for (int page = 0, pages = 1; page < pages; ++page) {
        Rows canvas;
        int width = 0, height = 0, left = 0, top = 0, right = 0, bottom = 0;
        std::ifstream job(jobPath);
        for (std::string text; std::getline(job, text);) {
            std::istringstream line(text.substr(0, text.find('#')));
            std::vector<std::string> words{std::istream_iterator<std::string>(line), {}};
            auto number = [&](size_t i, int otherwise) { return i < words.size() ? std::stoi(words[i]) : otherwise; };
            int columns = 1, rows = 1, stepX = 0, stepY = 0;
            if (!words.empty() && words[0] == "repeat") {
                columns = number(1, 0), rows = number(2, 0), stepX = number(3, 0), stepY = number(4, 0);
                words.erase(words.begin(), words.begin() + 5);
            }
            const std::string name = words.empty() ? "" : words[0];
            int x = 0, y = 0;
            Rows drawn;
            if (name == "page") {
                right = width = number(1, 0), bottom = height = number(2, 0);
                canvas.assign(static_cast<size_t>(height), std::string(static_cast<size_t>(width), '0'));
            } else if (name == "pages") {
                pages = number(1, 0);
            } else if (name == "clip") {
                left = std::max(number(1, 0), 0), right = std::min(number(1, 0) + number(3, 0), width);
                top = std::max(number(2, 0), 0), bottom = std::min(number(2, 0) + number(4, 0), height);
            } else if (name == "unclip") {
                left = top = 0, right = width, bottom = height;
            } else if (name == "fill" || name == "invert") {
                x = number(1, 0), y = number(2, 0);
                drawn.assign(static_cast<size_t>(number(4, 0)), std::string(static_cast<size_t>(number(3, 0)), '1'));
            } else if (name == "image" || name == "serial" || name == "serialPairs") {
                drawn = readPbm(jobPath.parent_path() / words[1]);
                x = number(2, 0), y = number(3, 0);
            }
            if (name == "image" && words.size() > 4) {
                drawn = cut(drawn, number(4, 0), number(5, 0), number(6, 0), number(7, 0));
            } else if (name.starts_with("serial")) {
                const size_t perCell = name == "serial" ? 1 : 2;
                const auto cellWidth = static_cast<int>(drawn[0].size() / (perCell == 1 ? 10 : 100));
                std::string serial = std::to_string(number(5, 1) + page * number(6, 1));
                serial.insert(0, static_cast<size_t>(number(4, 0)) - serial.size(), '0');
                Rows joined(drawn.size());
                for (size_t i = 0; i < serial.size(); i += perCell)
                    for (size_t row = 0; row < drawn.size(); ++row)
                        joined[row] +=
                            drawn[row].substr(static_cast<size_t>(std::stoi(serial.substr(i, perCell)) * cellWidth),
                                              static_cast<size_t>(cellWidth));
                drawn = joined;
            }
            for (int copy = 0; copy < columns * rows; ++copy)
                for (size_t v = 0; v < drawn.size(); ++v)
                    for (size_t u = 0; u < drawn[v].size(); ++u) {
                        const int toX = x + copy % columns * stepX + static_cast<int>(u);
                        const int toY = y + copy / columns * stepY + static_cast<int>(v);
                        if (drawn[v][u] == '0' || toX < left || toX >= right || toY < top || toY >= bottom)
                            continue;
                        char& pixel = canvas[static_cast<size_t>(toY)][static_cast<size_t>(toX)];
                        pixel = name == "invert" && pixel == '1' ? '0' : '1';
                    }
        }
        results.push_back(canvas);
    }
    return results;
}

struct Outcome
{
    int code;
    std::string out, err;
    /// What stood behind `err`, without its frame.
    std::optional<std::string> trace;
};

/// Takes the records of pages off the head of `text`, and gives the names in them.
std::vector<std::string> takeRecords(std::string& text)
{
    std::vector<std::string> names;
    for (size_t total = 0; (total = text.find("===== Insgesamt: ")) != std::string::npos;) {
        std::istringstream record(text.substr(0, total));
        for (std::string line; std::getline(record, line);) {
            const size_t colon = line.find(':');
            // Nineteen digits, grouped by threes.
            if (colon != std::string::npos && line.find(" ns    (first + ") == colon + 27 && line[colon + 3] == ' ')
                names.push_back(line.substr(0, line.find_last_not_of(' ', colon - 1) + 1));
            else if (line != "=====> Achtung 1ms ueberschritten")
                names.push_back("unexpected: " + line);
        }
        const size_t end = text.find("\n\n", total);
        text.erase(0, end == std::string::npos ? end : end + 2);
    }
    return names;
}

const std::vector<std::string> stations{"composed",    "pbm encoded", "pbm on disk", "png encoded",
                                        "png on disk", "qrl encoded", "qrl on disk"};

/// The names in the records of `pages` pages, where the last one came `reached` stations far and was broken off.
std::vector<std::string> namesOf(int pages, size_t reached)
{
    std::vector<std::string> names;
    for (int page = 1; page <= pages; ++page) {
        names.push_back("page " + std::to_string(page));
        const bool whole = page < pages || reached == stations.size();
        names.insert(names.end(), stations.begin(),
                     whole ? stations.end() : stations.begin() + std::ptrdiff_t(reached));
        if (!whole)
            names.push_back("broken off");
    }
    return names;
}

/// Each test has a folder of its own: `in` for jobs, `out` for results and nothing else.
class LabelPrinter : public testing::Test
{
protected:
    LabelPrinter()
    {
        std::string name = testing::TempDir() + "labelPrinterXXXXXX";
        folder = mkdtemp(name.data());
        fs::create_directories(folder / "in");
        fs::create_directories(folder / "out");
        put(job(), "page 8 8\n");
    }

    ~LabelPrinter() override
    {
        fs::remove_all(folder);
    }

    fs::path job() const
    {
        return folder / "in" / "a.label";
    }

    fs::path out(const std::string& name = "a") const
    {
        return folder / "out" / name;
    }

    /// Starts the program. `prepare` runs in the child before it.
    template <typename Prepare>
    pid_t start(const std::vector<std::string>& arguments, int outDescriptor, Prepare prepare) const
    {
        std::vector<std::string> words;
        std::istringstream command(LABEL_PRINTER);
        for (std::string word; std::getline(command, word, '|');)
            if (!word.empty())
                words.push_back(word);
        words.insert(words.end(), arguments.begin(), arguments.end());
        std::vector<char*> pointers;
        for (std::string& word : words)
            pointers.push_back(word.data());
        pointers.push_back(nullptr);
        const pid_t child = fork();
        if (child == 0) {
            const int errors = open((folder / "err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            if (dup2(outDescriptor, STDOUT_FILENO) >= 0 && dup2(errors, STDERR_FILENO) >= 0 && prepare())
                execvp(pointers[0], pointers.data());
            _exit(126);
        }
        return child;
    }

    template <typename Prepare>
    Outcome run(const std::vector<std::string>& arguments, Prepare prepare) const
    {
        const int descriptor = open((folder / "stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        const Outcome outcome = finish(start(arguments, descriptor, prepare));
        close(descriptor);
        return outcome;
    }

    Outcome run(const std::vector<std::string>& arguments) const
    {
        return run(arguments, [] { return true; });
    }

    Outcome finish(pid_t child) const
    {
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
        Outcome outcome{code, bytesOf(folder / "stdout"), bytesOf(folder / "err"), std::nullopt};
        const std::string head = "\n\n======== LIMITED BUFFER CONTENT ========\n\n";
        const std::string foot = "\n==============\n\n";
        const size_t at = outcome.err.find(head);
        if (at != std::string::npos && outcome.err.ends_with(foot)) {
            outcome.trace = outcome.err.substr(at + head.size(), outcome.err.size() - at - head.size() - foot.size());
            outcome.err.erase(at);
        }
        return outcome;
    }

    std::set<std::string> results() const
    {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(folder / "out"))
            names.insert(entry.path().filename());
        return names;
    }

    /// One line and the trace on the standard error output, exit code 1, no result.
    void expectFailure(const Outcome& outcome, const std::string& message) const
    {
        EXPECT_EQ(outcome.code, 1);
        EXPECT_EQ(outcome.err, "labelPrinter: " + message + "\n");
        EXPECT_TRUE(outcome.trace);
        EXPECT_EQ(results(), std::set<std::string>());
    }

    /// Prints the job and compares all that comes out with the model.
    void expectAsTheModel(const fs::path& jobPath) const
    {
        const Outcome outcome = run({jobPath, "-o", out()});
        ASSERT_EQ(outcome.code, 0) << outcome.err;
        EXPECT_NE(outcome.out.find(" ms, all done in "), std::string::npos) << outcome.out;
        const std::vector<Rows> pages = model(jobPath);
        std::set<std::string> names;
        for (size_t page = 1; page <= pages.size(); ++page) {
            char number[32] = "";
            if (pages.size() > 1)
                std::snprintf(number, sizeof number, "-%04zu", page);
            const std::string name = std::string("a") + number;
            names.insert({name + ".pbm", name + ".png", name + ".qrl"});
            EXPECT_EQ(readPbm(out(name + ".pbm")), pages[page - 1]) << name;
            EXPECT_EQ(readPng(out(name + ".png")), pages[page - 1]) << name;
            // The format has no slack: rows of whole bytes, padding 0, nothing behind.
            const Outcome shown = run({"--show", out(name + ".qrl")});
            EXPECT_EQ(shown.code, 0) << shown.err;
            EXPECT_TRUE(shown.out == bytesOf(out(name + ".pbm"))) << name;
        }
        EXPECT_EQ(results(), names);
    }

    fs::path folder;
};

std::string packed(const Rows& rows, bool paddingBit)
{
    std::string bytes = "P4\n" + std::to_string(rows[0].size()) + " " + std::to_string(rows.size()) + "\n";
    for (const std::string& row : rows)
        for (size_t x = 0; x < row.size(); x += 8) {
            unsigned byte = 0;
            for (size_t bit = x; bit < x + 8; ++bit)
                byte = byte << 1 | (bit < row.size() ? row[bit] == '1' : paddingBit ? 1U : 0U);
            bytes += static_cast<char>(byte);
        }
    return bytes;
}

TEST_F(LabelPrinter, ComposesRandomJobsAsTheModelDoes)
{
    std::mt19937 random(20240514);
    auto between = [&](int smallest, int largest) {
        return smallest + static_cast<int>(random() % static_cast<unsigned>(largest - smallest + 1));
    };
    for (int round = 0; round < 6; ++round) {
        const int width = between(1, 90);
        const int height = between(1, 600);
        std::ostringstream text;
        text << "page " << width << ' ' << height << " # the size\n\npages " << between(2, 3) << "\n";
        for (int file = 0; file < 4; ++file) {
            const int unit = file == 2 ? 10 : file == 3 ? 100 : 1;
            Rows rows(static_cast<size_t>(between(1, 20)), std::string(static_cast<size_t>(unit * between(1, 9)), '0'));
            for (std::string& row : rows)
                for (char& pixel : row)
                    pixel = static_cast<char>('0' + between(0, 1));
            put(folder / "in" / ("picture" + std::to_string(file)), packed(rows, round % 2 == 0));
        }
        for (int statement = 0; statement < 40; ++statement) {
            auto at = [&] {
                return " " + std::to_string(between(-20, width)) + " " + std::to_string(between(-20, height));
            };
            auto size = [&] { return " " + std::to_string(between(1, 80)) + " " + std::to_string(between(1, 400)); };
            const std::string spot = at();
            const std::string extent = size();
            if (between(0, 2) == 0)
                text << "repeat " << between(1, 4) << ' ' << between(1, 4) << ' ' << between(-30, 30) << ' '
                     << between(-30, 30) << ' ';
            switch (between(0, 5)) {
            case 0:
                text << "fill" << spot << " " << between(1, 9) << ' ' << between(1, 400) << "\n";
                break;
            case 1:
                text << "invert" << spot << extent << "\n";
                break;
            case 2:
                text << "serial picture2" << spot << " 3 " << between(4, 900) << ' ' << between(-2, 7) << "\n";
                break;
            case 3:
                text << "serialPairs picture3" << spot << " 4\n";
                break;
            case 4:
                text << "image picture3" << spot << " " << between(0, 50) << " 0 " << between(1, 50) << " 1\n";
                break;
            default:
                text << "image picture" << between(0, 1) << spot << "\n";
            }
            if (between(0, 9) == 0)
                text << "clip " << between(-9, width - 1) << ' ' << between(-9, height - 1) << " 10 300\n";
            if (between(0, 3) == 0)
                text << "unclip\n";
        }
        text << "clip 0 0 1 1\n"; // which must not reach the next page
        put(job(), text.str());
        fs::remove_all(folder / "out");
        fs::create_directories(folder / "out");
        expectAsTheModel(job());
        if (HasFailure())
            FAIL() << text.str();
    }
}

TEST_F(LabelPrinter, PrintsTheShippedJobs)
{
    fs::copy(LABEL_PRINTER_JOBS, folder / "jobs");
    expectAsTheModel(folder / "jobs" / "shipping.label");
    const std::string png = bytesOf(out("a.png"));
    EXPECT_EQ(png.at(24), 1) << "one bit a pixel";
    EXPECT_NE(png.find(std::string("pHYs\0\0\x5C\x46\0\0\x5C\x46\1", 13)), std::string::npos) << "600 dots an inch";
    const Outcome shown = run({"-o", out("again"), "--show", out("a.qrl")});
    EXPECT_EQ(shown.code, 0) << shown.err;
    EXPECT_TRUE(bytesOf(out("again.png")) == png);
    EXPECT_TRUE(bytesOf(out("again.pbm")) == bytesOf(out("a.pbm")));
    for (const std::string& name : results())
        fs::remove(out(name));

    const fs::path stock = folder / "jobs" / "serial.label";
    std::string text = bytesOf(stock);
    const size_t pages = text.find("pages 400");
    ASSERT_NE(pages, std::string::npos);
    put(stock, text.replace(pages, 9, "pages 2"));
    expectAsTheModel(stock);
}

TEST_F(LabelPrinter, TellsFileAndLineOfAFaultInTheJob)
{
    put(folder / "in" / "good.pbm", "P1 3 2 101 010");
    put(folder / "in" / "digits.pbm", packed(Rows(1, std::string(200, '1')), false));
    const std::string directory = (folder / "in").string();
    const struct
    {
        std::string text, message;
    } rows[] = {
        {"", "1: the job has no 'page WIDTH HEIGHT'"},
        {"# nothing\n", "2: the job has no 'page WIDTH HEIGHT'"},
        {"dpi 600\npage 8 8", "1: 'page WIDTH HEIGHT' must come first"},
        {"page 8 8\npage 8 8", "2: a second 'page'"},
        {"page 8 8\ndpi 600\n\ndpi 600", "4: a second 'dpi'"},
        {"page 8 8\npages 2\npages 3", "3: a second 'pages'"},
        {std::string("page 8 8\nimage good.pbm\0x 0 0", 29), "2: the line holds a NUL byte"},
        {"page 8", "1: expected 'page WIDTH HEIGHT'"},
        {"page 8 8 8", "1: expected 'page WIDTH HEIGHT'"},
        {"page 20001 8", "1: WIDTH is not between 1 and 20000: '20001'"},
        {"page 8 0", "1: HEIGHT is not between 1 and 20000: '0'"},
        {"page 8 18446744073709551624", "1: HEIGHT is not between 1 and 20000: '18446744073709551624'"},
        {"page 8 000000000000000020001", "1: HEIGHT is not between 1 and 20000: '000000000000000020001'"},
        {"page 8 -000000000000000000008", "1: HEIGHT is not between 1 and 20000: '-000000000000000000008'"},
        {"page 8 0x10000000000000008", "1: HEIGHT is not between 1 and 20000: '0x10000000000000008'"},
        {"page -99999999999999999999 8", "1: WIDTH is not between 1 and 20000: '-99999999999999999999'"},
        {"page 0x1g 8", "1: WIDTH is no number: '0x1g'"},
        {"page 8 -", "1: HEIGHT is no number: '-'"},
        {"page \"\" 8", "1: WIDTH is no number: ''"},
        {"page 8 8.5", "1: HEIGHT is no number: '8.5'"},
        {"page 8 \"8 \"", "1: HEIGHT is no number: '8 '"},
        {"page 8 \"8", "1: a quote is not closed"},
        {"page 8 8\n\n\ndpi 0", "4: DOTS is not between 1 and 10000: '0'"},
        {"page 8 8\npages 10000", "2: COUNT is not between 1 and 9999: '10000'"},
        {"page 8 8\r\nfil\x1B 1\r\n", "2: unknown word 'fil?'"},
        {"page 8 8\n" + std::string(100, 'x'), "2: unknown word '" + std::string(60, 'x') + "...'"},
        {"page 8 8\n" + std::string(5000, 'x'), "2: the line is too long"},
        {"page 8 8" + std::string(100000, '\n'), "100001: the job is too long"},
        {"page 8 8\nclip 8 0 1 1", "2: nothing of the clip rectangle lies on the page"},
        {"page 8 8\nclip 0 -3 1 3", "2: nothing of the clip rectangle lies on the page"},
        {"page 8 8\nclip 0 0 1 0", "2: HEIGHT is not between 1 and 20000: '0'"},
        {"page 8 8\nunclip 1", "2: expected 'unclip'"},
        {"page 8 8\nfill 20001 0 1 1", "2: X is not between -20000 and 20000: '20001'"},
        {"page 8 8\nrepeat 1 1 0 0", "2: expected 'repeat COLUMNS ROWS DX DY STATEMENT'"},
        {"page 8 8\nrepeat 1 1 0 0 clip 0 0 1 1", "2: 'clip' cannot be repeated"},
        {"page 8 8\nrepeat 1 1 0 0 repeat 1 1 0 0 fill 0 0 1 1", "2: 'repeat' cannot be repeated"},
        {"page 8 8\nrepeat 1 1001 0 0 fill 0 0 1 1", "2: ROWS is not between 1 and 1000: '1001'"},
        {"page 8 8\nimage good.pbm 0", "2: expected 'image FILE X Y [PARTX PARTY WIDTH HEIGHT]'"},
        {"page 8 8\nimage good.pbm 0 0 1", "2: a part of a picture needs 'PARTX PARTY WIDTH HEIGHT'"},
        {"page 8 8\nimage good.pbm 0 0 1 0 3 1", "2: the part does not lie inside the picture of 3 x 2 pixels"},
        {"page 8 8\nimage good.pbm 0 0 0 -1 3 1", "2: the part does not lie inside the picture of 3 x 2 pixels"},
        {"page 8 8\nimage none.pbm 0 0", "2: " + directory + "/none.pbm: No such file or directory"},
        {"page 8 8\nimage \"no ne\" 0 0", "2: " + directory + "/no ne: No such file or directory"},
        {"page 8 8\nimage \"\" 0 0", "2: the picture's name is empty"},
        {"page 8 8\nimage \x1B[1m\xC2\x9B\xC3\x84\x7F 0 0",
         "2: " + directory + "/?[1m?\xC3\x84?: No such file or directory"},
        {"page 8 8\nimage . 0 0", "2: " + directory + "/.: Is a directory"},
        {"page 8 8\nimage /dev/null 0 0", "2: /dev/null: no PBM picture (it does not begin with P1 or P4)"},
        {"page 8 8\nserial good.pbm 0 0 1", "2: a strip of 10 cells cannot be 3 pixels wide"},
        {"page 8 8\nserialPairs digits.pbm 0 0 3", "2: pairs need an even number of digits"},
        {"page 8 8\nserial digits.pbm 0 0 19", "2: DIGITS is not between 1 and 18: '19'"},
        {"page 8 8\nserial digits.pbm 0 0 2 98\npages 3", "2: the serial number 100 does not fit 2 digits"},
        {"page 8 8\nserial digits.pbm 0 0 2 100 -1\npages 3", "2: the serial number 100 does not fit 2 digits"},
        {"page 8 8\nserial digits.pbm 0 0 2 1 -1\npages 3", "2: the serial number -1 does not fit 2 digits"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text.substr(0, 200));
        put(job(), row.text);
        expectFailure(run({job(), "-o", out()}), job().string() + ":" + row.message);
    }
}

TEST_F(LabelPrinter, ReadsThePbmFormatAsItIs)
{
    const std::string picture = (folder / "in" / "p").string();
    const struct
    {
        std::string bytes;
        Rows rows;
        std::string message;
    } rows[] = {
        {"P1\n3 2\n101\n010\n", {"101", "010"}, ""},
        {"P1 3 2 1 0\t1 0 1 0", {"101", "010"}, ""},
        {"P1#a\n#b\r3#c\n2\n1#d\n01010\nanything 0101", {"101", "010"}, ""},
        {std::string("P4\n# made by hand\n9 2\n\xAA\xFF\x01\x7F", 26), {"101010101", "000000010"}, ""},
        {"P4 2 1#c\n\x80", {"10"}, ""},
        {"P4 1 1\n#", {"0"}, ""},
        {"P4 1 1\n\xFFP4 1 1\n", {"1"}, ""},
        {"P4 1 1\n\xFFP5", {}, "what stands behind the picture is no further picture"},
        {"P4 1 1\n\xFF\n", {}, "what stands behind the picture is no further picture"},
        {"P1 3 1 1010", {}, "the picture goes on behind its last row"},
        {"P1 3 2 101 01", {}, "the file ends in row 2 of 2"},
        {"P1 3 2 101 012", {}, "row 2 holds something else than 0 and 1"},
        {"P4 9 2\n\x01\x02\x03", {}, "the file ends in row 2 of 2"},
        {"P4 9 2\n", {}, "the file ends in row 1 of 2"},
        {"P4 9", {}, "the file ends before its height"},
        {"P4 9 ", {}, "the file ends before its height"},
        {"P1", {}, "the file ends before its width"},
        {"P4 0 1\n", {}, "the width is 0 pixels"},
        {"P4 1 20001\n", {}, "the height is above 20000 pixels"},
        {"P4 4294967297 1\n\x80", {}, "the width is above 20000 pixels"},
        {"P4 -1 1\n", {}, "the width is no number"},
        {"P4 1x 1\n", {}, "the width is no number"},
        {"P5 1 1 255\n1", {}, "no PBM picture (it does not begin with P1 or P4)"},
        {"", {}, "no PBM picture (it does not begin with P1 or P4)"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.bytes);
        put(picture, row.bytes);
        if (!row.message.empty()) {
            put(job(), "page 8 8\nimage p 0 0");
            expectFailure(run({job(), "-o", out()}), job().string() + ":2: " + picture + ": " + row.message);
            continue;
        }
        // Ahead of it a byte order mark and more zeros than a number has digits.
        put(job(), "\xEF\xBB\xBFpage 00000000000000000000" + std::to_string(row.rows[0].size()) +
                       " 0x00000000000000000000" + std::to_string(row.rows.size()) + "\nimage p 0 0");
        EXPECT_EQ(run({job(), "-o", out()}).code, 0);
        EXPECT_EQ(readPbm(out("a.pbm")), row.rows);
        for (const std::string& name : results())
            fs::remove(out(name));
    }
}

TEST_F(LabelPrinter, KnowsItsCommandLine)
{
    const std::string name = job();
    const struct
    {
        std::vector<std::string> arguments;
        int code;
        std::string out, err;
    } rows[] = {
        {{"--help"}, 0, "usage: labelPrinter JOB.label -o OUT [--times]", ""},
        {{}, 2, "", "labelPrinter: one job is needed\nusage: "},
        {{"-o", out()}, 2, "", "labelPrinter: one job is needed\nusage: "},
        {{name}, 2, "", "labelPrinter: -o OUT is needed\nusage: "},
        {{"", "-o", out()}, 2, "", "labelPrinter: one job is needed\nusage: "},
        {{name, name, "-o", out()}, 2, "", "labelPrinter: one job is needed\nusage: "},
        {{name, "-o"}, 2, "", "labelPrinter: an option misses its word\nusage: "},
        {{name, "-o", ""}, 2, "", "labelPrinter: an option needs the name of a file\nusage: "},
        {{name, "-o", folder.string() + "/out/"}, 2, "", "labelPrinter: an option needs the name of a file\nusage: "},
        {{"-x"}, 2, "", "labelPrinter: unknown option\nusage: "},
        {{"--show", name, name}, 2, "", "labelPrinter: --show takes one file and no job\nusage: "},
        {{"--show", name, "--times"}, 2, "", "labelPrinter: --show takes one file and no job\nusage: "},
        {{"--show", name, "--trace"}, 2, "", "labelPrinter: --show takes one file and no job\nusage: "},
        {{"--show", name}, 1, "", "labelPrinter: " + name + ": "},
        {{"--show", out()}, 1, "", "labelPrinter: " + out().string() + ": No such file or directory\n"},
        {{name + "x", "-o", out()}, 1, "", "labelPrinter: " + name + "x: No such file or directory\n"},
    };
    for (const auto& row : rows) {
        const Outcome outcome = run(row.arguments);
        EXPECT_EQ(outcome.code, row.code) << outcome.err;
        EXPECT_EQ(outcome.out.substr(0, row.out.size()), row.out);
        EXPECT_EQ(outcome.err.substr(0, row.err.size()), row.err);
        EXPECT_EQ(outcome.out.empty(), row.out.empty()) << outcome.out;
        EXPECT_EQ(outcome.err.empty(), row.err.empty()) << outcome.err;
        EXPECT_EQ(outcome.trace.has_value(), row.code == 1 && row.arguments[0] != "--show");
        EXPECT_EQ(results(), std::set<std::string>());
    }
}

TEST_F(LabelPrinter, LeavesTheFolderAsItWasWhenItCannotWrite)
{
    expectFailure(run({job(), "-o", folder / "none" / "a"}),
                  (folder / "none" / "a.pbm").string() + ": No such file or directory");
    fs::permissions(folder / "out", fs::perms(0555));
    expectFailure(run({job(), "-o", out()}, [] { return geteuid() != 0 || prctl(PR_CAPBSET_DROP, 1) == 0; }),
                  out("a.pbm").string() + ": Permission denied");
    fs::permissions(folder / "out", fs::perms(0755));

    // Sizes at which the PBM, the PNG and the run-length file of the first or second page no longer fit.
    put(job(), "page 100 100\npages 2\nrepeat 9 9 11 11 fill 0 0 5 5");
    ASSERT_EQ(run({job(), "-o", folder / "whole"}).code, 0);
    for (const std::string kind : {".pbm", ".png", ".qrl"}) {
        const rlim_t room = fs::file_size(folder / ("whole-0002" + kind)) - 1;
        const Outcome outcome = run({job(), "-o", out()}, [room] {
            const rlimit limit{room, room};
            return setrlimit(RLIMIT_FSIZE, &limit) == 0;
        });
        EXPECT_EQ(outcome.code, 1);
        EXPECT_NE(outcome.err.find(": File too large\n"), std::string::npos) << outcome.err;
        EXPECT_EQ(results(), std::set<std::string>()) << kind;
    }

    // A result that cannot be put in its place, and one that must not.
    fs::create_directory(out("a-0002.qrl"));
    put(out("a-0001.png"), "old");
    Outcome outcome = run({job(), "-o", out()});
    EXPECT_EQ(outcome.err, "labelPrinter: " + out("a-0002.qrl").string() + ": Is a directory\n");
    EXPECT_EQ(results(), (std::set<std::string>{"a-0001.png", "a-0002.qrl"}));
    EXPECT_EQ(bytesOf(out("a-0001.png")), "old");
    fs::remove(out("a-0002.qrl"));
    EXPECT_EQ(run({job(), "-o", out()}).code, 0);
    EXPECT_EQ(results().size(), 6U);
    EXPECT_NE(bytesOf(out("a-0001.png")), "old");
    put(job(), "page 8 8\nimage ../out/a-0002.pbm 0 0");
    outcome = run({job(), "-o", out("a-0002")});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.err, "labelPrinter: " + out("a-0002.pbm").string() + ": would replace " +
                               (folder / "in" / "../out/a-0002.pbm").string() + ", which the job is made of\n");
    EXPECT_EQ(results().size(), 6U);

    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    outcome = finish(start({"--show", out("a-0001.qrl")}, full, [] { return true; }));
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.err, "labelPrinter: the standard output cannot be written\n");
    put(job(), "page 8 8");
    outcome = finish(start({job(), "-o", out("late")}, full, [] { return true; }));
    close(full);
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.err, "labelPrinter: the standard output cannot be written; all results are in place\n");
    EXPECT_EQ(results().size(), 9U);
}

TEST_F(LabelPrinter, TellsHowManyResultsAreInPlaceWhenARenameFails)
{
    auto outcome = [&](const std::vector<std::string>& names, const std::string& inTheWay) -> std::string {
        labelPrinter::ResultFiles files;
        for (const std::string& name : names)
            files.create(out(name)).finish();
        fs::create_directory(out(inTheWay));
        try {
            files.keep();
            return "kept";
        } catch (const labelPrinter::Failure& failure) {
            return failure.what();
        }
    };
    EXPECT_EQ(outcome({"a", "b"}, "a"), out("a").string() + ": Is a directory");
    EXPECT_EQ(results(), std::set<std::string>({"a"}));
    EXPECT_EQ(outcome({"b", "c", "d", "e"}, "d"), out("d").string() + ": Is a directory; 2 of 4 results are in place");
    EXPECT_EQ(results(), std::set<std::string>({"a", "b", "c", "d"}));
}

TEST_F(LabelPrinter, TellsItsProgressAndLeavesNothingWhenItIsInterrupted)
{
    const struct
    {
        std::string text;
        std::vector<const char*> lines;
    } rows[] = {
        // On a slow machine the second may pass while a page is drawn.
        {"page 2000 2000\npages 9999\nfill 0 0 2000 2000",
         {"page %d of 9999 after %lf s", "page %d of 9999, %*d %% drawn, after %lf s"}},
        // Nothing is drawn: the time goes into the results.
        {"page 2000 2000\npages 9999", {"page %d of 9999 after %lf s"}},
        // One page that takes long to draw.
        {"page 2000 2000\nrepeat 1000 1000 0 0 invert 0 0 2000 2000", {"page %d of 1, %*d %% drawn, after %lf s"}},
    };
    for (const auto& row : rows) {
        put(job(), row.text);
        int ends[2] = {-1, -1};
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        const pid_t child = start({job(), "-o", out(), "--times"}, ends[1], [] { return true; });
        close(ends[1]);
        std::string line;
        for (char c = 0; c != '\n' && read(ends[0], &c, 1) == 1;)
            line += c;
        close(ends[0]);
        kill(child, SIGTERM);
        Outcome outcome = finish(child);
        const std::vector<std::string> names = takeRecords(outcome.err);
        expectFailure(outcome, "interrupted, nothing was written");
        int page = 0;
        double seconds = 0;
        ASSERT_TRUE(std::ranges::any_of(row.lines, [&](const char* format) {
            return std::sscanf(line.c_str(), format, &page, &seconds) == 2;
        })) << line;
        EXPECT_GT(page, 0);
        EXPECT_GE(seconds, 1.0);
        ASSERT_GE(names.size(), 2U);
        const auto begun = static_cast<int>((names.size() - 2) / (1 + stations.size())) + 1;
        EXPECT_GE(begun, page);
        EXPECT_EQ(names, namesOf(begun, (names.size() - 2) % (1 + stations.size())));
        EXPECT_TRUE(outcome.trace->ends_with("\npage " + std::to_string(begun) + ": broken off\n"));
    }

    // A stored page whose reader takes the first byte and then waits: the rest is too much for the pipe.
    put(job(), "page 20000 2000");
    ASSERT_EQ(run({job(), "-o", out()}).code, 0);
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pid_t child = start({"--show", out("a.qrl")}, ends[1], [] { return true; });
    close(ends[1]);
    char c = 0;
    EXPECT_EQ(read(ends[0], &c, 1), 1);
    kill(child, SIGTERM);
    while (read(ends[0], &c, 1) == 1)
        ;
    close(ends[0]);
    const Outcome shown = finish(child);
    EXPECT_EQ(shown.code, 1);
    EXPECT_EQ(shown.err, "labelPrinter: interrupted, the picture is cut off\n");
}

TEST_F(LabelPrinter, TellsTheTimesOfEveryPageAndTheTraceOfTheJob)
{
    put(job(), "page 1024 600\n\npages 3 # \x1B[2J\nfill 0 0 9 9");
    // How far page 3 comes.
    for (const size_t reached : {stations.size(), stations.size() - 2}) {
        const bool fails = reached != stations.size();
        if (fails) {
            fs::remove(out("a-0003.qrl"));
            fs::create_directory(out("a-0003.qrl"));
        }
        std::string trace = "line 1: 'page 1024 600'\nline 3: 'pages 3 # ?[2J'\nline 4: 'fill 0 0 9 9'\n";
        for (int page = 1; page <= 3; ++page) {
            const std::string number = "page " + std::to_string(page);
            trace += number + ": begun\n";
            for (const char* band : {"1, y 0", "2, y 256", "3, y 512"})
                trace += "  [" + number + ", band " + band + "]\n";
            for (size_t i = 0; i < (page < 3 ? stations.size() : reached); ++i)
                trace += number + ": " + stations[i] + "\n";
        }
        trace += fails ? "page 3: broken off\n" : "";
        for (int options = 0; options < 4; ++options) {
            SCOPED_TRACE(options);
            std::vector<std::string> arguments{job(), "-o", out()};
            if ((options & 1) != 0)
                arguments.push_back("--times");
            if ((options & 2) != 0)
                arguments.push_back("--trace");
            Outcome outcome = run(arguments);
            EXPECT_EQ(takeRecords(outcome.err), (options & 1) != 0 ? namesOf(3, reached) : std::vector<std::string>());
            EXPECT_EQ(outcome.trace.value_or("none"), fails || (options & 2) != 0 ? trace : "none");
            EXPECT_EQ(outcome.code, fails ? 1 : 0);
            EXPECT_EQ(outcome.err, fails ? "labelPrinter: " + out("a-0003.qrl").string() + ": Is a directory\n" : "");
            EXPECT_EQ(outcome.out.find(": 3 pages of 1024 x 600 pixels, ") == std::string::npos, fails) << outcome.out;
        }
    }
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    fs::remove(out("a-0003.qrl"));
    EXPECT_EQ(run({job(), "-o", out(), "--times"}, [full] { return dup2(full, STDERR_FILENO) >= 0; }).code, 1);
    close(full);
}

TEST_F(LabelPrinter, LosesNoTimesToASlowReader)
{
    constexpr int pages = 90;
    put(job(), "page 8 8\npages " + std::to_string(pages));
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    fcntl(ends[1], F_SETPIPE_SZ, 4096);
    const int progress = open((folder / "stdout").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const pid_t child =
        start({job(), "-o", out(), "--times"}, progress, [&ends] { return dup2(ends[1], STDERR_FILENO) >= 0; });
    close(ends[1]);
    close(progress);
    // Nobody reads until the printer, all of its 64 records under way, has come to a halt.
    pollfd end{ends[0], 0, 0};
    size_t before = 0;
    size_t most = 0;
    for (int same = 0; (most < 3 * 65 || same < 300) && poll(&end, 1, 0) == 0; ++same) {
        const size_t now = results().size();
        same = now == before ? same : 0;
        before = now;
        most = std::max(most, now);
    }
    std::string text;
    char bytes[4096];
    for (ssize_t count = 0; (count = read(ends[0], bytes, sizeof bytes)) > 0;)
        text.append(bytes, static_cast<size_t>(count));
    close(ends[0]);
    EXPECT_EQ(takeRecords(text), namesOf(pages, stations.size()));
    EXPECT_EQ(finish(child).code, 0);
    EXPECT_EQ(results().size(), 3U * pages);
}

TEST_F(LabelPrinter, NoticesEveryFlippedBitAndEveryCutOfARunLengthFile)
{
    labelPrinter::Image image(21, 9);
    for (int y = 2; y < 9; ++y)
        image.blacken(y % 3, y, 19 - y);
    labelPrinter::ResultFiles files;
    {
        labelPrinter::ResultFile file = files.create(out("a.qrl"));
        labelPrinter::writeRunLengths(image, 600, file);
        file.finish();
    }
    files.keep();
    const std::string whole = bytesOf(out("a.qrl"));
    EXPECT_TRUE(labelPrinter::readRunLengths(out("a.qrl")).image.bytes() == image.bytes());

    auto accepts = [&](const std::string& bytes, const char* message = "") {
        put(out("b.qrl"), bytes);
        try {
            const labelPrinter::Page page = labelPrinter::readRunLengths(out("b.qrl"));
            EXPECT_TRUE(page.image.bytes() == image.bytes() && page.dotsPerInch == 600);
            return true;
        } catch (const labelPrinter::Failure& failure) {
            EXPECT_TRUE(std::string(failure.what()).starts_with(out("b.qrl").string() + ": " + message))
                << failure.what();
            return false;
        }
    };
    for (size_t length = 0; length < whole.size(); ++length)
        EXPECT_FALSE(accepts(whole.substr(0, length))) << length;
    EXPECT_FALSE(accepts(whole + '\0'));
    for (size_t bit = 0; bit < whole.size() * 8; ++bit) {
        std::string damaged = whole;
        damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ 1 << bit % 8);
        EXPECT_FALSE(accepts(damaged)) << bit;
    }
    std::string filled = whole;
    filled.back() = static_cast<char>(filled.back() ^ 0x80);
    EXPECT_FALSE(accepts(filled, "the bits behind the last row are not 0"));
    // An endless file of empty runs has to be left, too.
    EXPECT_FALSE(accepts(whole.substr(0, 14) + std::string(100, '\0'), "damaged in row 1"));
}

} // namespace
