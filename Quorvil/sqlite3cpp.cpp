#include "Quorvil/sqlite3cpp.h"

#include "Quorvil/QuorvilAssert.h"
#include "Quorvil/QuorvilLog.h"
#include "Quorvil/ThreadSafeStream.h"

#include <climits>
#include <iostream>
#include <sqlite3.h>

QUORVIL_LOG_GROUP("Noname");

namespace sqlite3cpp {

namespace {

constexpr const char* source = "Quorvil/sqlite3cpp";
constexpr const char* stepFunction = "bool sqlite3cpp::PrepStat::step()";

using quorvil::intern::require;

/// An operation that the state does not allow. It stands apart, so that the checks cost next to nothing.
[[noreturn, gnu::cold, gnu::noinline]] void stopInState(const char* operation, int state, int line,
                                                        const char* function)
{
    safeCerr << operation << " in invalid state: " << std::to_string(state) << "\n";
    __assert_fail("false", source, static_cast<unsigned>(line), function);
}

inline void allow(bool allowed, const char* operation, int state, int line, const char* function)
{
    if (__builtin_expect(!allowed, 0))
        stopInState(operation, state, line, function);
}

/// A message that SQLite allocated.
struct Message
{
    Message() = default;
    ~Message()
    {
        sqlite3_free(text);
    }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    char* text = nullptr;
};

} // namespace

DbCon::DbCon()
{
    open("sqLiteTest.db");
}

DbCon::DbCon(const std::string& fileName)
{
    open(fileName.c_str());
}

DbCon::~DbCon()
{
    if (!sql) {
        std::cerr << "sql == NULL in ~DbCon\n";
        return;
    }
    require(SQLITE_OK == sqlite3_close(sql), "SQLITE_OK == sqlite3_close(sql)", source, __LINE__,
            "virtual sqlite3cpp::DbCon::~DbCon()");
}

void DbCon::open(const char* fileName)
{
    if (sql)
        require(SQLITE_OK == sqlite3_close(sql), "SQLITE_OK == sqlite3_close(sql)", source, __LINE__,
                "void sqlite3cpp::DbCon::open(const char*)");
    sql = nullptr;
    const int opened = sqlite3_open_v2(fileName, &sql, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    valid = opened == SQLITE_OK;
    if (!valid)
        std::cerr << "sqlite3_open failed: " << sqlite3_errstr(opened) << "\n";
}

bool DbCon::exec(const std::string& text)
{
    require(sql, "sql", source, __LINE__, "void sqlite3cpp::DbCon::exec(const string&)");
    Message message;
    const int executed = sqlite3_exec(sql, text.c_str(), nullptr, nullptr, &message.text);
    if (message.text)
        safeCerr << "sqlite3_exec failed for \"" << text << "\": " << message.text << "\n";
    return executed == SQLITE_OK;
}

DbCon::operator sqlite3*()
{
    require(valid, "valid", source, __LINE__, "sqlite3cpp::DbCon::operator sqlite3*()");
    return sql;
}

bool DbCon::isValid() const
{
    return valid;
}

PrepStat::PrepStat(DbCon& con_, const std::string& text)
    : con(con_)
{
    result = sqlite3_prepare_v2(con, text.c_str(), -1, &stmt, nullptr);
    if (result == SQLITE_OK) {
        state = BINDING;
        return;
    }
    std::cerr << "sqlite3_prepare_v2 failed: " << sqlite3_errstr(result) << "\n";
    state = INVALID;
}

PrepStat::~PrepStat()
{
    constexpr const char* function = "virtual sqlite3cpp::PrepStat::~PrepStat()";
    require(state != DESTROYED, "state != DESTROYED", source, __LINE__, function);
    const int finalizeResult = sqlite3_finalize(stmt);
    stmt = nullptr;
    require(state == INVALID || finalizeResult == SQLITE_OK, "state == INVALID || finalizeResult == SQLITE_OK", source,
            __LINE__, function);
}

void PrepStat::bindText(int idx, const std::string& text)
{
    constexpr const char* function = "void sqlite3cpp::PrepStat::bindText(int, const string&)";
    allow(state == BINDING, "bindText", state, __LINE__, function);
    require(SQLITE_OK == sqlite3_bind_text(stmt, idx, text.c_str(), -1, SQLITE_TRANSIENT),
            "SQLITE_OK == sqlite3_bind_text(stmt, idx, text.c_str(), -1, SQLITE_TRANSIENT)", source, __LINE__,
            function);
}

void PrepStat::bindText(int idx, const char* textBegin, size_t textBytes)
{
    constexpr const char* function = "void sqlite3cpp::PrepStat::bindText(int, const char*, size_t)";
    allow(state == BINDING, "bindText", state, __LINE__, function);
    // A length that SQLite would take as negative means something else there.
    require(textBytes <= INT_MAX &&
                SQLITE_OK == sqlite3_bind_text(stmt, idx, textBegin, static_cast<int>(textBytes), SQLITE_TRANSIENT),
            "SQLITE_OK == sqlite3_bind_text(stmt, idx, textBegin, textBytes, SQLITE_TRANSIENT)", source, __LINE__,
            function);
}

void PrepStat::bindInt(int idx, int val)
{
    constexpr const char* function = "void sqlite3cpp::PrepStat::bindInt(int, int)";
    allow(state == BINDING, "bindInt", state, __LINE__, function);
    require(SQLITE_OK == sqlite3_bind_int(stmt, idx, val), "SQLITE_OK == sqlite3_bind_int(stmt, idx, val)", source,
            __LINE__, function);
}

bool PrepStat::step()
{
    if (state == INVALID)
        return false;
    allow(state == BINDING || state == ROW, "step", state, __LINE__, stepFunction);
    result = sqlite3_step(stmt);
    if (__builtin_expect(result == SQLITE_ROW, 1)) {
        state = ROW;
        return true;
    }
    if (result != SQLITE_DONE)
        return stepFailed();
    state = DONE;
    return false;
}

/// Reports the result that is neither a row nor the end; always false.
bool PrepStat::stepFailed()
{
    if (result == SQLITE_READONLY) {
        state = INVALID;
        safeCerr << stepFunction << ": Attempt to write a readonly database\n";
        return false;
    }
    // What comes back is the step's failure once more.
    sqlite3_reset(stmt);
    state = BINDING;
    safeCerr << stepFunction << ": Unexpected stepResult: " << std::to_string(result) << "\n";
    return false;
}

int PrepStat::columnType(int col)
{
    allow(state == ROW, "columnType", state, __LINE__, "int sqlite3cpp::PrepStat::columnType(int)");
    return sqlite3_column_type(stmt, col);
}

int PrepStat::columnInt(int col)
{
    allow(state == ROW, "columnInt", state, __LINE__, "int sqlite3cpp::PrepStat::columnInt(int)");
    return sqlite3_column_int(stmt, col);
}

const unsigned char* PrepStat::columnText(int col)
{
    allow(state == ROW, "columnText", state, __LINE__, "const unsigned char* sqlite3cpp::PrepStat::columnText(int)");
    return sqlite3_column_text(stmt, col);
}

void PrepStat::reset()
{
    constexpr const char* function = "void sqlite3cpp::PrepStat::reset()";
    allow(state == BINDING || state == ROW || state == DONE, "reset", state, __LINE__, function);
    require(SQLITE_OK == sqlite3_reset(stmt), "SQLITE_OK == sqlite3_reset(stmt)", source, __LINE__, function);
    state = BINDING;
}

PrepStat::operator sqlite3_stmt*()
{
    require(state != INVALID && state != CONSTRUCTING && state != DESTROYED,
            "state != INVALID && state != CONSTRUCTING && state != DESTROYED", source, __LINE__,
            "sqlite3cpp::PrepStat::operator sqlite3_stmt*()");
    return stmt;
}

int PrepStat::lastResult() const
{
    return result;
}

int PrepStat::getState() const
{
    return state;
}

} // namespace sqlite3cpp
