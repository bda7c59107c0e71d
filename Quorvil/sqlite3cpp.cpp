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

constinit const intern::RowCalls intern::rowCalls = {sqlite3_step,        sqlite3_reset,      sqlite3_bind_int,
                                                     sqlite3_column_type, sqlite3_column_int, sqlite3_column_text};
static_assert(intern::ok == SQLITE_OK && intern::row == SQLITE_ROW);

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
    allow(state == BINDING, "bindText", __LINE__, function);
    require(SQLITE_OK == sqlite3_bind_text(stmt, idx, text.c_str(), -1, SQLITE_TRANSIENT),
            "SQLITE_OK == sqlite3_bind_text(stmt, idx, text.c_str(), -1, SQLITE_TRANSIENT)", source, __LINE__,
            function);
}

void PrepStat::bindText(int idx, const char* textBegin, size_t textBytes)
{
    constexpr const char* function = "void sqlite3cpp::PrepStat::bindText(int, const char*, size_t)";
    allow(state == BINDING, "bindText", __LINE__, function);
    // A length that SQLite would take as negative means something else there.
    require(textBytes <= INT_MAX &&
                SQLITE_OK == sqlite3_bind_text(stmt, idx, textBegin, static_cast<int>(textBytes), SQLITE_TRANSIENT),
            "SQLITE_OK == sqlite3_bind_text(stmt, idx, textBegin, textBytes, SQLITE_TRANSIENT)", source, __LINE__,
            function);
}

/// What follows a `step` without a row: the end, or a failure and its report. Always false.
bool PrepStat::stepEnded()
{
    if (result == SQLITE_DONE) {
        state = DONE;
        return false;
    }
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

void PrepStat::refuse(const char* operation, unsigned int line, const char* function) const
{
    safeCerr << operation << " in invalid state: " << std::to_string(state) << "\n";
    __assert_fail("false", source, line, function);
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
