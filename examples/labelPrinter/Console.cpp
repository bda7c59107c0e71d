#include "Console.h"

#include "NamedThread.h"
#include "Status.h"
#include "StopSignals.h"

#include "Quorvil/ThreadSafeStream.h"

#include <iostream>
#include <string>
#include <system_error>

namespace labelPrinter {

Console::Console(Status& theStatus)
    : status(theStatus)
{
}

Console::~Console()
{
    // Its own destructor would wait for somebody to press ENTER. The line lives on, to the end of the process.
    if (line && !line->done())
        (void)line.release();
}

void Console::event()
{
    nameThread("console");
    if (ended)
        return;
    try {
        if (!line)
            line = std::make_unique<quorvil::test::AsyncInput>();
    } catch (const std::system_error& reason) {
        // No thread is to be had. The printer goes on, and clients can ask it.
        safeCerr << "labelPrinter: the console ends: " << reason.what() << std::endl;
        ended = true;
        return;
    }
    if (!line->done())
        return;
    const std::string text = line->join();
    line.reset();
    // Nobody else reads the standard input, and the line was the last one to be read.
    ended = !std::cin || text == "stop";
    if (text == "stop")
        StopSignals::stop();
    else if (const auto answer = status.answer(text))
        safeCout << *answer << std::endl;
    else if (!ended)
        safeCout << "status, jobs or stop?" << std::endl;
}

} // namespace labelPrinter
