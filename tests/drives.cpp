#include "Quorvil/OvxFs.h"

#include <array>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

using ovxfs::Drive;

std::unique_ptr<Drive> newDrive()
{
    return std::unique_ptr<Drive>(ovxfs::OVXFSFactory::I->drive());
}

std::unique_ptr<Drive> newDrive(char letter)
{
    auto drive = newDrive();
    drive->init(letter, Drive::hardDisk, Drive::ready, "", 0);
    return drive;
}

std::string curDirOf(Drive& drive)
{
    std::string dir = "what stood there";
    drive.getCurDir(dir);
    return dir;
}

TEST(Drive, KeepsWhatInitWasGivenAndItsCurrentDirectory)
{
    const auto drive = newDrive();
    EXPECT_EQ(drive->getLetter(), 0);
    EXPECT_EQ(drive->getType(), 0);
    EXPECT_EQ(drive->getStatus(), 0);
    EXPECT_EQ(drive->getVolumeName(), "");
    EXPECT_EQ(drive->getUseFlags(), 0);
    EXPECT_EQ(curDirOf(*drive), "");
    EXPECT_TRUE(drive->isMounted() && drive->isFormatted());

    drive->setCurDir("/jobs");
    struct
    {
        char letter;
        Drive::Type type;
        Drive::Status status;
        const char* volumeName;
        int useFlags;
    } const rows[] = {{'C', Drive::usbStick, Drive::readOnly, "LABELS", 7},
                      {'Z', static_cast<Drive::Type>(-1), Drive::failed, "", std::numeric_limits<int>::min()}};
    for (const auto& row : rows) {
        drive->init(row.letter, row.type, row.status, row.volumeName, row.useFlags);
        EXPECT_EQ(drive->getLetter(), row.letter);
        EXPECT_EQ(drive->getType(), row.type);
        EXPECT_EQ(drive->getStatus(), row.status);
        EXPECT_EQ(drive->getVolumeName(), row.volumeName);
        EXPECT_EQ(drive->getUseFlags(), row.useFlags);
        EXPECT_EQ(curDirOf(*drive), "/jobs");
    }
    EXPECT_EQ(curDirOf(*newDrive()), "") << "drives share nothing";
}

TEST(Drive, HasAFolderForTheUpperCaseLettersAlone)
{
    for (int letter = std::numeric_limits<char>::min(); letter <= std::numeric_limits<char>::max(); ++letter) {
        const auto drive = newDrive(static_cast<char>(letter));
        if (letter < 'A' || letter > 'Z') {
            EXPECT_THROW(drive->getRootPath(), std::out_of_range) << letter;
            continue;
        }
        EXPECT_EQ(drive->getRootPath(),
                  std::string("/home/user/simulatedPrinter/drives/") + static_cast<char>(letter) + "/");
        EXPECT_EQ(&drive->getRootPath(), &newDrive(static_cast<char>(letter))->getRootPath());
    }
    EXPECT_THROW(newDrive()->getRootPath(), std::out_of_range);
    EXPECT_EQ(ovxfsvm::DrivePathManager().path('D'), newDrive('D')->getRootPath());
}

TEST(Drive, SortsByItsLetterAsAnUnsignedByte)
{
    const std::array<char, 5> letters{0, 'A', 'B', '\x7F', '\x80'};
    for (size_t a = 0; a < letters.size(); ++a)
        for (size_t b = 0; b < letters.size(); ++b)
            EXPECT_EQ(*newDrive(letters[a]) < *newDrive(letters[b]), a < b) << a << " and " << b;
}

/// One thread writes both values in turn, the other must read one of them, whole.
template <typename Value, typename Set, typename Get>
void expectWhole(const Value& one, const Value& other, Set set, Get get)
{
    set(one);
    std::thread writer([&] {
        for (int i = 0; i < 2000; ++i)
            set(i % 2 ? one : other);
    });
    for (int i = 0; i < 2000; ++i) {
        const Value value = get();
        EXPECT_TRUE(value == one || value == other);
    }
    writer.join();
}

TEST(Drive, CurrentDirectoryIsCopiedWhole)
{
    const auto drive = newDrive();
    expectWhole(
        std::string(100, 'a'), std::string(5, 'b'), [&](const std::string& dir) { drive->setCurDir(dir); },
        [&] { return curDirOf(*drive); });
}

TEST(CurDrive, IsAUntilSetAndMayBeShared)
{
    ovxfs::CurDrive current;
    EXPECT_EQ(current.getStdDrive(), 'A');
    expectWhole('C', 'D', [&](char letter) { current.setStdDrive(letter); }, [&] { return current.getStdDrive(); });
}

} // namespace
