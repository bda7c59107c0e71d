#include "Implemented.h"

#include "Quorvil/ImplementedFunc.h"

namespace labelPrinter {

namespace {

using ovx::ImplementedFunc;

/// The set is the process's: other components note their functions there, too.
const std::string& prefix()
{
    static const std::string ours = "labelPrinter: ";
    return ours;
}

} // namespace

void implement(const std::string& word)
{
    const std::lock_guard lock(ImplementedFunc::mu);
    ImplementedFunc::allImplemented.insert(prefix() + word);
}

bool isImplemented(const std::string& word)
{
    const std::lock_guard lock(ImplementedFunc::mu);
    return ImplementedFunc::allImplemented.contains(prefix() + word);
}

std::string implementedWords()
{
    const std::lock_guard lock(ImplementedFunc::mu);
    std::string words;
    for (const std::string& name : ImplementedFunc::allImplemented)
        if (name.starts_with(prefix()))
            words += " " + name.substr(prefix().size());
    return words.substr(words.empty() ? 0 : 1);
}

} // namespace labelPrinter
