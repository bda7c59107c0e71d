#include "Composer.h"
#include "Failure.h"
#include "PbmFile.h"
#include "Progress.h"
#include "RunLengthFile.h"

#include "Quorvil/QuorvilInit.h"
#include "tests/support/labelPrinter.h"

#include <png.h>
#include <random>

namespace {

using namespace labelPrinter;

Image readPng(const std::string& path)
{
    png_image png = {};
    png.version = PNG_IMAGE_VERSION;
    png_image_begin_read_from_file(&png, path.c_str());
    png.format = PNG_FORMAT_GRAY;
    std::string grey(PNG_IMAGE_SIZE(png), ' ');
    png_image_finish_read(&png, nullptr, grey.data(), 0, nullptr);
    Image image(static_cast<int>(png.width), static_cast<int>(png.height));
    for (int pixel = 0; pixel < image.width() * image.height(); ++pixel)
        if (grey[static_cast<size_t>(pixel)] == '\0')
            image.blacken(pixel % image.width(), pixel / image.width(), 1);
    return image;
}

/// `in` is for jobs, `out` for results and nothing else.
struct LabelPrinter : support::PrinterFolder
{
    const int prepared = run("mkdir in out; mkfifo f; echo page 8 8 >in/a.label");
};

const std::string traceHead = "\n\n======== LIMITED BUFFER CONTENT ========\n\n";

TEST_F(LabelPrinter, DrawsRandomJobsPixelByPixelRight)
{
    std::mt19937 random(20240514);
    const auto between = [&](int from, int to) { return std::uniform_int_distribution(from, to)(random); };
    for (int round = 0; round < 50; ++round) {
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
                    else if (visible.width > 0 && visible.height > 0 &&
                             (kind == 0 || (picture.row(y)[x / 8] & 0x80 >> x % 8) != 0))
                        expected.blacken(visible.x, visible.y, 1);
                }
        }
        Progress progress(1);
        EXPECT_EQ(Composer(drawn, progress).compose(1).bytes(), expected.bytes()) << round;
    }
}

TEST_F(LabelPrinter, PrintsEveryStatementNumberAndPictureInAllFormats)
{
    put("P1#a\n#b\r3#c\n2\n1#d\n01010\nanything 0101", "in/plain");
    put(std::string("P4\n# made by hand\n9 2\n\xAA\xFF\x01\x7FP4 1", 30), "in/raw");
    put("P1 20 1 00 01 10 11 00 00 00 00 00 00", "in/digits");
    put("P4 100 1\n" + std::string("\0\0\x40\0\0\0\0\0\0\0\0\0\xF0", 13), "in/pairs");
    put("\xEF\xBB\xBFpage 000000000000000000012 0x6\r\n\n dpi 0x12c # comment\npages 3\nrepeat 2 1 6 0 fill 0 0 2 1\n"
        "image \"plain\" 3 0 # p\nimage plain 9 0 1 0 2 2\nserial digits 0 2 3 8 0x69\nserialPairs pairs 9 2 4 1\n"
        "clip 0 5 9 9\ninvert -1 0 4 9\nunclip\nfill 11 5 1 1\nimage raw 2 3",
        "in/a.label");
    put("P1 12 6 110101110010 000010000100 100100000000 001010101010 000000000100 111000000001", "in/page");
    EXPECT_EQ(run("yes '' | $P in/a.label -o out/a --manual-feed"), 0);
    EXPECT_THAT(err, testing::StartsWith("*** Nach ENTER: page 1 of 3 ... > *** Nach ENTER: page 2 of 3 ... > "));
    const std::vector<uint8_t> page = readPbm(folder / "in/page").bytes();
    EXPECT_EQ(readPbm(folder / "out/a-0003.pbm").bytes(), page);
    EXPECT_EQ(readPng(folder / "out/a-0003.png").bytes(), page);
    EXPECT_THAT(bytesOf("out/a-0003.png"), testing::HasSubstr(std::string("pHYs\0\0\x2E\x23\0\0\x2E\x23\1", 13)));
    EXPECT_EQ(run("cd out; $P -o b --show a-0003.qrl && cmp a-0003.png b.png && cmp a-0003.pbm b.pbm && "
                  "$P --show a-0003.qrl | cmp - b.pbm"),
              0);
    // No damage to its run-length file goes unnoticed.
    const std::string whole = bytesOf("out/a-0003.qrl");
    for (size_t bit = 0; bit < whole.size() * 8; ++bit) {
        std::string damaged = whole;
        damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ 1 << bit % 8);
        for (const std::string& bytes : {damaged, whole.substr(0, bit / 8)}) {
            put(bytes, "in/b");
            EXPECT_THROW(readRunLengths(folder / "in/b"), Failure) << bit;
        }
    }
}

TEST_F(LabelPrinter, TellsWhatItCannotDoAndLeavesTheFolderAsItWas)
{
    const auto job = [](const std::string& text) {
        return "printf '" + text + "' >in/a.label; $P in/a.label -o out/a";
    };
    const std::string place = "in/a.label:";
    put("P1 3 2 101 010", "in/p");
    put("P1 100 1 " + std::string(100, '1'), "in/digits");
    const std::tuple<std::string, int, std::string> rows[] = {
        {"$P --help >&2", 0, "usage: labelPrinter JOB.label -o OUT [--times]"},
        {"$P --version >&2", 0, "labelPrinter, with Quorvil " QUORVIL_VERSION "; words of a job: clip dpi fill "},
        {"$P --self-test 2>out/b | tail -n1 >&2; rm out/b", 0, "labelPrinter: the self-test passed\n"},
        {"$P in/a.label -o in/a --trace", 0,
         traceHead + "line 1: 'page 8 8'\npage 1: begun\n  [page 1, band 1, y 0]\n"},
        {"$P in/a.label -o in/a --times 2>&1 | sed -n 's/ *: [0-9 ]* ns .*//p' >&2", 0,
         "page 1\ncomposed\npbm encoded\npbm on disk\npng encoded\npng on disk\nqrl encoded\nqrl on disk\n"},
        {"cp -r " LABEL_PRINTER_JOBS " in; sed -i s/400$/1/ in/jobs/serial.label; $P in/jobs/serial.label -o in/s", 0,
         ""},
        {"$P in/a.label", 2, "-o OUT is needed\nusage: "},
        {"$P in/a.label -o out/", 2, "an option needs the name of a file\nusage: "},
        {"$P --listen 9 --state in --manual-feed", 2, "--listen takes neither a job nor a result\nusage: "},
        {"$P in/\033b -o out/a", 1, "in/?b: No such file or directory\n" + traceHead},
        {"$P in/a.label -o none/a", 1, "none/a.pbm: No such file or directory\n" + traceHead},
        {"$P --show in/a.qrl >/dev/full", 1, "the standard output cannot be written\n"},
        {job("# nothing\n"), 1, place + "2: the job has no 'page WIDTH HEIGHT'\n"},
        {job("dpi 600\npage 8 8"), 1, place + "1: 'page WIDTH HEIGHT' must come first\n"},
        {job("page 8 8\nimage p\\0x 0 0"), 1, place + "2: the line holds a NUL byte\n"},
        {job("page 20001 8"), 1, place + "1: WIDTH is not between 1 and 20000: '20001'\n"},
        {job("page 8 8\n" + std::string(61, 'x')), 1, place + "2: unknown word '" + std::string(60, 'x') + "...'\n"},
        {job("page 8 8\ncut"), 1, place + "2: 'cut' is not implemented yet\n"},
        {job("page 8 8\nserial digits 0 0 2 98\npages 3"), 1,
         place + "2: the serial number 100 does not fit 2 digits\n"},
        {job("page 8 8\nimage p 0 0 1 0 3 1"), 1,
         place + "2: the part does not lie inside the picture of 3 x 2 pixels\n"},
        {"printf 'P4 1 1\n\\0\n' >in/p; " + job("page 8 8\nimage p 0 0"), 1,
         place + "2: in/p: what stands behind the picture is no further picture\n"},
        {"printf 'P4 9 2\n\\1\\2\\3' >in/p; $P in/a.label -o out/a", 1,
         place + "2: in/p: the file ends in row 2 of 2\n"},
        {"echo page 8 8 >in/a.label; cp in/a.pbm in/p; ln in/p out/b.png; echo image p 0 0 >>in/a.label; "
         "$P in/a.label -o out/b",
         1, "out/b.png: would replace in/p, which the job is made of\n"},
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
        put(text, "in/a.label");
        EXPECT_EQ(run("$P in/a.label -o out/a --times >f & exec 3<f; head -n1 <&3; kill $!; wait $!"), 1);
        EXPECT_THAT(out, testing::MatchesRegex(line + "\n"));
        EXPECT_THAT(err, testing::HasSubstr("\n\nlabelPrinter: interrupted, nothing was written\n" + traceHead));
        EXPECT_EQ(run("rmdir out && mkdir out"), 0) << "nothing is left";
    }
}

} // namespace
