#include "Spool.h"

#include "Failure.h"
#include "InputFile.h"
#include "JobDesk.h"
#include "NamedThread.h"

#include "Quorvil/ScanDir.h"
#include "Quorvil/ThreadSafeStream.h"

#include <cerrno>
#include <cstdio>
#include <exception>
#include <fstream>
#include <sys/stat.h>
#include <utility>

namespace labelPrinter {

namespace {

const std::string& jobEnding()
{
    static const std::string ending = ".label";
    return ending;
}

std::string contentOf(const std::string& path)
{
    InputFile file(path);
    std::string text;
    // One byte more than a job may have: the desk says what is wrong with it.
    for (int byte = 0; text.size() <= longestJob && (byte = file.next()) >= 0;)
        text.push_back(static_cast<char>(byte));
    return text;
}

} // namespace

Spool::Spool(std::string theFolder, JobDesk& theDesk)
    : folder(std::move(theFolder))
    , desk(theDesk)
{
}

void Spool::event()
{
    nameThread("spool");
    try {
        Versions now = look();
        for (const auto& [name, version] : now) {
            const auto before = seen.find(name);
            const auto done = settled.find(name);
            if (before != seen.end() && before->second == version &&
                (done == settled.end() || !(done->second == version)))
                take(name);
        }
        std::erase_if(settled, [&now](const auto& entry) { return !now.contains(entry.first); });
        seen = std::move(now);
    } catch (const std::exception& trouble) {
        tell(trouble.what());
    }
}

Spool::Versions Spool::look()
{
    util::ScanDir scan(folder);
    if (!scan.isOpen())
        throw systemFailure(folder, errno);
    Versions versions;
    while (scan.next()) {
        const std::string& name = scan.getLongName();
        struct stat status = {};
        if (name.ends_with(jobEnding()) && stat((folder + "/" + name).c_str(), &status) == 0 && S_ISREG(status.st_mode))
            versions[name] = {status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
    }
    return versions;
}

void Spool::take(const std::string& name)
{
    const std::string path = folder + "/" + name;
    try {
        const int id = desk.accept(contentOf(path), path);
        safeCout << "job " << id << " accepted from " << printable(path) << std::endl;
        settle(name, ".accepted");
    } catch (const Failure& reason) {
        if (reason.passes()) {
            tell(reason.what());
            return;
        }
        safeCerr << "labelPrinter: refused: " << printable(reason.what()) << std::endl;
        writeReason(path, printable(reason.what()));
        settle(name, ".refused");
    }
}

void Spool::writeReason(const std::string& path, const std::string& reason)
{
    const std::string target = path.substr(0, path.size() - jobEnding().size()) + ".reason";
    errno = 0;
    std::ofstream file(target);
    file << reason << "\n";
    file.close();
    if (!file)
        tell(systemFailure(target, errno).what());
}

void Spool::settle(const std::string& name, const std::string& ending)
{
    const std::string path = folder + "/" + name;
    const std::string target = path.substr(0, path.size() - jobEnding().size()) + ending;
    told.clear();
    if (std::rename(path.c_str(), target.c_str()) == 0)
        return;
    const int errorNumber = errno;
    settled[name] = seen.at(name);
    tell(systemFailure(target, errorNumber).what());
}

void Spool::tell(const std::string& trouble)
{
    if (std::exchange(told, trouble) != trouble)
        safeCerr << "labelPrinter: spool: " << printable(trouble) << std::endl;
}

} // namespace labelPrinter
