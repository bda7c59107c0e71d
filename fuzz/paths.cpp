// Removal of the dot segments of a path, beside a model: the library goes byte by byte, the model name by name.

#include "Quorvil/QuorvilRemovePathDots.h"
#include "fuzz/input.h"

#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace {

/// The path without dots; nothing if it leads above the root.
std::optional<std::string> modelOf(const std::string& path)
{
    const bool absolute = path.starts_with('/');
    bool endsInFolder = path.ends_with('/'); // and so does "."
    std::string above;                       // each ".." above the start of a relative path that came after a name
    std::vector<std::string> left;
    std::istringstream names(path);
    bool literal = !absolute;
    for (std::string name; std::getline(names, name, '/'); literal = false) {
        if (name.empty())
            continue;
        if (!literal && name == ".")
            endsInFolder = endsInFolder || names.eof();
        else if (literal || name != ".." || (!left.empty() && left.back() == ".."))
            left.push_back(name);
        else if (!left.empty())
            left.pop_back();
        else if (absolute)
            return std::nullopt;
        else
            above += names.eof() ? ".." : "../";
    }
    std::string result = absolute ? "/" : above;
    for (const std::string& name : left)
        result += name + "/";
    if (!left.empty() && !endsInFolder)
        result.pop_back();
    return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string bytes(data, data + size);
    std::string dense;
    for (const char c : bytes)
        dense += "/./a"[c & 3];
    for (const std::string& path : {bytes, dense, dense.substr(0, 8)}) {
        std::string result = path;
        const bool successful = quorvilRemovePathDots::removePathDots(result);
        const std::optional<std::string> model = modelOf(path);
        fuzz::require(successful == model.has_value() && result == model.value_or(path), "another path");
    }
    return 0;
}
