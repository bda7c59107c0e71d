#include "Composer.h"
#include "Failure.h"
#include "JobReader.h"
#include "PbmFile.h"
#include "Progress.h"
#include "ResultFiles.h"
#include "RunLengthFile.h"

#include "tests/support/temporaryFolder.h"

#include <fstream>
#include <gmock/gmock.h>
#include <png.h>
#include <random>
#include <string>

namespace {

using namespace labelPrinter;

std::string bytesOf(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool isBlack(const Image& image, int x, int y)
{
    return (image.row(y)[x / 8] & 0x80 >> x % 8) != 0;
}

/// The picture's pixels as text, row by row.
std::string textOf(const Image& image)
{
    std::string text;
    for (int pixel = 0; pixel < image.width() * image.height(); ++pixel)
        text += isBlack(image, pixel % image.width(), pixel / image.width()) ? '#' : '.';
    return text;
}

std::string textOfPng(const std::string& path)
{
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    png_image_begin_read_from_file(&image, path.c_str());
    image.format = PNG_FORMAT_GRAY;
    std::string text(PNG_IMAGE_SIZE(image), ' ');
    png_image_finish_read(&image, nullptr, text.data(), 0, nullptr);
    for (char& grey : text)
        grey = grey == '\0' ? '#' : '.';
    return text + image.message;
}

/// The text of the failure of `action`, or nothing.
template <typename Action>
std::string failureOf(const Action& action)
{
    try {
        action();
        return "";
    } catch (const Failure& failure) {
        return failure.what();
    }
}

/// Each test has a folder of its own: `in` for jobs, `out` for results and nothing else.
struct LabelPrinter : testing::Test
{
    void put(const std::string& bytes, const std::string& name = "a.label") const
    {
        std::ofstream(folder / "in/" + name, std::ios::binary) << bytes;
    }

    /// Runs a shell script in the test's folder; `$P` is the program.
    int run(const std::string& script)
    {
        const std::string prologue = "cd " + folder.path + "; P='" LABEL_PRINTER "'; { ";
        const int status = std::system((prologue + script + "; } >stdout 2>stderr").c_str());
        out = bytesOf(folder / "stdout");
        err = bytesOf(folder / "stderr");
        return WEXITSTATUS(status);
    }

    const support::TemporaryFolder folder;
    const std::string job = folder / "in/a.label";
    std::string out, err;
    Progress progress{1};
    const int prepared = run("mkdir in out; mkfifo f; echo page 8 8 >in/a.label");
};

const std::string traceHead = "\n\n======== LIMITED BUFFER CONTENT ========\n\n";

TEST_F(LabelPrinter, DrawsRandomJobsPixelByPixelRight)
{
    std::mt19937 random(20240514);
    const auto between = [&](int from, int to) { return std::uniform_int_distribution(from, to)(random); };
    for (int round = 0; round < 150; ++round) {
        Job drawn;
        drawn.width = between(1, 90);
        drawn.height = between(1, 600);
        Image expected(drawn.width, drawn.height), picture(between(1, 60), between(1, 80));
        for (int i = 0; i < 2000; ++i)
            picture.blacken(between(0, picture.width() - 1), between(0, picture.height() - 1), 1);
        for (int i = 0; i < 50; ++i) {
            const Rect clip{between(-9, drawn.width - 1), between(-9, drawn.height - 1), between(10, 90), 300};
            const Rect seen = intersection(clip, {0, 0, drawn.width, drawn.height});
            const Repeat repeat{between(1, 3), between(1, 3), between(-30, 30), between(-30, 30)};
            const Rect area{between(-20, drawn.width), between(-20, drawn.height), picture.width(), picture.height()};
            const decltype(Statement::drawing) drawings[] = {
                Fill{area}, Invert{area}, Picture{&picture, {0, 0, area.width, area.height}, area.x, area.y}};
            const size_t kind = random() % 3;
            drawn.statements.push_back({1, {}, Clip{seen}});
            drawn.statements.push_back({1, repeat, drawings[kind]});
            for (int copy = 0; copy < repeat.columns * repeat.rows; ++copy)
                for (int pixel = 0; pixel < area.width * area.height; ++pixel) {
                    const int x = pixel % area.width, y = pixel / area.width;
                    const Rect visible = intersection({area.x + copy % repeat.columns * repeat.stepX + x,
                                                       area.y + copy / repeat.columns * repeat.stepY + y, 1, 1},
                                                      seen);
                    if (kind == 1)
                        expected.invert(visible);
                    else if (visible.width > 0 && visible.height > 0 && (kind == 0 || isBlack(picture, x, y)))
                        expected.blacken(visible.x, visible.y, 1);
                }
        }
        EXPECT_EQ(textOf(Composer(drawn, progress).compose(1)), textOf(expected)) << round;
    }
}

TEST_F(LabelPrinter, ReadsEveryStatementNumberAndPicture)
{
    put("P1#a\n#b\r3#c\n2\n1#d\n01010\nanything 0101", "plain");
    put(std::string("P4\n# made by hand\n9 2\n\xAA\xFF\x01\x7FP4 1", 30), "raw");
    put("P1 20 1 00 01 10 11 00 00 00 00 00 00", "digits");
    put("P4 100 1\n" + std::string("\0\0\x40\0\0\0\0\0\0\0\0\0\xF0", 13), "pairs");
    put("\xEF\xBB\xBFpage 000000000000000000012 0x6\r\n\n dpi 0x12c # comment\npages 3\nrepeat 2 1 6 0 fill 0 0 2 1\n"
        "image \"plain\" 3 0 # p\nimage plain 9 0 1 0 2 2\nserial digits 0 2 3 8 0x69\nserialPairs pairs 9 2 4 1\n"
        "clip 0 5 9 9\ninvert -1 0 4 9\nunclip\nfill 11 5 1 1\nimage raw 2 3");
    Job read = JobReader(job).read();
    EXPECT_TRUE(read.pages == 3 && read.dotsPerInch == 300);
    Composer composer(read, progress);
    const Image& page = composer.compose(3);
    EXPECT_EQ(textOf(page), "##.#.###..#."
                            "....#....#.."
                            "#..#........"
                            "..#.#.#.#.#."
                            ".........#.."
                            "###........#");

    // No damage to its run-length file goes unnoticed.
    ResultFile file(folder / "in/whole", "");
    writeRunLengths(page, read.dotsPerInch, file);
    file.finish();
    const std::string whole = bytesOf(folder / "in/whole");
    for (size_t bit = 0; bit < whole.size() * 8; ++bit) {
        std::string damaged = whole;
        damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ 1 << bit % 8);
        for (const std::string& bytes : {damaged, whole.substr(0, bit / 8)}) {
            put(bytes, "b");
            EXPECT_NE(failureOf([&] { readRunLengths(folder / "in/b"); }), "") << bit;
        }
    }
}

TEST_F(LabelPrinter, PrintsTheShippedJobsInAllFormats)
{
    run("cp -r " LABEL_PRINTER_JOBS " in");
    for (const std::string& path : {folder / "in/jobs/shipping.label", folder / "in/jobs/serial.label"}) {
        EXPECT_EQ(run("sed -i s/400$/1/ " + path + "; $P " + path + " -o out/a && $P --show out/a.qrl"), 0);
        Job shipped = JobReader(path).read();
        Composer composer(shipped, progress);
        const Image& page = composer.compose(1);
        const std::string pbm = pbmHeader(page) + std::string(page.bytes().begin(), page.bytes().end());
        EXPECT_TRUE(bytesOf(folder / "out/a.pbm") == pbm && out.ends_with(" s\n" + pbm)) << path;
        EXPECT_TRUE(textOfPng(folder / "out/a.png") == textOf(page)) << path;
        EXPECT_EQ(run("$P -o out/b --show out/a.qrl && cmp out/a.png out/b.png && cmp out/a.pbm out/b.pbm"), 0);
        EXPECT_THAT(bytesOf(folder / "out/a.png"),
                    testing::HasSubstr(std::string("pHYs\0\0\x5C\x46\0\0\x5C\x46\1", 13)));
    }
}

TEST_F(LabelPrinter, TellsFileAndLineOfAFaultInAJobOrItsPictures)
{
    put("P1 100 1 " + std::string(100, '1'), "digits");
    const std::string good = "P1 3 2 101 010", picture = "page 8 8\nimage p 0 0", path = "2: " + folder / "in/p: ";
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {"# nothing\n", "2: the job has no 'page WIDTH HEIGHT'", good},
        {"dpi 600\npage 8 8", "1: 'page WIDTH HEIGHT' must come first", good},
        {std::string("page 8 8\nimage p\0x 0 0", 22), "2: the line holds a NUL byte", good},
        {"page 20001 8", "1: WIDTH is not between 1 and 20000: '20001'", good},
        {"page 8 8\n" + std::string(61, 'x'), "2: unknown word '" + std::string(60, 'x') + "...'", good},
        {picture + " 1 0 3 1", "2: the part does not lie inside the picture of 3 x 2 pixels", good},
        {"page 8 8\nserial digits 0 0 2 98\npages 3", "2: the serial number 100 does not fit 2 digits", good},
        {picture, path + "what stands behind the picture is no further picture", "P4 1 1\n\xFF\n"},
        {picture, path + "the file ends in row 2 of 2", "P4 9 2\n\x01\x02\x03"},
    };
    for (const auto& [text, message, pbm] : rows) {
        put(text);
        put(pbm, "p");
        EXPECT_EQ(failureOf([&] { JobReader(job).read(); }), job + ":" + message);
    }
}

TEST_F(LabelPrinter, TellsWhatItCannotDoAndLeavesTheFolderAsItWas)
{
    const std::tuple<std::string, int, std::string> rows[] = {
        {"$P --help >&2", 0, "usage: labelPrinter JOB.label -o OUT [--times]"},
        {"$P in/a.label -o in/a --trace", 0,
         traceHead + "line 1: 'page 8 8'\npage 1: begun\n  [page 1, band 1, y 0]\n"},
        {"$P in/a.label -o in/a --times 2>&1 | sed -n 's/ *: [0-9 ]* ns .*//p' >&2", 0,
         "page 1\ncomposed\npbm encoded\npbm on disk\npng encoded\npng on disk\nqrl encoded\nqrl on disk\n"},
        {"$P in/a.label", 2, "-o OUT is needed\nusage: "},
        {"$P in/a.label -o out/", 2, "an option needs the name of a file\nusage: "},
        {"$P in/\033b -o out/a", 1, "in/?b: No such file or directory\n" + traceHead},
        {"$P in/a.label -o none/a", 1, "none/a.pbm: No such file or directory\n" + traceHead},
        {"$P --show in/a.qrl >/dev/full", 1, "the standard output cannot be written\n"},
        {"cp in/a.pbm in/p; ln in/p out/b.png; echo image p 0 0 >>in/a.label; $P in/a.label -o out/b", 1,
         "out/b.png: would replace in/p, which the job is made of\n"},
        {"rm out/b.png; mkdir out/a.qrl; echo old >out/a.pbm; $P in/a.label -o out/a", 1,
         "out/a.qrl: Is a directory\n"},
        {"ulimit -f 8; echo page 999 999 >in/a.label; $P in/a.label -o out/b", 1, "out/b.pbm: File too large\n"},
        {"grep old out/a.pbm && $P in/a.label -o out/b >/dev/full", 1,
         "the standard output cannot be written; all results are in place\n"},
    };
    for (const auto& [script, code, begin] : rows) {
        EXPECT_EQ(run(script), code) << script;
        EXPECT_THAT(err, testing::StartsWith((code == 0 ? "" : "labelPrinter: ") + begin));
    }
    run("ls out");
    EXPECT_EQ(out, "a.pbm\na.qrl\nb.pbm\nb.png\nb.qrl\n");
}

TEST_F(LabelPrinter, TellsItsProgressAndLeavesNothingWhenItIsInterrupted)
{
    // One page that takes long to draw, and many whose results take the time.
    const std::pair<std::string, std::string> rows[] = {
        {"page 2000 2000\nrepeat 1000 1000 0 0 invert 0 0 2000 2000", "page 1 of 1, [0-9]+ % drawn, after [1-9].*"},
        {"page 2000 2000\npages 9999", "page [0-9]+ of 9999.* after [1-9].*"}};
    for (const auto& [text, line] : rows) {
        put(text);
        EXPECT_EQ(run("$P in/a.label -o out/a --times >f & exec 3<f; head -n1 <&3; kill $!; wait $!"), 1);
        EXPECT_THAT(out, testing::MatchesRegex(line + "\n"));
        EXPECT_THAT(err, testing::HasSubstr("\n\nlabelPrinter: interrupted, nothing was written\n" + traceHead));
        EXPECT_EQ(run("rmdir out && mkdir out"), 0) << "nothing is left";
    }
}

} // namespace
