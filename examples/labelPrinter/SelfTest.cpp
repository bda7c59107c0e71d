#include "SelfTest.h"

#include "Engine.h"
#include "Failure.h"
#include "NamedThread.h"
#include "PageFlow.h"

#include "Quorvil/InitCondVar.h"
#include "Quorvil/TestThreadState.h"
#include "Quorvil/ThreadSafeStream.h"

#include <iostream>
#include <utility>

namespace labelPrinter {

namespace {

constexpr int side = 600;

/// A black triangle: no two rows are the same.
Image testPicture()
{
    Image picture(side, side);
    for (int y = 0; y < side; ++y)
        picture.blacken(0, y, y + 1);
    return picture;
}

} // namespace

void selfTest()
{
    util::TestThreadState step("step of the self-test");
    PageFlow flow;
    util::InitCondVar gate("the self-test");
    Engine engine(flow, gate);
    engine.start();
    gate.setInitialized();

    bool arrived = false;
    quorvil::Pthread output = startThread("output", [&] {
        const PageHandle page = flow.toOutput().pop();
        const bool whole = page->dots == side * (side + 1) / 2 && page->image.bytes() == testPicture().bytes();
        arrived = step.incAndCheckState1(2, std::cout) && whole;
    });
    PageHandle page = flow.take();
    page->image = testPicture();
    const bool sent = step.incAndCheckState1(1, std::cout);
    flow.toEngine().push(std::move(page));
    output.join();
    engine.stop();
    const bool ended = step.incAndCheckState1(3, std::cout);
    if (!sent || !arrived || !ended || engine.state().position.pos != side)
        throw Failure("the self-test failed");
    safeCout << "labelPrinter: the self-test passed" << std::endl;
}

} // namespace labelPrinter
