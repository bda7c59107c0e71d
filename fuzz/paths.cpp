// Removal of the dot segments of a path, beside a model: the library goes byte by byte, the model name by name.

#include "Quorvil/QuorvilRemovePathDots.h"
#include "fuzz/input.h"

#include <algorithm>
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
    bool literal = !absolute;                // the first name of a relative path may be anything
    std::string result = absolute ? "/" : "";
    std::vector<std::string> left;
    std::istringstream names(path);
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
            result += names.eof() ? ".." : "../";
    }
    for (const std::string& name : left)
        result += name + "/";
    if (!left.empty() && !endsInFolder)
        result.pop_back();
    return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string bytes(data, data + std::min(size, size_t{64}));
    std::string dense = bytes;
    std::ranges::transform(dense, dense.begin(), [](char c) { return "/./a"[c & 3]; });
    for (const std::string& path : {bytes, dense}) {
        std::string result = path;
        const std::optional<std::string> model = modelOf(path);
        const bool agreed = quorvilRemovePathDots::removePathDots(result) == model.has_value();
        fuzz::require(agreed && result == model.value_or(path), "another path");
    }
    return 0;
}
