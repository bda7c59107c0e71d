#include "Quorvil/QuorvilAsyncInput.h"

#include "siblings/EasyAsync/EasyAsync.h"

#include <iostream>
#include <utility>

namespace quorvil::test {

namespace {

std::string readLine(std::istream& in)
{
    std::string line;
    std::getline(in, line, in.widen('\n'));
    return line;
}

} // namespace

std::future<std::string> asyncInput(std::istream& in)
{
    return std::async(std::launch::async, [&in] { return readLine(in); });
}

void asyncInput(std::istream& in, std::mutex& mutex, std::condition_variable& cond, bool& finished, std::string& input)
{
    easyAsyncIntern::storeFuture(std::async(std::launch::async, [&] {
        std::string line = readLine(in);
        // Notified under the lock: a waiter may destroy the condition as soon as it has the lock.
        const std::lock_guard lock(mutex);
        input = std::move(line);
        finished = true;
        cond.notify_all();
    }));
}

AsyncInput::AsyncInput()
{
    asyncInput(std::cin, mutex, cond, finished, input);
}

AsyncInput::~AsyncInput()
{
    AsyncInput::wait();
}

bool AsyncInput::done()
{
    const std::lock_guard lock(mutex);
    return finished;
}

void AsyncInput::wait()
{
    std::unique_lock lock(mutex);
    cond.wait(lock, [this] { return finished; });
}

std::string AsyncInput::join()
{
    std::unique_lock lock(mutex);
    cond.wait(lock, [this] { return finished; });
    return input;
}

} // namespace quorvil::test
