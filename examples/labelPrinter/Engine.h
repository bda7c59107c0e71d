// Engine.h: the print engine, which feeds a page without ever waiting for anything but the next one

#ifndef LABELPRINTER_ENGINE_H
#define LABELPRINTER_ENGINE_H

#include "PageFlow.h"

#include "Quorvil/InitCondVar.h"
#include "Quorvil/NonLockingWaitThread.h"
#include "Quorvil/QuorvilPos.h"
#include "Quorvil/QuorvilPthread.h"

#include <atomic>

namespace labelPrinter {

/// Takes pages from the worker, feeds them band by band, and hands them to the output. While it feeds, it allocates
/// nothing and writes nothing; what it does goes into the flight recorder and into the page's times.
///
/// It runs with real-time priority where the process may have it. Where not, one line tells so, and it is a thread like
/// any other.
class Engine : public NonLockingWaitThreadBase, private INonLockingWaitThreadHandler
{
public:
    /// Rows of a roll: 150 metres at 600 dots an inch. The simulated operator puts in a new one where it ends.
    static constexpr int rowsPerRoll = 3'543'000;

    /// @param flow, gate  not owned, outlive the engine
    Engine(PageFlow& flow, util::InitCondVar& gate);
    ~Engine() override;

    /// Starts feeding once the gate is open.
    void start();

    /// Feeds what it was given and ends. Nothing may be given to it any more.
    void stop();

    /// Where the paper is, in rows from the beginning of its roll. Any thread may ask.
    quorvil::Pos position() const;

    /// Waits for one page and feeds it: the thread's step.
    void waitOnce() override;

private:
    void event() override;

    PageFlow& flow;
    util::InitCondVar& gate;
    PageHandle page;
    std::atomic<int> row{0};
    /// In place of the real-time thread.
    quorvil::Pthread ordinary;
    bool started = false;
    /// The engine's own: it has passed the gate.
    bool ready = false;
};

} // namespace labelPrinter

#endif
