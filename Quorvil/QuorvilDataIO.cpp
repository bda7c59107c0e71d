#include "Quorvil/QuorvilDataIO.h"

#include "Quorvil/GeneralException.h"
#include "Quorvil/QuorvilAssert.h"

#include <ext/stdio_filebuf.h>
#include <fcntl.h>
#include <fstream>
#include <locale>
#include <memory>
#include <unistd.h>
#include <utility>

namespace quorvil {

namespace {

constexpr const char* source = "Quorvil/QuorvilDataIO";

/// Opens the file for `stream`, on a descriptor that no started program inherits: a stream that opens by itself cannot
/// ask for that. Numbers are plain, whatever the global locale groups them into.
template <typename Stream>
bool openFile(Stream& stream, const std::string& fileName, int flags, std::ios_base::openmode mode)
{
    const int descriptor = ::open(fileName.c_str(), flags | O_CLOEXEC, 0666);
    if (descriptor < 0)
        return false;
    __gnu_cxx::stdio_filebuf<char> file(descriptor, mode);
    if (!file.is_open()) {
        ::close(descriptor);
        return false;
    }
    *stream.rdbuf() = std::move(file);
    stream.imbue(std::locale::classic());
    return true;
}

} // namespace

IDataIO::~IDataIO() = default;

TextFileDataIO* TextFileDataIO::forWrite(const std::string& fileName)
{
    auto x = std::make_unique<TextFileDataIO>(fileName);
    intern::require(!x->i, "!x->i", source, __LINE__,
                    "static quorvil::TextFileDataIO* quorvil::TextFileDataIO::forWrite(const std::string&)");
    x->o = new std::ofstream;
    if (!openFile(*x->o, fileName, O_WRONLY | O_CREAT | O_TRUNC, std::ios_base::out)) {
        x.reset();
        throw util::GeneralException("Kann nicht in Datei schreiben: " + fileName, false);
    }
    return x.release();
}

TextFileDataIO* TextFileDataIO::forRead(const std::string& fileName)
{
    auto x = std::make_unique<TextFileDataIO>(fileName);
    intern::require(!x->o, "!x->o", source, __LINE__,
                    "static quorvil::TextFileDataIO* quorvil::TextFileDataIO::forRead(const std::string&)");
    x->i = new std::ifstream;
    if (!openFile(*x->i, fileName, O_RDONLY, std::ios_base::in)) {
        x.reset();
        throw util::GeneralException("Kann nicht von Datei lesen: " + fileName, false);
    }
    return x.release();
}

TextFileDataIO::TextFileDataIO(const std::string&) {}

TextFileDataIO::~TextFileDataIO()
{
    delete o;
    delete i;
}

void TextFileDataIO::checkWrite() const
{
    if (!o) {
        throw util::GeneralException(
            "TextFileDataIO has not been opened for writing, but one of the w() method has been called.", false);
    }
    if (o->rdstate() != std::ios_base::goodbit)
        throw util::GeneralException("TextFileDataIO: Problem beim Schreiben", false);
}

void TextFileDataIO::checkRead() const
{
    if (!i) {
        throw util::GeneralException(
            "TextFileDataIO has not been opened for reading, but one of the r() method has been called.", false);
    }
    if (i->rdstate() != std::ios_base::goodbit)
        throw util::GeneralException("TextFileDataIO: Problem beim Lesen", false);
}

template <typename Number>
void TextFileDataIO::writeNumber(Number value)
{
    checkWrite();
    *o << std::dec << value << "\n";
    checkWrite();
}

template <typename Number>
void TextFileDataIO::readNumber(Number& value)
{
    checkRead();
    Number number;
    *i >> std::dec >> number;
    checkRead();
    value = number;
}

void TextFileDataIO::w(bool value)
{
    w(value ? 1 : 0);
}

void TextFileDataIO::w(char value)
{
    w(int{static_cast<unsigned char>(value)});
}

void TextFileDataIO::w(unsigned char value)
{
    w(static_cast<unsigned int>(value));
}

void TextFileDataIO::w(unsigned short value)
{
    w(static_cast<unsigned int>(value));
}

void TextFileDataIO::w(unsigned int value)
{
    writeNumber(value);
}

void TextFileDataIO::w(signed char value)
{
    w(int{value});
}

void TextFileDataIO::w(short value)
{
    w(int{value});
}

void TextFileDataIO::w(int value)
{
    writeNumber(value);
}

void TextFileDataIO::r(bool& value)
{
    int number = 0;
    r(number);
    value = number != 0;
}

void TextFileDataIO::r(char& value)
{
    int number = 0;
    r(number);
    value = static_cast<char>(number);
}

void TextFileDataIO::r(unsigned char& value)
{
    unsigned int number = 0;
    r(number);
    value = static_cast<unsigned char>(number);
}

void TextFileDataIO::r(unsigned short& value)
{
    unsigned int number = 0;
    r(number);
    value = static_cast<unsigned short>(number);
}

void TextFileDataIO::r(unsigned int& value)
{
    readNumber(value);
}

void TextFileDataIO::r(signed char& value)
{
    int number = 0;
    r(number);
    value = static_cast<signed char>(number);
}

void TextFileDataIO::r(short& value)
{
    readNumber(value);
}

void TextFileDataIO::r(int& value)
{
    readNumber(value);
}

void TextFileDataIO::close()
{
    if (!o || !o->is_open())
        return;
    o->close();
    checkWrite();
}

BufferToFileThread::BufferToFileThread() = default;

BufferToFileThread::~BufferToFileThread() = default;

void BufferToFileThread::start(int, sync::LockGroup&, unsigned char*, unsigned int, unsigned char*&, unsigned char*&) {}

void BufferToFileThread::join() {}

void BufferToFileThread::run() {}

} // namespace quorvil
