#include "Quorvil/ScanDir.h"

#include <dirent.h>

namespace util {

struct ScanDir::Record
{
    DIR* dir = nullptr;
    std::string longName;
};

ScanDir::ScanDir(const std::string& path)
    : record(std::make_unique<Record>())
{
    record->dir = opendir(path.c_str());
}

ScanDir::~ScanDir()
{
    // Fails only for a stream that is not one.
    if (record->dir)
        closedir(record->dir);
}

bool ScanDir::next()
{
    const dirent* const entry = record->dir ? readdir(record->dir) : nullptr;
    if (entry)
        record->longName = entry->d_name;
    else
        record->longName.clear();
    return entry != nullptr;
}

const std::string& ScanDir::getLongName()
{
    return record->longName;
}

bool ScanDir::isOpen() const
{
    return record->dir != nullptr;
}

} // namespace util
