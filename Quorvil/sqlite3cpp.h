// sqlite3cpp.h: an SQLite connection, and prepared statements with strict states
// System interfaces, on Foundation

#ifndef QUORVIL_SQLITE3CPP_H
#define QUORVIL_SQLITE3CPP_H

#include "Quorvil/QuorvilAssert.h"
#include "Quorvil/QuorvilExport.h"

#include <cstddef>
#include <cstdint>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace sqlite3cpp {

namespace intern {

/// SQLite's functions that a loop over rows calls. Through these pointers a program reaches SQLite without a detour
/// through this library, and needs neither SQLite's header nor a link to its library for it.
struct RowCalls
{
    int (*step)(sqlite3_stmt*);
    int (*reset)(sqlite3_stmt*);
    int (*bindInt)(sqlite3_stmt*, int, int);
    int (*columnType)(sqlite3_stmt*, int);
    int (*columnInt)(sqlite3_stmt*, int);
    const unsigned char* (*columnText)(sqlite3_stmt*, int);
};

extern QUORVIL_API const RowCalls rowCalls;

/// `SQLITE_OK` and `SQLITE_ROW`.
inline constexpr int ok = 0;
inline constexpr int row = 100;

} // namespace intern

/// A connection to a database file. Nothing here throws on a failure of SQLite: a line on `std::cerr` or `safeCerr`
/// reports it, and `isValid` and the result of `exec` tell. Without a lock: one thread at a time for a connection and
/// its statements together, unless SQLite's own serialised mode covers more.
class QUORVIL_API DbCon
{
public:
    /// Opens "sqLiteTest.db" in the working directory, as `open` does.
    ///
    /// @threads any   @realtime I/O
    DbCon();

    /// Opens the file, as `open` does.
    ///
    /// @threads any   @realtime I/O
    explicit DbCon(const std::string& fileName);

    /// Closes the connection (`sqlite3_close`). One without a handle writes "sql == NULL in ~DbCon" on `std::cerr`.
    ///
    /// @requires SQLITE_OK == sqlite3_close(sql)   all statements are destroyed
    /// @threads owner   @realtime I/O
    virtual ~DbCon();

    DbCon(const DbCon&) = delete;
    DbCon& operator=(const DbCon&) = delete;

    /// Opens the file for reading and writing, or makes it (`sqlite3_open_v2`). One that is write-protected is opened
    /// all the same: writing to it fails later. An open connection is closed first.
    ///
    /// A failure writes "sqlite3_open failed: " and SQLite's text on `std::cerr`; `isValid` tells.
    ///
    /// @requires SQLITE_OK == sqlite3_close(sql)   all statements of the open connection are destroyed
    /// @threads owner   @realtime I/O
    void open(const char* fileName);

    /// Runs the statements of `text` (`sqlite3_exec`); rows are dropped.
    ///
    /// Where SQLite gives a message, `sqlite3_exec failed for "<text>": <message>` goes to `safeCerr`. The connection
    /// goes on: a busy database, a full disk or a violated constraint may be gone at the next call.
    ///
    /// @return whether all went well (`SQLITE_OK`)
    /// @requires sql
    /// @threads owner   @realtime I/O
    bool exec(const std::string& text);

    /// SQLite's handle, for what has no operation here; it stays the connection's.
    ///
    /// @requires valid
    /// @threads owner   @realtime bounded
    operator sqlite3*();

    /// Whether the last `open` succeeded.
    ///
    /// @threads owner   @realtime bounded
    bool isValid() const;

private:
    sqlite3* sql = nullptr;
    bool valid = false;
};

/// A prepared statement. Each operation is allowed in the states in which it makes sense; elsewhere it writes its name,
/// " in invalid state: " and the state's number on `safeCerr`, and fails the assertion "false".
///
/// | State         | bind      | `step`                         | column     | `reset`   |
/// |---------------|-----------|--------------------------------|------------|-----------|
/// | `BINDING` (1) | `BINDING` | `ROW`, `DONE` or see below     | -          | `BINDING` |
/// | `INVALID` (2) | -         | false, `INVALID`               | -          | -         |
/// | `ROW` (3)     | -         | `ROW`, `DONE` or see below     | `ROW`      | `BINDING` |
/// | `DONE` (4)    | -         | -                              | -          | `BINDING` |
///
/// A text that SQLite cannot prepare makes an `INVALID` statement from the start. A `step` that finds the database
/// read-only returns false and leaves `INVALID`, for good. Any other failure of `step` (busy, constraint, full disk)
/// returns false too, with the statement rewound, in `BINDING` and with its bindings, so that the same `step` may be
/// tried again. So a loop on `step` always ends; `lastResult` tells how.
class QUORVIL_API PrepStat
{
public:
    enum State : std::int32_t
    {
        CONSTRUCTING,
        BINDING,
        INVALID,
        ROW,
        DONE,
        DESTROYED,
    };

    /// Prepares the first statement of `text` (`sqlite3_prepare_v2`).
    ///
    /// A failure writes "sqlite3_prepare_v2 failed: " and SQLite's text on `std::cerr`; the state is then `INVALID`. A
    /// text without a statement, empty or a comment, is no failure yet: to bind ends the process, and `step` fails by
    /// `SQLITE_MISUSE`.
    ///
    /// @param con  has to outlive the statement
    /// @requires valid
    /// @threads owner   @realtime I/O
    PrepStat(DbCon& con, const std::string& text);

    /// Frees the statement (`sqlite3_finalize`).
    ///
    /// @requires state != DESTROYED
    /// @requires state == INVALID || finalizeResult == SQLITE_OK
    /// @threads owner   @realtime I/O
    virtual ~PrepStat();

    PrepStat(const PrepStat&) = delete;
    PrepStat& operator=(const PrepStat&) = delete;

    /// Binds a text to parameter `idx`, counted from 1, up to its first zero byte (`sqlite3_bind_text`). SQLite copies
    /// it. Only in `BINDING`.
    ///
    /// @requires SQLITE_OK == sqlite3_bind_text(stmt, idx, text.c_str(), -1, SQLITE_TRANSIENT)
    /// @threads owner   @realtime allocates
    void bindText(int idx, const std::string& text);

    /// Binds `textBytes` bytes, at most `INT_MAX`, as a text; 0 binds the empty text, a null pointer SQL's NULL. SQLite
    /// copies them. Only in `BINDING`.
    ///
    /// @requires SQLITE_OK == sqlite3_bind_text(stmt, idx, textBegin, textBytes, SQLITE_TRANSIENT)
    /// @threads owner   @realtime allocates
    void bindText(int idx, const char* textBegin, size_t textBytes);

    /// Binds a number (`sqlite3_bind_int`). Only in `BINDING`.
    ///
    /// @requires SQLITE_OK == sqlite3_bind_int(stmt, idx, val)
    /// @threads owner   @realtime bounded
    void bindInt(int idx, int val);

    /// Goes on to the next row (`sqlite3_step`). Only in `BINDING`, `ROW` and `INVALID`.
    ///
    /// @return whether there is a row; false at the end of the rows and on a failure, which a line on `safeCerr` tells
    /// @threads owner   @realtime I/O
    bool step();

    /// The type of column `col`, counted from 0, of the current row, such as `SQLITE_INTEGER`; `SQLITE_NULL` behind the
    /// last column (`sqlite3_column_type`). Ask before the column is read as another type. Only in `ROW`.
    ///
    /// @threads owner   @realtime allocates
    int columnType(int col);

    /// The column as a number: its low 32 bits, 0 for SQL's NULL and for a text that is none (`sqlite3_column_int`).
    /// Only in `ROW`.
    ///
    /// @threads owner   @realtime allocates
    int columnInt(int col);

    /// The column as a text (`sqlite3_column_text`). Only in `ROW`.
    ///
    /// @return SQLite's own memory, which holds until the next `step` or `reset`; null for SQL's NULL
    /// @threads owner   @realtime allocates
    const unsigned char* columnText(int col);

    /// Rewinds to the time before the first `step` (`sqlite3_reset`). The bindings stay. Only in `BINDING`, `ROW` and
    /// `DONE`.
    ///
    /// @requires SQLITE_OK == sqlite3_reset(stmt)
    /// @threads owner   @realtime I/O
    void reset();

    /// SQLite's handle, for what has no operation here; it stays the statement's.
    ///
    /// @requires state != INVALID && state != CONSTRUCTING && state != DESTROYED
    /// @threads owner   @realtime bounded
    operator sqlite3_stmt*();

    /// What the last `step` got from SQLite, such as `SQLITE_BUSY`. Before the first one: `SQLITE_OK`, or the error of
    /// preparing.
    ///
    /// @threads owner   @realtime bounded
    int lastResult() const;

    /// The state, as a `State`.
    ///
    /// @threads owner   @realtime bounded
    int getState() const;

private:
    bool stepEnded();
    void allow(bool allowed, const char* operation, unsigned int line, const char* function) const;
    [[noreturn]] void refuse(const char* operation, unsigned int line, const char* function) const;

    State state = CONSTRUCTING;
    DbCon& con;
    sqlite3_stmt* stmt = nullptr;
    int result = 0;
};

inline void PrepStat::allow(bool allowed, const char* operation, unsigned int line, const char* function) const
{
    if (__builtin_expect(!allowed, 0))
        refuse(operation, line, function);
}

inline void PrepStat::bindInt(int idx, int val)
{
    constexpr const char* function = "void sqlite3cpp::PrepStat::bindInt(int, int)";
    allow(state == BINDING, "bindInt", __LINE__, function);
    quorvil::intern::require(intern::rowCalls.bindInt(stmt, idx, val) == intern::ok,
                             "SQLITE_OK == sqlite3_bind_int(stmt, idx, val)", "Quorvil/sqlite3cpp", __LINE__, function);
}

inline bool PrepStat::step()
{
    if (state == INVALID)
        return false;
    allow(state == BINDING || state == ROW, "step", __LINE__, "bool sqlite3cpp::PrepStat::step()");
    result = intern::rowCalls.step(stmt);
    if (__builtin_expect(result != intern::row, 0))
        return stepEnded();
    state = ROW;
    return true;
}

inline int PrepStat::columnType(int col)
{
    allow(state == ROW, "columnType", __LINE__, "int sqlite3cpp::PrepStat::columnType(int)");
    return intern::rowCalls.columnType(stmt, col);
}

inline int PrepStat::columnInt(int col)
{
    allow(state == ROW, "columnInt", __LINE__, "int sqlite3cpp::PrepStat::columnInt(int)");
    return intern::rowCalls.columnInt(stmt, col);
}

inline const unsigned char* PrepStat::columnText(int col)
{
    allow(state == ROW, "columnText", __LINE__, "const unsigned char* sqlite3cpp::PrepStat::columnText(int)");
    return intern::rowCalls.columnText(stmt, col);
}

inline void PrepStat::reset()
{
    constexpr const char* function = "void sqlite3cpp::PrepStat::reset()";
    allow(state == BINDING || state == ROW || state == DONE, "reset", __LINE__, function);
    quorvil::intern::require(intern::rowCalls.reset(stmt) == intern::ok, "SQLITE_OK == sqlite3_reset(stmt)",
                             "Quorvil/sqlite3cpp", __LINE__, function);
    state = BINDING;
}

} // namespace sqlite3cpp

#endif
