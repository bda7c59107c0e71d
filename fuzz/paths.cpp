// Removal of the dot segments of a path, beside the model that works segment by segment.

#include "Quorvil/QuorvilRemovePathDots.h"
#include "tests/support/pathModel.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string path(data, data + size);
    std::string result = path;
    const bool successful = quorvilRemovePathDots::removePathDots(result);
    const std::optional<std::string> model = support::modelPath(path);
    if (successful != model.has_value() || result != model.value_or(path))
        __builtin_trap();
    return 0;
}
