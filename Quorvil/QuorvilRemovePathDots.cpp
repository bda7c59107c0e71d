#include "Quorvil/QuorvilRemovePathDots.h"

#include "Quorvil/QuorvilAssert.h"

#include <cstddef>
#include <deque>

// The path is read byte by byte by a small state machine. What is certain to stay, the leading `/` and each ".." above
// the start of a relative path, is written at once, into the path itself; segments that a ".." could still take away
// are held back, and `jEnd` writes what is left of them.

namespace quorvilRemovePathDots {

namespace {

constexpr const char* source = "Quorvil/QuorvilRemovePathDots";

/// True if the machine would leave the path as it is: no separator has an empty segment, "." or ".." behind it.
bool isClean(const std::string& s)
{
    // Dots since the last separator, -1 once another byte has come; the first segment of a relative path may be
    // anything.
    std::ptrdiff_t dots = -1;
    for (const char c : s) {
        if (c != '/') {
            dots = c == '.' && dots >= 0 ? dots + 1 : -1;
            continue;
        }
        if (dots >= 0 && dots <= 2)
            return false;
        dots = 0;
    }
    return dots != 1 && dots != 2;
}

} // namespace

class StatechartImpl;

class BaseState
{
public:
    virtual ~BaseState() = default;

    /// Reads one byte, or the end, and leads the machine to its next state.
    virtual void readAndHandleNext(StatechartImpl& machine) const = 0;

    virtual bool isEnd() const
    {
        return false;
    }

    virtual bool successful() const
    {
        return false;
    }
};

/// Nothing read yet.
class Start : public BaseState
{
public:
    void readAndHandleNext(StatechartImpl& machine) const override;
};

/// A separator was just passed; a new segment may begin.
class BeginSegment : public BaseState
{
public:
    void readAndHandleNext(StatechartImpl& machine) const override;
};

/// The segment so far is ".".
class Dot1 : public BaseState
{
public:
    void readAndHandleNext(StatechartImpl& machine) const override;
};

/// The segment so far is "..".
class Dot2 : public BaseState
{
public:
    void readAndHandleNext(StatechartImpl& machine) const override;
};

/// Inside a segment that is neither "." nor "..", or is the first one of a relative path; it stands in `segment`.
class ContinueSegment : public BaseState
{
public:
    void readAndHandleNext(StatechartImpl& machine) const override;
};

/// Finished, the result is valid.
class End : public BaseState
{
public:
    void readAndHandleNext(StatechartImpl& machine) const override;

    bool isEnd() const override
    {
        return true;
    }

    bool successful() const override
    {
        return true;
    }
};

/// Finished, the path leads above the root.
class Error : public BaseState
{
public:
    void readAndHandleNext(StatechartImpl& machine) const override;

    bool isEnd() const override
    {
        return true;
    }
};

/// The machine: one object of each state, the path that it rewrites, and what it holds back.
///
/// | State | end | `/` | `.` | any other byte |
/// |---|---|---|---|---|
/// | `Start` | `End` | write it: `BeginSegment` | `ContinueSegment` | `ContinueSegment` |
/// | `BeginSegment` | `jEnd(true)` | `BeginSegment` | `Dot1` | `ContinueSegment` |
/// | `Dot1` | `jEnd(true)` | `BeginSegment` | `Dot2` | `ContinueSegment` |
/// | `Dot2` | step up, end | step up: `BeginSegment` | `ContinueSegment` | `ContinueSegment` |
/// | `ContinueSegment` | hold back, `jEnd(false)` | hold back: `BeginSegment` | `ContinueSegment` | `ContinueSegment` |
///
/// To step up is to drop the last segment that is held back, to hold the ".." itself back behind one that stays, or to
/// write it where nothing is held back; above the root it leads to `Error`. It ends in `jEnd(false)`, and in `End`
/// where the ".." was written.
class StatechartImpl
{
public:
    explicit StatechartImpl(std::string& s_)
        : s(s_)
        , readPos(s.begin())
        , writePos(s.begin())
        , state(&start)
    {
    }

    StatechartImpl(const StatechartImpl&) = delete;
    StatechartImpl& operator=(const StatechartImpl&) = delete;

    /// Runs to the end of the path and cuts it to the result.
    ///
    /// @return false if the path leads above the root
    bool run();

    bool eof() const
    {
        return readPos == s.end();
    }

    /// @requires `readPos != s.end()`
    char read()
    {
        quorvil::intern::require(readPos != s.end(), "readPos != s.end()", source, __LINE__,
                                 "char quorvilRemovePathDots::StatechartImpl::read()");
        return *readPos++;
    }

    /// @requires `writePos != s.end()`
    void write(char c)
    {
        quorvil::intern::require(writePos != s.end(), "writePos != s.end()", source, __LINE__,
                                 "void quorvilRemovePathDots::StatechartImpl::write(char)");
        *writePos++ = c;
    }

    /// Begins an ordinary segment with `c`.
    ///
    /// @requires `c != '/'`
    void jContinue(char c)
    {
        quorvil::intern::require(c != '/', "c != '/'", source, __LINE__,
                                 "void quorvilRemovePathDots::StatechartImpl::jContinue(char)");
        segment = c;
        state = &continueSegment;
    }

    /// Writes the segments that are left, joined by `/`, and ends.
    ///
    /// @param separatorBehind  the path ended behind a separator or in ".": one `/` more, if a segment was written
    void jEnd(bool separatorBehind);

private:
    friend class Start;
    friend class BeginSegment;
    friend class Dot1;
    friend class Dot2;
    friend class ContinueSegment;

    /// Holds a copy of the segment back. Kept out of `ContinueSegment`, which meets it once a segment, not once a byte.
    [[gnu::noinline]] void holdBack()
    {
        segments.push_back(segment);
    }

    /// True if a ".." takes away the last segment that is held back; there is one. Only a leading ".." of a relative
    /// path stays: no other segment reads so.
    bool canStepUp() const
    {
        return segments.back() != "..";
    }

    Start start;
    BeginSegment beginSegment;
    Dot1 dot1;
    Dot2 dot2;
    ContinueSegment continueSegment;
    End end;
    Error error;

    std::string& s;
    std::string::iterator readPos;    ///< the next byte to read
    std::string::iterator writePos;   ///< the next byte to write; never passes `readPos`
    std::deque<std::string> segments; ///< held back, in path order, without separators
    std::string segment;              ///< the one being read
    bool absolute = false;
    const BaseState* state;
};

// Ahead of `run`, whose inner loop it becomes.
[[gnu::always_inline]] inline void ContinueSegment::readAndHandleNext(StatechartImpl& machine) const
{
    if (machine.eof()) {
        machine.holdBack();
        machine.jEnd(false);
        return;
    }
    const char c = machine.read();
    if (c == '/') {
        machine.holdBack();
        machine.state = &machine.beginSegment;
        return;
    }
    machine.segment += c;
}

bool StatechartImpl::run()
{
    while (!state->isEnd()) {
        state->readAndHandleNext(*this);
        // Most bytes are those of names: here the compiler knows the state and makes one loop of it.
        while (state == &continueSegment)
            continueSegment.readAndHandleNext(*this);
    }
    const bool result = state->successful();
    if (result)
        s.resize(static_cast<std::size_t>(writePos - s.begin()));
    return result;
}

void StatechartImpl::jEnd(bool separatorBehind)
{
    bool first = true;
    for (const std::string& name : segments) {
        if (!first)
            write('/');
        first = false;
        for (const char c : name)
            write(c);
    }
    if (separatorBehind && !segments.empty())
        write('/');
    state = &end;
}

void Start::readAndHandleNext(StatechartImpl& machine) const
{
    if (machine.eof()) {
        machine.state = &machine.end;
        return;
    }
    const char c = machine.read();
    if (c != '/') {
        machine.jContinue(c);
        return;
    }
    machine.absolute = true;
    machine.write('/');
    machine.state = &machine.beginSegment;
}

void BeginSegment::readAndHandleNext(StatechartImpl& machine) const
{
    if (machine.eof()) {
        machine.jEnd(true);
        return;
    }
    const char c = machine.read();
    if (c == '.')
        machine.state = &machine.dot1;
    else if (c != '/') // a doubled separator counts as one
        machine.jContinue(c);
}

void Dot1::readAndHandleNext(StatechartImpl& machine) const
{
    if (machine.eof()) {
        machine.jEnd(true);
        return;
    }
    const char c = machine.read();
    if (c == '.') {
        machine.state = &machine.dot2;
    } else if (c == '/') {
        machine.state = &machine.beginSegment;
    } else {
        machine.segment = {'.', c};
        machine.state = &machine.continueSegment;
    }
}

void Dot2::readAndHandleNext(StatechartImpl& machine) const
{
    const bool atEnd = machine.eof();
    const char c = atEnd ? '/' : machine.read();
    if (c != '/') {
        machine.segment = {'.', '.', c};
        machine.state = &machine.continueSegment;
        return;
    }
    if (machine.segments.empty() && machine.absolute) {
        machine.state = &machine.error;
        return;
    }
    if (machine.segments.empty()) {
        machine.write('.');
        machine.write('.');
        if (atEnd) {
            machine.state = &machine.end;
            return;
        }
        machine.write('/');
    } else if (machine.canStepUp()) {
        machine.segments.pop_back();
    } else {
        machine.segments.emplace_back("..");
    }
    if (atEnd)
        machine.jEnd(false);
    else
        machine.state = &machine.beginSegment;
}

void End::readAndHandleNext(StatechartImpl&) const
{
    quorvil::intern::require(
        false, "false", source, __LINE__,
        "virtual void quorvilRemovePathDots::End::readAndHandleNext(quorvilRemovePathDots::StatechartImpl&) const");
}

void Error::readAndHandleNext(StatechartImpl&) const
{
    quorvil::intern::require(
        false, "false", source, __LINE__,
        "virtual void quorvilRemovePathDots::Error::readAndHandleNext(quorvilRemovePathDots::StatechartImpl&) const");
}

bool removePathDots(std::string& s)
{
    if (isClean(s))
        return true;
    StatechartImpl machine(s);
    return machine.run();
}

} // namespace quorvilRemovePathDots
