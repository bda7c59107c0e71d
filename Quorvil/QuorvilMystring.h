// QuorvilMystring.h: UTF-8 and wide strings that convert into each other by the process's locale
// Data, on Foundation

#ifndef QUORVIL_QUORVILMYSTRING_H
#define QUORVIL_QUORVILMYSTRING_H

#include "Quorvil/QuorvilExport.h"

#include <string>

namespace tolmen {

class mywstring;

/// Thrown by value where bytes do not convert to wide characters. It carries nothing: the line on `safeCerr` that
/// stands before it says what was wrong.
class QUORVIL_API Utf8Exception{};

/// A standard string of UTF-8 bytes that converts to and from `mywstring`, and counts how strings come into being.
///
/// A move leaves its source empty. Null pointers are refused by `std::logic_error` where a text is expected; what else
/// the standard string throws passes through. A string belongs to one thread at a time.
///
/// The counters start at 0 and are never reset. Several threads may build strings at once; the counters are exact as
/// long as one thread does.
///
/// A process starts under the locale "C", where nothing but ASCII converts: call `initLocale` (QuorvilInit.h) first.
class QUORVIL_API mystring : public std::string
{
public:
    /// The empty string. Counted in `countDefaultConstr`.
    ///
    /// @threads any   @realtime bounded
    mystring();

    /// A copy of the NUL-terminated `s`. Counted in `countCharConstr`. The `bool` has no effect.
    ///
    /// @throws std::logic_error  `s` is null: "basic_string::_M_construct null not valid"
    /// @threads any   @realtime allocates
    mystring(const char* s, bool);

    /// A copy of the bytes from `first` up to `last`, a valid range. Not counted. Two null pointers give the empty
    /// string.
    ///
    /// @throws std::logic_error  only `first` is null: "basic_string::_M_construct null not valid"
    /// @threads any   @realtime allocates
    mystring(const char* first, const char* last);

    /// A copy of the bytes from `first` up to `last`. Not counted.
    ///
    /// @threads any   @realtime allocates
    mystring(std::string::const_iterator first, std::string::const_iterator last);

    /// A copy. Counted in `countCopyCast`.
    ///
    /// @threads any   @realtime allocates
    mystring(const std::string& other);

    /// A copy. Counted in `countCopyConstr`.
    ///
    /// @threads any   @realtime allocates
    mystring(const mystring& other);

    /// Takes over the contents of `other`, which is empty then. Counted in `countMoveCast`.
    ///
    /// @threads any   @realtime bounded
    mystring(std::string&& other) noexcept;

    /// Takes over the contents of `other`, which is empty then. Counted in `countMoveConstr`.
    ///
    /// @threads any   @realtime bounded
    mystring(mystring&& other) noexcept;

    /// The conversion of `wide`, as by the assignment. Not counted.
    ///
    /// @threads any   @realtime allocates
    mystring(const mywstring& wide);

    virtual ~mystring();

    /// Copies. Counted in `countConstAssign`.
    ///
    /// @threads owner   @realtime allocates
    mystring& operator=(const mystring& other);

    /// Moves. Counted in `countMoveAssign`.
    ///
    /// @threads owner   @realtime bounded
    mystring& operator=(mystring&& other) noexcept;

    /// Converts each character of `wide` to the bytes that the locale's `LC_CTYPE` gives it (`wcrtomb`). A character
    /// that the locale cannot express is left out, and nothing is reported. Not counted. The locale must not change
    /// meanwhile.
    ///
    /// @threads owner   @realtime allocates
    mystring& operator=(const mywstring& wide);

    /// Appends `other`, which stays as it was, to this object and returns this object: no new string is made.
    ///
    /// @threads owner   @realtime allocates
    mystring&& operator+(mystring&& other) &&;

    /// Changes each byte in place by `toupper`. It sees single bytes, as unsigned values, and no characters beyond
    /// them; `LC_CTYPE` decides.
    ///
    /// @threads owner   @realtime bounded
    void toUpperCase();

    /// Changes each byte in place by `tolower`, as `toUpperCase` does.
    ///
    /// @threads owner   @realtime bounded
    void toLowerCase();

    /// A copy of `s` without the bytes at its start and end that occur in `wsBytes`. A character of several bytes in
    /// `wsBytes` counts as each of its bytes. An empty result is counted in `countCharConstr`, any other is not
    /// counted.
    ///
    /// @param s        NUL-terminated
    /// @param wsBytes  NUL-terminated; empty removes nothing
    /// @threads any   @realtime allocates
    static mystring trim(const char* s, const char* wsBytes);

    /// Writes all counters to `safeCerr`, as one block of a heading and a line each, and flushes.
    ///
    /// @threads any   @realtime I/O
    static void dumpCounts();

    static int countDefaultConstr; ///< strings made by `mystring()`
    static int countCharConstr;    ///< strings copied from a NUL-terminated text
    static int countCopyConstr;    ///< strings copied from a `mystring`
    static int countCopyCast;      ///< strings copied from a `std::string`
    static int countMoveConstr;    ///< strings moved from a `mystring`
    static int countMoveCast;      ///< strings moved from a `std::string`
    static int countConstAssign;   ///< copy assignments
    static int countMoveAssign;    ///< move assignments
};

/// A standard wide string, one `wchar_t` of 32 bits a character, that converts to and from `mystring`.
///
/// A move leaves its source empty. A string belongs to one thread at a time. It is not counted.
class QUORVIL_API mywstring : public std::wstring
{
public:
    /// The empty string.
    ///
    /// @threads any   @realtime bounded
    mywstring();

    /// A copy of the NUL-terminated `s`.
    ///
    /// @throws std::logic_error  `s` is null: "basic_string::_M_construct null not valid"
    /// @threads any   @realtime allocates
    mywstring(const wchar_t* s);

    /// A copy.
    ///
    /// @threads any   @realtime allocates
    mywstring(const std::wstring& other);

    /// A copy.
    ///
    /// @threads any   @realtime allocates
    mywstring(const mywstring& other);

    /// Takes over the contents of `other`, which is empty then.
    ///
    /// @threads any   @realtime bounded
    mywstring(mywstring&& other) noexcept;

    /// Takes over the contents of `other`, which is empty then.
    ///
    /// @threads any   @realtime bounded
    mywstring(std::wstring&& other) noexcept;

    /// The conversion of `bytes`, as by the assignment.
    ///
    /// @throws Utf8Exception  `bytes` do not convert
    /// @threads any   @realtime allocates
    mywstring(const mystring& bytes);

    virtual ~mywstring();

    /// Copies.
    ///
    /// @threads owner   @realtime allocates
    mywstring& operator=(const mywstring& other);

    /// Moves.
    ///
    /// @threads owner   @realtime bounded
    mywstring& operator=(mywstring&& other) noexcept;

    /// Converts `bytes` to the characters that they are under the locale's `LC_CTYPE` (`mbrtowc`). A NUL byte becomes
    /// a NUL character, and the conversion goes on behind it. The locale must not change meanwhile.
    ///
    /// Where the bytes do not convert, a report on `safeCerr` comes before the exception, and this string keeps the
    /// characters that stand before the bad place:
    ///
    /// | Bytes | Report |
    /// |---|---|
    /// | invalid in the locale | line 1, "mbrtowc: " and the system's text for `EILSEQ` |
    /// | any other error number of `mbrtowc` | line 1 with its text, then line 2 and a line with the current locale |
    /// | ended inside a character | line 3 |
    ///
    /// Line 2 is "mbrtowc: Unerwarteter Fehler: " and the text, line 3 "utf8 string that shall be converted to utf32
    /// does not contain a valid multibyte character at pos " and the byte offset.
    ///
    /// @throws Utf8Exception  `bytes` do not convert
    /// @threads owner   @realtime allocates
    mywstring& operator=(const mystring& bytes);

    /// True if both strings have one length and `wcsncasecmp` over that length finds no difference; like that function
    /// it does not look behind a NUL character.
    ///
    /// @threads any   @realtime bounded
    bool equalsIgnoreCase(const mywstring& other) const;

    /// Changes each character in place by `towupper`; `LC_CTYPE` decides.
    ///
    /// @threads owner   @realtime bounded
    void toUpperCase();

    /// Changes each character in place by `towlower`; `LC_CTYPE` decides.
    ///
    /// @threads owner   @realtime bounded
    void toLowerCase();
};

} // namespace tolmen

#endif
