// A folder of the test's own, gone with everything in it at the end.

#ifndef QUORVIL_TESTS_SUPPORT_TEMPORARYFOLDER_H
#define QUORVIL_TESTS_SUPPORT_TEMPORARYFOLDER_H

#include <cstdlib>
#include <filesystem>
#include <string>

namespace support {

struct TemporaryFolder
{
    ~TemporaryFolder()
    {
        std::filesystem::remove_all(path);
    }

    /// The path of `name` inside the folder.
    std::string operator/(const std::string& name) const
    {
        return path + "/" + name;
    }

    std::string path = std::filesystem::temp_directory_path() / "quorvil-XXXXXX";
    const bool made = mkdtemp(path.data()) != nullptr;
};

} // namespace support

#endif
