// QuorvilLimitedStateValueBuffer.h: the last 128 state snapshots of a limited buffer, each at its place in the text
// Diagnostics, on nothing

#ifndef QUORVIL_QUORVILLIMITEDSTATEVALUEBUFFER_H
#define QUORVIL_QUORVILLIMITEDSTATEVALUEBUFFER_H

#include "Quorvil/QuorvilExport.h"

namespace util {

/// Keeps the newest 128 state-value lists of a `LimitedBuffer`: blocks of bytes of one fixed length, whose meaning only
/// the owner knows, each with the position in the text ring at which it belongs.
///
/// A position is an offset into the text ring and names the gap just before the byte at that offset. Lists enter by
/// `add` and leave by being replaced (the 129th replaces the first) or by `removeOverwritten`; nothing else empties the
/// object. After the constructor nothing is allocated. There is no lock: the caller serialises all access.
///
/// | lists  | `add`                           | `removeOverwritten`      | `startIteration`, `iterate` |
/// |--------|---------------------------------|--------------------------|-----------------------------|
/// | 0      | 1 list                          | nothing, nothing checked | false at once               |
/// | 1..127 | one more                        | the newest run survives  | all, oldest first           |
/// | 128    | 128: the oldest gives its place | the newest run survives  | all, oldest first           |
class QUORVIL_API LimitedStateValueBuffer
{
public:
    /// An object without lists.
    ///
    /// @param bytesPerValueList  length of each list in bytes; with 0 the object exists, but no list of it can be used
    /// @throws std::bad_array_new_length  128 lists of that length are no size of an array
    /// @throws std::bad_alloc  there is no memory for them
    /// @threads any   @realtime allocates
    explicit LimitedStateValueBuffer(int bytesPerValueList);

    /// Releases the lists.
    ///
    /// @threads one at a time   @realtime allocates
    virtual ~LimitedStateValueBuffer();

    LimitedStateValueBuffer(const LimitedStateValueBuffer&) = delete;
    LimitedStateValueBuffer& operator=(const LimitedStateValueBuffer&) = delete;

    /// Stores a copy of a list as the newest one, in place of the oldest when there are 128.
    ///
    /// @param pos       position of the list; it is looked at only by `removeOverwritten`
    /// @param values    the list's bytes
    /// @param numBytes  their number, always `bytesPerValueList`
    /// @requires `numBytes == bytesPerValueList`
    /// @threads one at a time   @realtime bounded
    void add(int pos, const char* values, int numBytes);

    /// Takes over all lists of `src`, with their bytes, in place of its own. A running iteration ends.
    /// No other thread uses either object meanwhile.
    ///
    /// @requires `src.bytesPerValueList == this->bytesPerValueList`
    /// @threads one at a time   @realtime bounded
    void copyFrom(const LimitedStateValueBuffer& src);

    /// Drops the newest list whose position lies in the stretch of the cycle that was just written, and all older ones
    /// without a look at them. The stretch runs from just behind `begin` up to and including `end`; where both are
    /// equal it is the whole cycle. Without lists it does nothing and checks nothing.
    ///
    /// @param begin     where the write pointer was
    /// @param end       where it is now
    /// @param cycleLen  length of the cycle
    /// @requires `0 <= pos && pos < cycleLen` of each position looked at, `0 <= begin && begin < cycleLen`,
    ///           `0 <= end && end < cycleLen`
    /// @threads one at a time   @realtime bounded
    void removeOverwritten(int begin, int end, int cycleLen);

    /// Begins an iteration over the lists of this moment, at the oldest one.
    ///
    /// @threads one at a time   @realtime bounded
    void startIteration();

    /// Delivers the next list, from the oldest to the newest.
    ///
    /// @param[out] pos     the list's position; left alone at the end
    /// @param[out] values  the list's bytes inside this object, valid until the next change; left alone at the end
    /// @return false at the end, and without a `startIteration`
    /// @threads one at a time   @realtime bounded
    bool iterate(int& pos, char*& values);

    /// Moves a cursor one position back, from the first to the last.
    ///
    /// @requires `posBuf <= *ppos && *ppos < posBufEnd`
    /// @threads one at a time   @realtime bounded
    void posStepBack(int** ppos);

    /// Moves a cursor one position forward, from the last to the first.
    ///
    /// @requires `posBuf <= *ppos && *ppos < posBufEnd`
    /// @threads one at a time   @realtime bounded
    void posStepForward(int** ppos);

    /// Moves a cursor one list back, from the first to the last.
    ///
    /// @param[in,out] pvalue  points to the begin of a list, as `iterate` gives it
    /// @requires `valueBuf <= *pvalue && *pvalue < valueBufEnd`, before and after the step
    /// @threads one at a time   @realtime bounded
    void valueStepBack(char** pvalue);

    /// Moves a cursor one list forward, from the last to the first.
    ///
    /// @param[in,out] pvalue  points to the begin of a list, as `iterate` gives it
    /// @requires `valueBuf <= *pvalue && *pvalue < valueBufEnd`, before and after the step
    /// @threads one at a time   @realtime bounded
    void valueStepForward(char** pvalue);

private:
    // A limited buffer makes a second object of the same list length, for its copy.
    friend class LimitedBuffer;

    static constexpr int maxEntries = 128;

    int bytesPerValueList;
    char* valueBuf;
    char* valueBufEnd;
    int posBuf[maxEntries];
    int* posBufEnd;
    int numEntries;
    char* nextValue;
    int* nextPos;
    char* iterValue;
    int* iterPos;
    int iterLeft;

    // What the last look at the positions found: they all lie in a cycle of clearCycleLen bytes (0: nothing is known),
    // and a text that begins at clearFrom overwrites none of them as long as it has less than clearBytes bytes.
    int clearFrom;
    int clearBytes;
    int clearCycleLen;
};

} // namespace util

#endif
