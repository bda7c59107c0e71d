// A folder of the test's own, gone with everything in it at the end.

#ifndef QUORVIL_TESTS_SUPPORT_TEMPORARYFOLDER_H
#define QUORVIL_TESTS_SUPPORT_TEMPORARYFOLDER_H

#include <cstdlib>
#include <filesystem>
#include <string>

namespace support {

class TemporaryFolder
{
public:
    TemporaryFolder()
    {
        path = (std::filesystem::temp_directory_path() / "quorvil-XXXXXX").string();
        if (!mkdtemp(path.data()))
            std::abort();
    }

    ~TemporaryFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }

    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    /// The path of `name` inside the folder.
    std::string operator/(const std::string& name) const
    {
        return path + "/" + name;
    }

    std::string path;
};

} // namespace support

#endif
