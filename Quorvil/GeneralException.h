// GeneralException.h: the exception with a text, and the turning of an error number into it
// Foundation

#ifndef QUORVIL_GENERALEXCEPTION_H
#define QUORVIL_GENERALEXCEPTION_H

#include "Quorvil/QuorvilExport.h"

#include <atomic>
#include <exception>
#include <iosfwd>
#include <sstream>
#include <string>

namespace util {

/// The library's exception with a text. It announces itself on standard output when it is built, thrown or not; a copy
/// does not.
class QUORVIL_API GeneralException : public std::exception
{
public:
    /// Stores the message and, unless `silent` or `defaultSilent` is true, writes the plain log line
    /// "[WARN Quorvil/GeneralException:65]    Constructing GeneralException with msg ", the message and a newline.
    ///
    /// @param msg     what `what()` returns
    /// @param silent  true: no announcement; the library itself always passes false
    /// @threads any   @realtime I/O
    GeneralException(const std::string& msg, bool silent);

    ~GeneralException() override;

    /// The message, as long as the exception lives.
    ///
    /// @threads any   @realtime bounded
    const char* what() const noexcept override;

    /// True silences every announcement of the process. False at load; the library never writes it.
    ///
    /// @threads any   @realtime bounded
    static std::atomic<bool> defaultSilent;

private:
    std::string msg;
};

/// An operation was called in a state that does not allow it.
class QUORVIL_API IllegalStateException : public std::exception
{
public:
    /// The message is `operation`, " called in ", `state`. Nothing is announced.
    ///
    /// @threads any   @realtime allocates
    IllegalStateException(const std::string& operation, const std::string& state);

    ~IllegalStateException() override;

    /// The message, as long as the exception lives.
    ///
    /// @threads any   @realtime bounded
    const char* what() const noexcept override;

private:
    std::string msg;
};

/// Turns an error number into the text of a `GeneralException`, or into a line where throwing is not allowed.
///
/// Each place of use names the errors that it expects, by `handle`, and ends with `throwNow` or `writeNow`:
/// "EINVAL in pthread_cond_wait" comes from `handle(EINVAL, "EINVAL")` and `throwNow("in pthread_cond_wait")`. An error
/// that nobody named reads "Unexpected errno (22) in pthread_cond_wait". A null text fails the text's stream, and what
/// would have followed it is lost. A thrower belongs to one thread.
class QUORVIL_API GeneralExceptionThrower
{
public:
    /// Keeps the number; the text is empty, and the number has no name yet.
    ///
    /// @param err  the error number to report
    /// @threads any   @realtime allocates
    explicit GeneralExceptionThrower(int err);

    virtual ~GeneralExceptionThrower();

    /// Takes `name` for the error if its number is `code` and no earlier call has matched.
    ///
    /// @threads owner   @realtime allocates
    void handle(int code, const char* name);

    /// Completes the text: the number, if no name was found for it, a blank, and `where`. `throwNow` and `writeNow`
    /// call it by themselves.
    ///
    /// @threads owner   @realtime allocates
    void completeMsg(const char* where);

    /// Completes the text and throws it.
    ///
    /// @throws GeneralException  always; it has announced itself
    /// @threads owner   @realtime I/O
    [[noreturn]] void throwNow(const char* where);

    /// Completes the text and writes it, with a newline and a flush, to `out`: for destructors.
    ///
    /// @threads owner   @realtime I/O
    void writeNow(const char* where, std::ostream& out);

    GeneralExceptionThrower(const GeneralExceptionThrower&) = delete;
    GeneralExceptionThrower& operator=(const GeneralExceptionThrower&) = delete;

private:
    std::stringstream text;
    int err;
    bool handled = false;
};

} // namespace util

#endif
