#include "Quorvil/InitCondVar.h"

#include "Quorvil/ThreadSafeStream.h"

#include <ostream>

namespace util {

InitCondVar::InitCondVar(const std::string& name_)
    : name(name_)
{
}

InitCondVar::~InitCondVar() = default;

void InitCondVar::setInitialized()
{
    const std::lock_guard lock(mutex);
    initialized = true;
    condition.notify_all();
}

void InitCondVar::waitUntilInitialized(const char* who)
{
    std::unique_lock lock(mutex);
    while (!initialized) {
        safeCerr << who << " is being blocked until " << name << " has been initialized!" << std::endl;
        condition.wait(lock);
    }
}

} // namespace util
