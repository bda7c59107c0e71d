// System interfaces on a real-time thread: what is promised to be bounded takes no memory.

#include "Quorvil/LinuxPipe.h"
#include "Quorvil/OvxFs.h"
#include "Quorvil/QuorvilSocket.h"
#include "Quorvil/ScanDir.h"
#include "Quorvil/sqlite3cpp.h"
#include "tests/support/allocationCount.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace {

TEST(SystemInterfaces, TakeNoMemoryWhereARealTimeThreadMayCallThem)
{
    ovxfs::DriveVm drive;
    ovxfs::DriveVm other;
    drive.init('A', ovxfs::Drive::hardDisk, ovxfs::Drive::ready, "a volume of the printer", 1);
    ovxfs::CurDrive current;
    const ovxfsvm::DrivePathManager paths;
    const net::SocketException exception("a message that is long enough for the heap");
    const util::ScanDir scan("/");
    util::MyPipe pipe("true");
    util::LinuxPipe stream("true", true);
    sqlite3cpp::DbCon connection(":memory:");
    sqlite3cpp::PrepStat statement(connection, "SELECT ?");
    const struct
    {
        const char* name;
        std::function<void()> call;
    } rows[] = {
        {"DriveVm::DriveVm", [] { const ovxfs::DriveVm made; }},
        {"Drive::getLetter, getType, getStatus", [&] { drive.getLetter(), drive.getType(), drive.getStatus(); }},
        {"Drive::getVolumeName, getRootPath", [&] { drive.getVolumeName(), drive.getRootPath(); }},
        {"Drive::getUseFlags", [&] { drive.getUseFlags(); }},
        {"Drive::isMounted, isFormatted", [&] { drive.isMounted(), drive.isFormatted(); }},
        {"Drive::operator<", [&] { static_cast<void>(drive < other); }},
        {"CurDrive::CurDrive", [] { const ovxfs::CurDrive made; }},
        {"CurDrive::setStdDrive, getStdDrive", [&] { current.setStdDrive('B'), current.getStdDrive(); }},
        {"DrivePathManager::path", [&] { paths.path('C'); }},
        {"SocketException::getMessage", [&] { exception.getMessage(); }},
        {"ScanDir::getLongName, isOpen", [&] { scan.getLongName(), scan.isOpen(); }},
        {"MyPipe::childStdin, childStdout, childStderr",
         [&] { pipe.childStdin(), pipe.childStdout(), pipe.childStderr(); }},
        {"LinuxPipe::go", [&] { stream.go(); }},
        {"DbCon::operator sqlite3*, isValid", [&] { static_cast<sqlite3*>(connection), connection.isValid(); }},
        {"PrepStat::bindInt", [&] { statement.bindInt(1, 5); }},
        {"PrepStat::operator sqlite3_stmt*", [&] { static_cast<void>(static_cast<sqlite3_stmt*>(statement)); }},
        {"PrepStat::lastResult, getState", [&] { statement.lastResult(), statement.getState(); }},
    };
    for (const auto& row : rows) {
        const support::AllocationCount count;
        row.call();
        EXPECT_EQ(count.allocations(), 0U) << row.name;
    }
}

} // namespace
