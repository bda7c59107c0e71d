// What the tests of the label printer share: a folder of the test's own, and the program run by a shell in it.

#ifndef QUORVIL_TESTS_SUPPORT_LABELPRINTER_H
#define QUORVIL_TESTS_SUPPORT_LABELPRINTER_H

#include "tests/support/temporaryFolder.h"

#include <fstream>
#include <gmock/gmock.h>
#include <string>

namespace support {

struct PrinterFolder : testing::Test
{
    void put(const std::string& bytes, const std::string& name) const
    {
        std::ofstream(folder / name, std::ios::binary) << bytes;
    }

    std::string bytesOf(const std::string& name) const
    {
        std::ifstream file(folder / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    /// Runs a shell script in the test's folder; `$P` is the program.
    int run(const std::string& script)
    {
        const std::string prologue = "cd " + folder.path + "; P='" LABEL_PRINTER "'; { ";
        const int status = std::system((prologue + script + "; } >stdout 2>stderr").c_str());
        out = bytesOf("stdout");
        err = bytesOf("stderr");
        return WEXITSTATUS(status);
    }

    const TemporaryFolder folder;
    std::string out, err;
};

} // namespace support

#endif
