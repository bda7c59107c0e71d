#include "Quorvil/QuorvilBitStream.h"
#include "Quorvil/QuorvilAssert.h"
#include "Quorvil/QuorvilBits.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <utility>

using quorvil::intern::require;

namespace {

constexpr char sourceName[] = "Quorvil/QuorvilBitStream";

/// The rows of bit numbers and bit values from `highBit` down to `highBit - 15`, in fields of three characters and
/// groups of four.
std::string formatHalf(uint32_t value, int highBit)
{
    std::string numbers;
    std::string values;
    for (int bit = highBit; bit > highBit - 16; --bit) {
        const std::string number = std::to_string(bit);
        numbers.append(3 - number.size(), ' ').append(number);
        values.append(bits(value, bit, 1) ? "  1" : "  0");
        if (bit % 4 == 0 && bit != highBit - 15) {
            numbers += ' ';
            values += ' ';
        }
    }
    return numbers + '\n' + values + '\n';
}

} // namespace

/// The fields are right at every call of the byte stream, so that an exception out of it leaves the state between two
/// bytes.
class BitInputStreamImpl final : public virtual BitInputStream
{
public:
    explicit BitInputStreamImpl(IByteInputStream& stream);

    uint32_t read(int numBits) override;
    uint32_t read() override;

private:
    /// Fetches a byte if the one at hand is used up.
    void normalize();

    IByteInputStream& byteStream;
    uint8_t curByte = 0;
    int doneBits = 8; // of curByte, from its lowest bit; 8 at the start, so that the first read fetches
};

/// As above the fields are right at every call of the byte stream.
class BitOutputStreamImpl final : public BitOutputStream
{
public:
    explicit BitOutputStreamImpl(IByteOutputStream& stream);

    void write(int firstBit, int numBits, uint32_t value) override;
    void writeBit(bool bit) override;
    void flush() override;
    void reset() override;

private:
    /// The general road of `write`, piece by piece, with every assertion.
    void writePieces(int firstBit, int numBits, uint32_t value);

    /// Passes on the low four bytes of `word`, which holds the bits collected, and keeps the others. It stays a
    /// function of its own so that the short road of `write` saves no registers.
    __attribute__((noinline)) void passFour(uint64_t word, int collected);

    IByteOutputStream& byteStream;
    uint32_t bitBuffer = 0; // the oldest bit is bit 0; the bits at and above bitIdx are 0
    int bitIdx = 0;         // 0 to 31 between calls, 32 also after an exception; below 0 when closed
};

VecByteInputStream::VecByteInputStream(std::vector<uint8_t> bytes)
    : content(std::move(bytes))
    , position(content.begin())
{
}

uint8_t VecByteInputStream::readUint8()
{
    if (position != content.end()) [[likely]]
        return *position++;
    return 0;
}

VecByteOutputStream::VecByteOutputStream() = default;

void VecByteOutputStream::writeUint8(uint8_t byte)
{
    content.push_back(byte);
}

void VecByteOutputStream::flush() {}

void VecByteOutputStream::reset()
{
    content.clear();
}

const std::vector<uint8_t>& VecByteOutputStream::bytes() const
{
    return content;
}

std::shared_ptr<BitInputStream> BitInputStream::create(IByteInputStream& stream)
{
    return std::make_shared<BitInputStreamImpl>(stream);
}

BitInputStreamImpl::BitInputStreamImpl(IByteInputStream& stream)
    : byteStream(stream)
{
}

void BitInputStreamImpl::normalize()
{
    require(doneBits >= 0 && doneBits <= 8, "doneBits >= 0 && doneBits <= 8", sourceName, __LINE__,
            "void BitInputStreamImpl::normalize()");
    if (doneBits == 8) {
        curByte = byteStream.readUint8();
        doneBits = 0;
    }
}

uint32_t BitInputStreamImpl::read(int numBits)
{
    static constexpr char function[] = "virtual uint32_t BitInputStreamImpl::read(int)";
    require(numBits >= 0 && numBits <= 32, "numBits >= 0 && numBits <= 32", sourceName, __LINE__, function);
    require(doneBits >= 0 && doneBits <= 8, "doneBits >= 0 && doneBits <= 8", sourceName, __LINE__, function);
    if (numBits == 0) {
        // Refused by `bits`, but not before the fetch that every read begins with.
        normalize();
        return static_cast<uint32_t>(bits(curByte, doneBits, numBits));
    }
    // The byte at hand and up to four behind it: 40 bits at most. They are taken out of one word at the end, so that no
    // offset, and no count left over, is carried from byte to byte whose range could be asserted: `end` lies in 1 to 40
    // by the two checks above.
    IByteInputStream& source = byteStream;
    const int begin = doneBits;
    const int end = begin + numBits;
    uint64_t word = curByte;
#pragma GCC unroll 4
    for (int held = 8; held < end; held += 8) {
        curByte = source.readUint8();
        if (held == 8)
            doneBits = 0;
        word |= uint64_t{curByte} << held;
    }
    doneBits = (end - 1) % 8 + 1;
    return static_cast<uint32_t>(bits(word, begin, end - begin));
}

uint32_t BitInputStreamImpl::read()
{
    normalize();
    const uint64_t res = bits(curByte, doneBits, 1);
    ++doneBits;
    return static_cast<uint32_t>(res);
}

std::shared_ptr<BitOutputStream> BitOutputStream::create(IByteOutputStream& stream)
{
    return std::make_shared<BitOutputStreamImpl>(stream);
}

BitOutputStreamImpl::BitOutputStreamImpl(IByteOutputStream& stream)
    : byteStream(stream)
{
}

void BitOutputStreamImpl::write(int firstBit, int numBits, uint32_t value)
{
    const bool fitsWord = bitIdx >= 0 && bitIdx < 32 && firstBit >= 0 && firstBit < 32 && numBits > 0 && numBits <= 32;
    if (!fitsWord) [[unlikely]] {
        writePieces(firstBit, numBits, value);
        return;
    }
    const int end = bitIdx + numBits;
    const uint64_t word = bitBuffer | bits(value, firstBit, numBits) << bitIdx;
    if (end < 32) {
        bitBuffer = static_cast<uint32_t>(word);
        bitIdx = end;
        return;
    }
    passFour(word, end);
}

void BitOutputStreamImpl::passFour(uint64_t word, int collected)
{
    IByteOutputStream& sink = byteStream;
#pragma GCC unroll 4
    for (int passed = 0; passed < 32; passed += 8) {
        bitBuffer = static_cast<uint32_t>(word) >> passed;
        bitIdx = 32 - passed;
        sink.writeUint8(static_cast<uint8_t>(bitBuffer));
    }
    bitBuffer = static_cast<uint32_t>(word >> 32);
    bitIdx = collected - 32;
}

void BitOutputStreamImpl::writePieces(int firstBit, int numBits, uint32_t value)
{
    static constexpr char function[] = "virtual void BitOutputStreamImpl::write(int, int, uint32_t)";
    do {
        if (bitIdx == 32)
            flush();
        require(bitIdx >= 0 && bitIdx < 32, "bitIdx >= 0 && bitIdx < 32", sourceName, __LINE__, function);
        const int n = std::min(numBits, 32 - bitIdx);
        if (n == 0)
            return;
        require(bitIdx + n <= 32, "bitIdx + n <= 32", sourceName, __LINE__, function);
        setBits(bitBuffer, bitIdx, n, static_cast<uint32_t>(bits(value, firstBit, n)));
        bitIdx += n;
        firstBit += n;
        numBits -= n;
    } while (bitIdx == 32);
}

void BitOutputStreamImpl::writeBit(bool bit)
{
    write(0, 1, bit);
}

void BitOutputStreamImpl::flush()
{
    while (bitIdx > 0) {
        byteStream.writeUint8(static_cast<uint8_t>(bitBuffer));
        bitBuffer >>= 8;
        bitIdx -= 8;
    }
}

void BitOutputStreamImpl::reset()
{
    byteStream.reset();
    bitBuffer = 0;
    bitIdx = 0;
}

std::string formatBits32(uint32_t value)
{
    std::string hexadecimal(8, '\0');
    char* const begin = hexadecimal.data();
    hexadecimal.resize(static_cast<size_t>(std::to_chars(begin, begin + hexadecimal.size(), value, 16).ptr - begin));
    return "\ndec: " + std::to_string(value) + "\nhex: " + hexadecimal + "\nbin:\n\n" + formatHalf(value, 31) + '\n' +
           formatHalf(value, 15);
}
