// QuorvilLimitedBuffer.h: a flight recorder for text, a ring that keeps the newest trace with state snapshots in it
// Diagnostics, on Foundation

#ifndef QUORVIL_QUORVILLIMITEDBUFFER_H
#define QUORVIL_QUORVILLIMITEDBUFFER_H

#include "Quorvil/QuorvilExport.h"
#include "Quorvil/QuorvilLimitedStateValueBuffer.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <thread>

namespace util {

/// A ring of bytes of fixed size, into which threads write trace text at any time, and which keeps the newest text and
/// forgets the oldest.
///
/// Beside the text it keeps state-value lists: raw snapshots of bytes, each tied to a place in the text. When the ring
/// is printed, a function of the owner formats each list at its place. The ring holds no terminators and no marks, and
/// text may be cut in the middle of a line. The content lives as long as the object; nothing clears it.
///
/// All buffers of the process are silent until `setBufferingActive(true)`: then only do `add`, `addf`,
/// `addStateValueList` and `print` anything at all.
///
/// | ring    | `add`, `addf`                     | `addStateValueList`           | `print`                          |
/// |---------|-----------------------------------|-------------------------------|----------------------------------|
/// | silent  | nothing                           | nothing                       | nothing, not even the frame      |
/// | filling | appends                           | a list behind the text so far | the frame, all text, all lists   |
/// | full    | appends, and the oldest text goes | the same                      | the frame, a ring of text, lists |
///
/// **Lists.** The newest 128 are kept, each until new text comes to the place of the list, which is when as many bytes
/// as the ring holds have been added behind it. An empty text drops all lists.
///
/// **Real time.** `add`, `addf` and `addStateValueList` take no memory from the system, make no system call unless
/// another thread holds the lock, and wait at most for another writer or for the copy of the ring that a `print` takes.
/// Their page faults end once a `SimpleHeap` has been made after the buffer: its constructor locks into RAM what is
/// mapped then. A buffer made later takes one fault for each page of its ring on the first round.
///
/// **Lifetime.** No thread may be inside any operation when the object is destroyed.
class QUORVIL_API LimitedBuffer
{
public:
    /// An empty ring.
    ///
    /// @param capacity              bytes of text in the ring, 1 to INT_MAX; a text that is added must be shorter, so
    ///                              that `addf`, which adds up to 511 bytes, wants at least 512
    /// @param bytesPerValueList     length of each state-value list in bytes
    /// @param formatStateValueList  prints one list to a stream; its second argument points to the list's bytes. It is
    ///                              called by `print` alone, without a lock, on each thread that prints, and may itself
    ///                              add to the buffer
    /// @requires `formatStateValueList`, `capacity <= INT_MAX`, `begin < end`
    /// @throws std::bad_alloc  there is no memory for ring or lists
    /// @throws std::bad_array_new_length  the lists' length is below 0 or beyond any array
    /// @threads any   @realtime allocates
    LimitedBuffer(std::size_t capacity, int bytesPerValueList,
                  std::function<void(std::basic_ostream<char>&, const char*)> formatStateValueList);

    /// Releases the ring and the lists.
    ///
    /// @threads one at a time   @realtime allocates
    virtual ~LimitedBuffer();

    LimitedBuffer(const LimitedBuffer&) = delete;
    LimitedBuffer& operator=(const LimitedBuffer&) = delete;

    /// Switches recording and printing on or off, for all buffers of the process. It is off at load, and the library
    /// never switches it. A call that has already begun is not affected.
    ///
    /// @threads any   @realtime bounded
    static void setBufferingActive(bool active);

    /// Whether buffers record and print.
    ///
    /// @threads any   @realtime bounded
    static bool isBufferingActive()
    {
        return bufferingActive;
    }

    /// Adds `len` bytes of text. Lists whose place is overwritten go.
    ///
    /// @requires `(ptrdiff_t)len < (end - begin)`
    /// @throws std::system_error  the lock cannot be taken
    /// @threads any   @realtime bounded
    void add(const char* text, std::size_t len)
    {
        // Here, so that a recorder that is switched off costs its caller no call.
        if (bufferingActive)
            addActive(text, len);
    }

    /// Adds the text of `vsnprintf`, cut at 511 bytes without a mark. No line end is added.
    ///
    /// Where `vsnprintf` reports an error, nothing is added and no list goes. Integers, strings and floating-point
    /// numbers of usual width take no memory.
    ///
    /// @param format  as for `printf`
    /// @requires `(ptrdiff_t)len < (end - begin)` of the text's length
    /// @throws std::system_error  the lock cannot be taken
    /// @threads any   @realtime bounded
    void addf(const char* format, ...) __attribute__((format(printf, 2, 3)));

    /// Adds a state-value list behind all text so far, in place of the oldest when there are 128.
    ///
    /// @param values    the list's bytes, copied
    /// @param numBytes  their number, always `bytesPerValueList`
    /// @requires `numBytes == bytesPerValueList`
    /// @throws std::system_error  the lock cannot be taken
    /// @threads any   @realtime bounded
    void addStateValueList(const char* values, int numBytes);

    /// Writes a header, the text from the oldest to the newest byte with each list formatted at its place, and a
    /// footer.
    ///
    /// It works on a copy: writers are held up for the copying of the ring and the lists, not for the output. The
    /// stream's width is reset and nothing is padded. What the stream or the formatter throws passes through and leaves
    /// the buffer as it was. Threads that print at the same time need a stream each.
    ///
    /// @throws std::bad_alloc  there is no memory for the copy; nothing has been written
    /// @throws std::system_error  the lock cannot be taken
    /// @threads any   @realtime allocates
    void print(std::ostream& out);

    /// Writes `partSize` bytes of the ring from `partBegin` on, in ring order, valid text or not. It takes no lock: the
    /// caller decides what a writer beside it may do to the part.
    ///
    /// @requires `begin <= partBegin && partBegin < end`, `(ptrdiff_t)partSize <= (end - begin)`
    /// @threads one at a time   @realtime I/O
    void readPart(char* partBegin, std::size_t partSize, std::ostream& out);

    /// Ends the process unless the ring's fields fit together. No other thread adds meanwhile.
    ///
    /// @requires `begin < end`, `begin <= next`, `next < end`, `(ptrdiff_t)size <= (end - begin)`
    /// @threads one at a time   @realtime bounded
    void checkInvariants() const;

    /// The place `n` bytes from `a` in ring order, backward if `n` is negative. Any `n` will do.
    ///
    /// @requires `begin <= a && a < end`
    /// @threads any   @realtime bounded
    char* walk(char* a, std::ptrdiff_t n) const;

    /// The distance from `a` forward to `b` in bytes, 1 to the capacity: the whole capacity where they are equal.
    ///
    /// @requires `begin <= a && a < end`, `begin <= b && b < end`
    /// @threads any   @realtime bounded
    std::size_t diff(char* a, char* b) const;

    /// The first byte of the ring, for as long as the buffer lives.
    ///
    /// @threads any   @realtime bounded
    char* ringBegin() const;

    /// One past the last byte of the ring.
    ///
    /// @threads any   @realtime bounded
    char* ringEnd() const;

    /// Where the next byte of text goes at this moment, inside the ring.
    ///
    /// @throws std::system_error  the lock cannot be taken
    /// @threads any   @realtime bounded
    char* ringNext() const;

private:
    static std::atomic<bool> bufferingActive;

    void addActive(const char* text, std::size_t len);
    void internAdd(const char* text, std::size_t len, std::unique_lock<std::mutex>& lock);

    char* begin;
    char* end;
    char* next;
    std::size_t size;
    mutable std::mutex mutex;
    char formatBuf[512];
    LimitedStateValueBuffer stateValues;
    std::function<void(std::ostream&, const char*)> formatStateValueList;
};

/// Prints `buffer` to `out`, and throws, as `print` does.
///
/// @threads any   @realtime allocates
QUORVIL_API std::ostream& operator<<(std::ostream& out, LimitedBuffer& buffer);

/// The well-known buffer of the process, into which lock groups trace. It is empty at load: the application installs a
/// buffer before it starts threads, and users test it for null. It ends with the library's other global objects.
/// No other thread uses it while it is assigned.
///
/// @threads any
QUORVIL_API extern std::shared_ptr<LimitedBuffer> gl_pTrenvikLimitedBuffer;

/// A console thread that prints a buffer on demand: on each line from standard input, until the line "q" or the end of
/// input.
class QUORVIL_API LBInteractiveDump
{
public:
    /// Starts the thread.
    ///
    /// @param buffer  not owned; it outlives this object
    /// @throws std::system_error  no thread can be started
    /// @threads any   @realtime allocates
    explicit LBInteractiveDump(LimitedBuffer& buffer);

    /// Waits for the user's "q" or for the end of input.
    ///
    /// @threads one at a time   @realtime waits
    virtual ~LBInteractiveDump();

    LBInteractiveDump(const LBInteractiveDump&) = delete;
    LBInteractiveDump& operator=(const LBInteractiveDump&) = delete;

    /// The dialogue on `std::cin` and `std::cout`: prompt, read a line, echo it, and print the buffer, again and again.
    /// It returns behind the echo of "q", of the last line of the input, or of a failed read. What `print` throws is
    /// reported on `std::cerr`, and the dialogue goes on. What a stream throws that is set to is reported there too: a
    /// failed read ends the dialogue behind its echo, a failed prompt or echo at once. It has the console to itself.
    ///
    /// @threads one at a time   @realtime waits
    void run();

private:
    LimitedBuffer& buffer;
    std::thread thread;
};

} // namespace util

#endif
