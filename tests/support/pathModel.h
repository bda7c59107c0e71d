// What becomes of a path's "." and ".." segments, worked out segment by segment: the model that the library's state
// machine, which goes byte by byte, is compared with.

#ifndef QUORVIL_TESTS_PATHMODEL_H
#define QUORVIL_TESTS_PATHMODEL_H

#include <optional>
#include <string>
#include <vector>

namespace support {

/// The names between the separators; a separator at the end has no name behind it.
inline std::vector<std::string> namesOf(const std::string& path)
{
    std::vector<std::string> names;
    std::string name;
    for (const char c : path + "/") {
        if (c != '/') {
            name += c;
            continue;
        }
        if (!name.empty())
            names.push_back(name);
        name.clear();
    }
    return names;
}

/// The path without dots; nothing if it leads above the root.
inline std::optional<std::string> modelPath(const std::string& path)
{
    const bool absolute = path.starts_with('/');
    const std::vector<std::string> names = namesOf(path);
    const bool endsInSeparator = path.ends_with('/');
    bool endsInFolder = endsInSeparator; // and so does "."
    std::string above;                   // each ".." above the start of a relative path that came after a name
    std::vector<std::string> left;
    for (size_t i = 0; i < names.size(); ++i) {
        const std::string& name = names[i];
        const bool last = i + 1 == names.size();
        const bool literal = i == 0 && !absolute;
        if (!literal && name == ".") {
            endsInFolder = endsInFolder || last;
        } else if (literal || name != ".." || (!left.empty() && left.back() == "..")) {
            left.push_back(name);
        } else if (!left.empty()) {
            left.pop_back();
        } else if (absolute) {
            return std::nullopt;
        } else {
            above += last && !endsInSeparator ? ".." : "../";
        }
    }
    std::string result = absolute ? "/" : above;
    for (const std::string& name : left)
        result += name + "/";
    if (!left.empty() && !endsInFolder)
        result.pop_back();
    return result;
}

} // namespace support

#endif
