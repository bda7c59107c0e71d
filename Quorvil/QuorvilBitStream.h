// QuorvilBitStream.h: packs values of 1 to 32 bits into bytes and reads them back
// Data, on Foundation

#ifndef QUORVIL_QUORVILBITSTREAM_H
#define QUORVIL_QUORVILBITSTREAM_H

#include "Quorvil/QuorvilExport.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// The format: bit number k of the sequence, from 0, is bit k & 7 of byte k >> 3, where bit 0 is the least significant
// one. A value goes from its least significant bit upward. There is no header, no length and no marker; behind the
// last bit the rest of the last byte is 0.
//
// A bit stream and its byte stream belong to one thread at a time, and a byte stream must not use the bit stream that
// is calling it. What a byte stream throws passes through the bit stream: a byte that was refused is still collected,
// and a fetch that failed leaves the state as it was before it.
//
// `@realtime bounded` of a bit stream speaks of its own work, beside the calls of the byte stream that it makes.

/// Where a bit stream reads its bytes from, one at a time. What a call costs is the implementation's to say; the mark
/// gives the most.
class QUORVIL_API IByteInputStream
{
public:
    virtual ~IByteInputStream() = default;

    /// Gives the next byte. What comes behind the last one is the implementation's to say.
    ///
    /// @threads one at a time   @realtime I/O
    virtual uint8_t readUint8() = 0;
};

/// Where a bit stream writes its bytes to, one at a time. What a call costs is the implementation's to say; the marks
/// give the most.
class QUORVIL_API IByteOutputStream
{
public:
    virtual ~IByteOutputStream() = default;

    /// Takes one byte. A byte that is refused by an exception does not count as written.
    ///
    /// @threads one at a time   @realtime I/O
    virtual void writeUint8(uint8_t byte) = 0;

    /// Passes on what the implementation holds back. The bit streams never call it: it is the owner's of the byte
    /// stream.
    ///
    /// @threads one at a time   @realtime I/O
    virtual void flush() = 0;

    /// Forgets what was written.
    ///
    /// @threads one at a time   @realtime I/O
    virtual void reset() = 0;
};

/// Reads bytes out of a vector of its own.
class QUORVIL_API VecByteInputStream : public IByteInputStream
{
public:
    /// Reads `bytes` from the first one on. A vector that is moved in is not copied.
    ///
    /// @threads any   @realtime bounded
    explicit VecByteInputStream(std::vector<uint8_t> bytes);

    VecByteInputStream(const VecByteInputStream&) = delete;
    VecByteInputStream& operator=(const VecByteInputStream&) = delete;

    /// Gives the byte at the read position and advances it; at the end of the bytes 0, as often as asked.
    ///
    /// @threads one at a time   @realtime bounded
    uint8_t readUint8() override;

private:
    std::vector<uint8_t> content;
    std::vector<uint8_t>::const_iterator position;
};

/// Collects bytes in a vector of its own.
class QUORVIL_API VecByteOutputStream : public IByteOutputStream
{
public:
    /// Begins without a byte.
    ///
    /// @threads any   @realtime bounded
    VecByteOutputStream();

    VecByteOutputStream(const VecByteOutputStream&) = delete;
    VecByteOutputStream& operator=(const VecByteOutputStream&) = delete;

    /// Appends `byte`.
    ///
    /// @throws std::bad_alloc  the vector cannot grow; nothing was appended
    /// @threads one at a time   @realtime allocates
    void writeUint8(uint8_t byte) override;

    /// Does nothing: every byte is in the vector already.
    ///
    /// @threads one at a time   @realtime bounded
    void flush() override;

    /// Empties the vector and keeps its capacity.
    ///
    /// @threads one at a time   @realtime bounded
    void reset() override;

    /// What was written since the start or the last `reset`. The reference holds as long as the object; iterators and
    /// pointers into the vector hold until the next byte or `reset`.
    ///
    /// @threads one at a time   @realtime bounded
    const std::vector<uint8_t>& bytes() const;

private:
    std::vector<uint8_t> content;
};

/// Reads values of 1 to 32 bits out of a byte stream.
///
/// It fetches a byte when a bit of it is asked for and not earlier: a read that ends on a byte border leaves the byte
/// behind the border alone. There is no end: what is read behind the last byte is what the byte stream gives there,
/// zero bits for ever with a `VecByteInputStream`.
///
/// When a fetch in the middle of a value fails, the value is lost: the next read begins with the byte before the one
/// that failed, and with the bits of it that were left if the first fetch of the call failed.
class QUORVIL_API BitInputStream
{
public:
    virtual ~BitInputStream() = default;

    /// Makes a bit stream that reads from `stream`. The byte stream stays the caller's, must outlive the bit stream,
    /// and no byte is fetched yet.
    ///
    /// @throws std::bad_alloc  no memory
    /// @threads any   @realtime allocates
    static std::shared_ptr<BitInputStream> create(IByteInputStream& stream);

    /// Gives the next `numBits` bits, the oldest one in bit 0; the bits above them are 0. It calls the byte stream at
    /// most four times.
    ///
    /// @param numBits  1 to 32
    /// @requires numBits >= 0 && numBits <= 32, and then, against 0, what `bits` requires
    /// @throws  whatever the byte stream throws
    /// @threads one at a time   @realtime bounded
    virtual uint32_t read(int numBits) = 0;

    /// Gives the next bit, 0 or 1. It calls the byte stream at most once.
    ///
    /// @throws  whatever the byte stream throws
    /// @threads one at a time   @realtime bounded
    virtual uint32_t read() = 0;
};

/// Writes values of any bits of a 32-bit word into a byte stream.
///
/// Up to 32 bits are collected; they go to the byte stream as four bytes at once as soon as there are 32, and at
/// `flush`. Between these moments the byte stream sees nothing. The destructor does not flush: bits that were not
/// flushed are lost.
///
/// | State      | `write`, `writeBit` | `flush`                                                          | `reset`    |
/// |------------|---------------------|------------------------------------------------------------------|------------|
/// | Collecting | collects            | all bits go out; stays Collecting on a byte border, else Closed  | Collecting |
/// | Closed     | fails its assertion | does nothing                                                     | Collecting |
///
/// A `flush` off a byte border fills the last byte up with zero bits and so ends the sequence.
class QUORVIL_API BitOutputStream
{
public:
    virtual ~BitOutputStream() = default;

    /// Makes a bit stream that writes to `stream`. The byte stream stays the caller's and must outlive the bit stream.
    ///
    /// @throws std::bad_alloc  no memory
    /// @threads any   @realtime allocates
    static std::shared_ptr<BitOutputStream> create(IByteOutputStream& stream);

    /// Appends the bits `firstBit` to `firstBit + numBits - 1` of `value`, lowest first. A whole value of n bits is
    /// `write(0, n, value)`. Bits 32 to 63 of `value` read as 0; no bits are written if `numBits` is 0. It calls the
    /// byte stream four times for every 32 bits.
    ///
    /// @requires bitIdx >= 0 && bitIdx < 32 (the stream is not Closed), and what `bits` requires of each piece. A piece
    /// ends where 32 bits are collected; the pieces before a bad one are written
    /// @throws  whatever the byte stream throws: the bits of `value` collected so far stay, the others are left out
    /// @threads one at a time   @realtime bounded
    virtual void write(int firstBit, int numBits, uint32_t value) = 0;

    /// Appends one bit: `write(0, 1, bit)`.
    ///
    /// @requires bitIdx >= 0 && bitIdx < 32
    /// @throws  whatever the byte stream throws
    /// @threads one at a time   @realtime bounded
    virtual void writeBit(bool bit) = 0;

    /// Passes all collected bits to the byte stream, least significant byte first, the last byte filled up with zero
    /// bits: four bytes at most. With nothing collected it does nothing. The byte stream's own `flush` is not called.
    ///
    /// @throws  whatever the byte stream throws: the refused byte and those behind it are still collected
    /// @threads one at a time   @realtime bounded
    virtual void flush() = 0;

    /// Resets the byte stream and then drops the collected bits: the next bit is the first one again.
    ///
    /// @throws  whatever the byte stream throws; the collected bits are still there then
    /// @threads one at a time   @realtime bounded
    virtual void reset() = 0;
};

/// Prints a word for people: in decimal, in hexadecimal and bit by bit in two rows under the bit numbers. It begins
/// with an empty line and ends in a newline; the decimal number is plain, whatever the global locale is.
///
/// @threads any   @realtime allocates
QUORVIL_API std::string formatBits32(uint32_t value);

#endif
