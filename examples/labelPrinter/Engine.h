// Engine.h: the print engine, which feeds a page without ever waiting for anything but the next one

#ifndef LABELPRINTER_ENGINE_H
#define LABELPRINTER_ENGINE_H

#include "PageFlow.h"

#include "Quorvil/InitCondVar.h"
#include "Quorvil/NonLockingWaitThread.h"
#include "Quorvil/QuorvilPos.h"
#include "Quorvil/QuorvilPthread.h"

#include <atomic>
#include <cstdint>

namespace labelPrinter {

/// What the engine tells of itself, all of one moment.
struct EngineState
{
    /// Of the paper, in rows from the beginning of its roll.
    quorvil::Pos position{0};
    bool feeding = false;
    bool realTime = false;
};

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

    /// Any thread may ask.
    EngineState state() const;

    /// Waits for one page and feeds it: the thread's step.
    void waitOnce() override;

private:
    void event() override;
    void tell(int row, bool feeding);

    PageFlow& flow;
    util::InitCondVar& gate;
    PageHandle page;
    /// The state in one word, so that nobody sees a half of it.
    std::atomic<uint32_t> word{0};
    /// In place of the real-time thread.
    quorvil::Pthread ordinary;
    bool started = false;
    /// The engine's own: it has passed the gate.
    bool ready = false;
};

} // namespace labelPrinter

#endif
