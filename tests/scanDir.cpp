#include "Quorvil/ScanDir.h"

#include "tests/support/interpose.h"
#include "tests/support/temporaryFolder.h"

#include <dirent.h>
#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <sys/stat.h>

// With 64-bit file offsets this is what the plain name stands for.
SUPPORT_INTERPOSE(struct dirent64*, readdir64, (DIR * dir), (dir), )

namespace {

std::multiset<std::string> namesIn(const std::string& path)
{
    std::multiset<std::string> names;
    util::ScanDir scan(path);
    EXPECT_TRUE(scan.isOpen());
    EXPECT_EQ(scan.getLongName(), "");
    while (scan.next())
        names.insert(scan.getLongName());
    EXPECT_EQ(scan.getLongName(), "");
    EXPECT_FALSE(scan.next());
    return names;
}

TEST(ScanDir, GivesEachEntryOnceAndTheTwoOfTheSystem)
{
    const support::TemporaryFolder folder;
    std::multiset<std::string> names{".", ".."};
    EXPECT_EQ(namesIn(folder.path), names);

    for (const std::string& name : {std::string("a"), std::string(255, 'n'), std::string("with blank\n"),
                                    std::string("\xC3\xA4\xFF"), std::string(".hidden")}) {
        std::ofstream(folder / name) << "content";
        names.insert(name);
    }
    mkdir((folder / "sub").c_str(), 0700);
    std::ofstream(folder / "sub/inner") << "content";
    names.insert("sub");
    for (int i = 0; i < 500; ++i) {
        std::ofstream(folder / std::to_string(i)) << i;
        names.insert(std::to_string(i));
    }
    EXPECT_EQ(namesIn(folder.path), names);

    util::ScanDir one(folder.path), other(folder.path);
    const std::string& name = one.getLongName();
    ASSERT_TRUE(one.next());
    const std::string first = name;
    ASSERT_TRUE(other.next() && other.next());
    EXPECT_EQ(name, first) << "scans do not disturb each other";
    ASSERT_TRUE(one.next());
    EXPECT_NE(name, first);
}

TEST(ScanDir, IsEmptyOnAPathThatCannotBeOpened)
{
    const support::TemporaryFolder folder;
    std::ofstream(folder / "file") << "content";
    for (const std::string& path : {folder / "missing", folder / "file", std::string(), std::string(5000, 'x')}) {
        util::ScanDir scan(path);
        EXPECT_FALSE(scan.isOpen()) << path;
        EXPECT_FALSE(scan.next() || scan.next());
        EXPECT_EQ(scan.getLongName(), "");
    }
}

TEST(ScanDir, TakesAReadErrorForTheEndAndGoesOn)
{
    const support::TemporaryFolder folder;
    util::ScanDir scan(folder.path);
    ASSERT_TRUE(scan.next());
    {
        support::FaultScope fault(readdir64Fault, 0, EIO);
        EXPECT_FALSE(scan.next());
        EXPECT_EQ(scan.getLongName(), "");
    }
    EXPECT_TRUE(scan.next());
    EXPECT_NE(scan.getLongName(), "");
}

TEST(ScanDir, LeaksNoDescriptor)
{
    const support::TemporaryFolder folder;
    const auto before = namesIn("/proc/self/fd").size();
    for (int i = 0; i < 300; ++i) {
        util::ScanDir scan(folder.path);
        EXPECT_TRUE(scan.next());
    }
    EXPECT_EQ(namesIn("/proc/self/fd").size(), before);
}

} // namespace
