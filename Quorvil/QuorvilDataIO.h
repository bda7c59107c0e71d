// QuorvilDataIO.h: plain values saved and restored one at a time, as a text file of one decimal number a line
// Data, on Foundation and Synchronisation

#ifndef QUORVIL_QUORVILDATAIO_H
#define QUORVIL_QUORVILDATAIO_H

#include "Quorvil/QuorvilExport.h"

#include <iosfwd>
#include <string>

namespace quorvil {

namespace sync {
class LockGroup;
}

/// Saves and restores plain values in a fixed order that both sides know: the order of the calls is the format.
class QUORVIL_API IDataIO
{
public:
    virtual ~IDataIO();

    /// Each `w` saves one value, each `r` restores one. Failures are exceptions.
    ///
    /// @threads one at a time   @realtime I/O
    virtual void w(bool value) = 0;
    virtual void r(bool& value) = 0;
    virtual void w(char value) = 0;
    virtual void r(char& value) = 0;
    virtual void w(unsigned char value) = 0;
    virtual void r(unsigned char& value) = 0;
    virtual void w(unsigned short value) = 0;
    virtual void r(unsigned short& value) = 0;
    virtual void w(unsigned int value) = 0;
    virtual void r(unsigned int& value) = 0;
    virtual void w(signed char value) = 0;
    virtual void r(signed char& value) = 0;
    virtual void w(short value) = 0;
    virtual void r(short& value) = 0;
    virtual void w(int value) = 0;
    virtual void r(int& value) = 0;

protected:
    IDataIO() = default;
    IDataIO(const IDataIO&) = default;
    IDataIO& operator=(const IDataIO&) = default;
};

/// A data file of text: one decimal number a line, without header, names or end mark.
///
/// | Type | Written | Read back |
/// |---|---|---|
/// | `bool` | 1 or 0 | true for any `int` but 0 |
/// | `char` | 0 to 255, under every compiler | low 8 bits of an `int` |
/// | `signed char` | -128 to 127 | low 8 bits of an `int` |
/// | `unsigned char` | 0 to 255 | low 8 bits of an `unsigned int` |
/// | `short` | signed | as `short`: a number out of range fails |
/// | `unsigned short` | 0 to 65535 | low 16 bits of an `unsigned int` |
/// | `int` | in full | as such: a number out of range fails |
/// | `unsigned int` | in full | as such; a minus sign wraps |
///
/// White space in front of a number carries no meaning on reading; the last number needs a newline behind it.
///
/// | State | `w` | `r` | `close` |
/// |---|---|---|---|
/// | open for writing | writes | throws | flushes; closed |
/// | open for reading | throws | reads | nothing |
/// | failed, or closed | throws | throws | a writer reports lost bytes once |
///
/// An object stays in the direction that it was made for and, once an operation has failed, in failure. Bytes that the
/// system refuses only at the end are reported by `close`; the destructor closes without a word. All failures are
/// `util::GeneralException`, which announces itself. The narrow operations go through the virtual `w(int)`,
/// `w(unsigned int)`, `r(int&)` and `r(unsigned int&)`, but for `r(short&)`, which reads by itself. An object belongs
/// to one thread at a time.
class QUORVIL_API TextFileDataIO : public IDataIO
{
public:
    /// Creates or empties the file and opens it for writing (`open`; close-on-exec).
    ///
    /// @return the object, which the caller owns and deletes
    /// @throws util::GeneralException  "Kann nicht in Datei schreiben: " and the name
    /// @threads any   @realtime I/O
    static TextFileDataIO* forWrite(const std::string& fileName);

    /// Opens the file for reading (`open`; close-on-exec).
    ///
    /// @return the object, which the caller owns and deletes
    /// @throws util::GeneralException  "Kann nicht von Datei lesen: " and the name
    /// @threads any   @realtime I/O
    static TextFileDataIO* forRead(const std::string& fileName);

    /// An object that is open in no direction; only `forWrite` and `forRead` make one that works.
    ///
    /// @threads any   @realtime bounded
    explicit TextFileDataIO(const std::string& fileName);

    /// Closes the file. Bytes that cannot be written any more are lost without a report.
    ///
    /// @threads owner   @realtime I/O
    ~TextFileDataIO() override;

    TextFileDataIO(const TextFileDataIO&) = delete;
    TextFileDataIO& operator=(const TextFileDataIO&) = delete;

    /// Each `w` writes one number and a newline.
    ///
    /// @throws util::GeneralException  not open for writing: "TextFileDataIO has not been opened for writing, but one
    ///     of the w() method has been called."; writing failed, now or earlier, or the file was closed:
    ///     "TextFileDataIO: Problem beim Schreiben"
    /// @threads owner   @realtime I/O
    void w(bool value) override;
    void w(char value) override;
    void w(unsigned char value) override;
    void w(unsigned short value) override;
    void w(unsigned int value) override;
    void w(signed char value) override;
    void w(short value) override;
    void w(int value) override;

    /// Each `r` reads the next number. A failed one leaves `value` as it was.
    ///
    /// @throws util::GeneralException  not open for reading: "TextFileDataIO has not been opened for reading, but one
    ///     of the r() method has been called."; no number at this place, one that does not fit, or the end of the file,
    ///     now or earlier: "TextFileDataIO: Problem beim Lesen"
    /// @threads owner   @realtime I/O
    void r(bool& value) override;
    void r(char& value) override;
    void r(unsigned char& value) override;
    void r(unsigned short& value) override;
    void r(unsigned int& value) override;
    void r(signed char& value) override;
    void r(short& value) override;
    void r(int& value) override;

    /// Writes what is still buffered and closes the file. The second call, and one on an object for reading, does
    /// nothing.
    ///
    /// @throws util::GeneralException  bytes were lost, now or earlier: "TextFileDataIO: Problem beim Schreiben"; the
    ///     file is closed all the same
    /// @threads owner   @realtime I/O
    void close();

private:
    void checkWrite() const;
    void checkRead() const;
    template <typename Number>
    void writeNumber(Number value);
    template <typename Number>
    void readNumber(Number& value);

    std::ofstream* o = nullptr; ///< owned; null on an object for reading
    std::ifstream* i = nullptr; ///< owned; null on an object for writing
};

/// The frame of a thread that would write a buffer to a file. Nothing in it does anything.
class QUORVIL_API BufferToFileThread
{
public:
    BufferToFileThread();
    virtual ~BufferToFileThread();

    /// Returns at once: it starts no thread, looks at no argument and touches no file.
    ///
    /// @threads any   @realtime bounded
    void start(int, sync::LockGroup&, unsigned char*, unsigned int, unsigned char*&, unsigned char*&);

    /// Returns at once.
    ///
    /// @threads any   @realtime bounded
    void join();

    /// Returns at once.
    ///
    /// @threads any   @realtime bounded
    void run();
};

} // namespace quorvil

#endif
