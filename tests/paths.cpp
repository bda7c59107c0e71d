// Data: path normalisation.

#include "Quorvil/QuorvilRemovePathDots.h"
#include "tests/support/environment.h"
#include "tests/support/pathModel.h"

#include <gtest/gtest.h>
#include <optional>
#include <string>

namespace {

/// What `removePathDots` makes of the path, nothing where it refuses it. A refused path has to be as it was.
std::optional<std::string> withoutDots(const std::string& path)
{
    std::string s = path;
    if (quorvilRemovePathDots::removePathDots(s))
        return s;
    EXPECT_EQ(s, path);
    return std::nullopt;
}

TEST(RemovePathDots, GivesTheTextsThatCallersRelyOn)
{
    struct Row
    {
        const char* path;
        std::optional<std::string> result;
    };
    for (const Row& row : {
             Row{"", ""},
             Row{"/", "/"},
             Row{"/.", "/"},
             Row{"/..", std::nullopt},
             Row{"/../", std::nullopt},
             Row{"/../a", std::nullopt},
             Row{"/a", "/a"},
             Row{"/a/", "/a/"},
             Row{"/a/.", "/a/"},
             Row{"/a/./b", "/a/b"},
             Row{"/a/..", "/"},
             Row{"/a/../", "/"},
             Row{"/a/../b", "/b"},
             Row{"/a/../..", std::nullopt},
             Row{"/.a", "/.a"},
             Row{"/..a", "/..a"},
             Row{"/...", "/..."},
             Row{"a", "a"},
             Row{"a/", "a/"},
             Row{"a/b/..", "a"},
             Row{"a/..", ""},
             Row{"a/../..", ".."},
             Row{"a/../../", "../"},
             Row{"a/../../b", "../b"},
             Row{".", "."},
             Row{"..", ".."},
             Row{"./a", "./a"},
             Row{"../a", "../a"},
             Row{"./..", ""},
             Row{"../..", "../.."},
             Row{"../../b/..", "../.."},
             Row{"a/../../b/..", "../"},
             Row{"//a///b//", "/a/b/"},
             Row{"/a/.../.b/..c/./d", "/a/.../.b/..c/d"},
         })
        EXPECT_EQ(withoutDots(row.path), row.result) << "\"" << row.path << "\"";
}

TEST(RemovePathDots, EqualsTheModelOnAllShortPaths)
{
    constexpr char alphabet[] = {'/', '.', 'a', 'b'};
    constexpr size_t longest = support::emulated ? 8 : 9;
    for (size_t length = 0; length <= longest; ++length) {
        std::string path(length, '?');
        for (size_t number = 0; number < size_t{1} << (2 * length); ++number) {
            for (size_t place = 0; place < length; ++place)
                path[place] = alphabet[number >> (2 * place) & 3];
            ASSERT_EQ(withoutDots(path), support::modelPath(path)) << "\"" << path << "\"";
        }
    }
}

TEST(RemovePathDots, TakesAnyOtherByteAsPartOfAName)
{
    for (int byte = 0; byte < 256; ++byte) {
        const auto c = static_cast<char>(byte);
        if (c == '/' || c == '.')
            continue;
        const std::string name = {'.', '.', c};
        EXPECT_EQ(withoutDots("/x/../" + name + "/./" + c), "/" + name + "/" + c) << byte;
    }
}

TEST(RemovePathDots, HoldsBackAsMuchAsThePathHas)
{
    std::string down;
    std::string up;
    for (int i = 0; i < 20000; ++i) {
        down += "/a name beyond the small string " + std::to_string(i);
        up += "/..";
    }
    // EXPECT_TRUE, since nobody wants to read these texts.
    EXPECT_TRUE(withoutDots(down + "/.") == down + "/");
    EXPECT_TRUE(withoutDots(down + up) == "/");
    EXPECT_TRUE(withoutDots(down + up + "/..") == std::nullopt);
    EXPECT_TRUE(withoutDots("x" + down + up + up) == up.substr(4));
}

} // namespace
