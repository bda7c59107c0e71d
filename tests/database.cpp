#include "Quorvil/sqlite3cpp.h"

#define QUORVIL_ASSERTION_TRAP
#include "tests/support/assertion.h"
#include "tests/support/assertionTrap.h"
#include "tests/support/child.h"
#include "tests/support/interpose.h"
#include "tests/support/temporaryFolder.h"

#include <climits>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <sqlite3.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

SUPPORT_INTERPOSE(int, sqlite3_open_v2, (const char* name, sqlite3** sql, int flags, const char* vfs),
                  (name, sql, flags, vfs), )
SUPPORT_INTERPOSE(int, sqlite3_finalize, (sqlite3_stmt * stmt), (stmt), )
SUPPORT_INTERPOSE(int, sqlite3_reset, (sqlite3_stmt * stmt), (stmt), )

namespace {

using sqlite3cpp::DbCon;
using sqlite3cpp::PrepStat;

/// What `action` writes on standard error.
std::string reportOf(const std::function<void()>& action)
{
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

const std::string file = "Quorvil/sqlite3cpp";
const std::string stepText = "bool sqlite3cpp::PrepStat::step()";

class Database : public testing::Test
{
protected:
    Database()
        : con(folder / "jobs.db")
    {
        EXPECT_TRUE(con.exec("CREATE TABLE job(id INTEGER PRIMARY KEY, name TEXT); INSERT INTO job VALUES(1, 'one'); "
                             "INSERT INTO job VALUES(2, 'two')"));
    }

    int number(const std::string& query)
    {
        PrepStat statement(con, query);
        EXPECT_TRUE(statement.step());
        return statement.columnInt(0);
    }

    const support::TemporaryFolder folder;
    DbCon con;
};

TEST_F(Database, BindsStepsAndReadsThroughManyRounds)
{
    PrepStat insert(con, "INSERT INTO job VALUES(?, ?)");
    const struct
    {
        int id;
        std::function<void()> bind;
        int type;
        std::string text;
    } rows[] = {
        {INT_MAX, [&] { insert.bindText(2, "\xC3\xA4nderung"); }, SQLITE_TEXT, "\xC3\xA4nderung"},
        {INT_MIN, [&] { insert.bindText(2, std::string("cut\0off", 7)); }, SQLITE_TEXT, "cut"},
        {10, [&] { insert.bindText(2, "cut here", 3); }, SQLITE_TEXT, "cut"},
        {11, [&] { insert.bindText(2, "text", 0); }, SQLITE_TEXT, ""},
        {12, [&] { insert.bindText(2, nullptr, 0); }, SQLITE_NULL, ""},
        {13, [&] { insert.bindInt(2, -5); }, SQLITE_TEXT, "-5"},
    };
    for (const auto& row : rows) {
        insert.bindInt(1, row.id);
        row.bind();
        EXPECT_FALSE(insert.step());
        EXPECT_EQ(insert.lastResult(), SQLITE_DONE);
        insert.reset();

        PrepStat query(con, "SELECT id, name FROM job WHERE id = ?");
        query.bindInt(1, row.id);
        ASSERT_TRUE(query.step());
        EXPECT_EQ(query.lastResult(), SQLITE_ROW);
        EXPECT_EQ(query.columnType(0), SQLITE_INTEGER);
        EXPECT_EQ(query.columnInt(0), row.id);
        EXPECT_EQ(query.columnType(1), row.type);
        const unsigned char* const text = query.columnText(1);
        EXPECT_EQ(text ? reinterpret_cast<const char*>(text) : "", row.text);
        EXPECT_FALSE(query.step());
    }

    // Another row with the same bindings, from each state that a reset leaves.
    PrepStat kept(con, "SELECT ?");
    kept.bindInt(1, 42);
    for (int steps = 0; steps < 3; ++steps) {
        for (int i = 0; i < steps; ++i)
            kept.step();
        kept.reset();
        ASSERT_TRUE(kept.step());
        EXPECT_EQ(kept.columnInt(0), 42);
        kept.reset();
    }
    EXPECT_EQ(sqlite3_bind_parameter_count(kept), 1);
    EXPECT_EQ(sqlite3_changes(con), 1);
}

TEST_F(Database, StopsEachOperationInEachStateThatDoesNotAllowIt)
{
    using Operation = void (*)(PrepStat&);
    static const std::string text = "text";
    struct
    {
        const char* word;
        const char* function;
        Operation run;
        const char* allowed; // numbers of the states
    } const operations[] = {
        {"bindText", "void sqlite3cpp::PrepStat::bindText(int, const string&)",
         [](PrepStat& s) { s.bindText(1, text); }, "1"},
        {"bindText", "void sqlite3cpp::PrepStat::bindText(int, const char*, size_t)",
         [](PrepStat& s) { s.bindText(1, "text", 4); }, "1"},
        {"bindInt", "void sqlite3cpp::PrepStat::bindInt(int, int)", [](PrepStat& s) { s.bindInt(1, 1); }, "1"},
        {"step", "bool sqlite3cpp::PrepStat::step()", [](PrepStat& s) { s.step(); }, "123"},
        {"columnType", "int sqlite3cpp::PrepStat::columnType(int)", [](PrepStat& s) { s.columnType(0); }, "3"},
        {"columnInt", "int sqlite3cpp::PrepStat::columnInt(int)", [](PrepStat& s) { s.columnInt(0); }, "3"},
        {"columnText", "const unsigned char* sqlite3cpp::PrepStat::columnText(int)",
         [](PrepStat& s) { s.columnText(0); }, "3"},
        {"reset", "void sqlite3cpp::PrepStat::reset()", [](PrepStat& s) { s.reset(); }, "134"},
    };
    for (int state = PrepStat::BINDING; state <= PrepStat::DONE; ++state)
        for (const auto& operation : operations) {
            PrepStat statement(con, "SELECT id FROM job WHERE id = 1 OR name = ?");
            PrepStat readOnly(con, "DELETE FROM job WHERE name = ?");
            PrepStat& subject = state == PrepStat::INVALID ? readOnly : statement;
            if (state == PrepStat::INVALID) {
                con.exec("PRAGMA query_only = 1");
                EXPECT_EQ(reportOf([&] { EXPECT_FALSE(subject.step()); }),
                          stepText + ": Attempt to write a readonly database\n");
                EXPECT_EQ(subject.lastResult(), SQLITE_READONLY);
                con.exec("PRAGMA query_only = 0");
            }
            for (int steps = PrepStat::INVALID; steps < state; ++steps)
                statement.step();
            ASSERT_EQ(subject.getState(), state);

            std::string failure;
            const std::string report =
                reportOf([&] { failure = assertionTrap::failureOf([&] { operation.run(subject); }); });
            const std::string number = std::to_string(state);
            if (std::string(operation.allowed).find(number) != std::string::npos) {
                EXPECT_EQ(failure + report, "") << operation.word << " in " << state;
                continue;
            }
            EXPECT_EQ(report, std::string(operation.word) + " in invalid state: " + number + "\n");
            EXPECT_EQ(failure, file + ": " + operation.function + ": false");
            EXPECT_EQ(subject.getState(), state);
        }
}

TEST_F(Database, AssertsWhatSqliteRefuses)
{
    PrepStat statement(con, "SELECT ?");
    static const std::string text = "text";
    struct
    {
        std::function<void()> run;
        std::string failure;
    } const rows[] = {
        {[&] { statement.bindText(2, text); },
         "void sqlite3cpp::PrepStat::bindText(int, const string&): SQLITE_OK == sqlite3_bind_text(stmt, idx, "
         "text.c_str(), -1, SQLITE_TRANSIENT)"},
        {[&] { statement.bindText(0, "text", 4); },
         "void sqlite3cpp::PrepStat::bindText(int, const char*, size_t): SQLITE_OK == sqlite3_bind_text(stmt, idx, "
         "textBegin, textBytes, SQLITE_TRANSIENT)"},
        {[&] { statement.bindText(1, "text", size_t{INT_MAX} + 1); },
         "void sqlite3cpp::PrepStat::bindText(int, const char*, size_t): SQLITE_OK == sqlite3_bind_text(stmt, idx, "
         "textBegin, textBytes, SQLITE_TRANSIENT)"},
        {[&] { statement.bindInt(-1, 1); },
         "void sqlite3cpp::PrepStat::bindInt(int, int): SQLITE_OK == sqlite3_bind_int(stmt, idx, val)"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(assertionTrap::failureOf(row.run), file + ": " + row.failure);
    {
        support::FaultScope fault(sqlite3_resetFault, SQLITE_IOERR);
        EXPECT_EQ(assertionTrap::failureOf([&] { statement.reset(); }),
                  file + ": void sqlite3cpp::PrepStat::reset(): SQLITE_OK == sqlite3_reset(stmt)");
    }
    EXPECT_TRUE(statement.step()) << "a refused call changes nothing";
}

TEST_F(Database, StatementThatCannotBePreparedDoesNothing)
{
    std::unique_ptr<PrepStat> statement;
    EXPECT_EQ(reportOf([&] { statement = std::make_unique<PrepStat>(con, "SELECT nonsense FROM nowhere"); }),
              "sqlite3_prepare_v2 failed: SQL logic error\n");
    EXPECT_EQ(statement->getState(), PrepStat::INVALID);
    EXPECT_EQ(statement->lastResult(), SQLITE_ERROR);
    EXPECT_EQ(assertionTrap::failureOf([&] { (void)static_cast<sqlite3_stmt*>(*statement); }),
              file + ": sqlite3cpp::PrepStat::operator sqlite3_stmt*(): state != INVALID && state != CONSTRUCTING && "
                     "state != DESTROYED");
    EXPECT_EQ(reportOf([&] {
                  EXPECT_FALSE(statement->step() || statement->step());
                  statement.reset();
              }),
              "");

    // A text without a statement is prepared, to nothing that could be stepped.
    PrepStat empty(con, "-- comment");
    EXPECT_EQ(empty.lastResult(), SQLITE_OK);
    EXPECT_EQ(reportOf([&] { EXPECT_FALSE(empty.step()); }), stepText + ": Unexpected stepResult: 21\n");
    EXPECT_EQ(empty.getState(), PrepStat::BINDING);
}

TEST_F(Database, GoesOnAfterEachFailureThatMayPass)
{
    DbCon other(folder / "jobs.db");
    struct
    {
        const char* name;
        std::function<void()> begin;
        std::function<void()> end;
        const char* statement;
        int result;
        const char* message;
    } const rows[] = {
        {"busy", [&] { other.exec("BEGIN EXCLUSIVE"); }, [&] { other.exec("COMMIT"); },
         "INSERT INTO job(name) VALUES('x')", SQLITE_BUSY, "database is locked"},
        {"constraint", [] {}, [&] { con.exec("DELETE FROM job WHERE id = 1"); }, "INSERT INTO job VALUES(1, 'x')",
         SQLITE_CONSTRAINT, "UNIQUE constraint failed: job.id"},
        {"full disk", [&] { con.exec("PRAGMA max_page_count = 1"); }, [&] { con.exec("PRAGMA max_page_count = 1000"); },
         "INSERT INTO job(name) VALUES(zeroblob(100000))", SQLITE_FULL, "database or disk is full"},
    };
    for (const auto& row : rows) {
        PrepStat statement(con, row.statement);
        row.begin();
        const int before = row.result == SQLITE_BUSY ? 0 : number("SELECT count(*) FROM job");
        EXPECT_EQ(reportOf([&] { EXPECT_FALSE(statement.step()); }),
                  stepText + ": Unexpected stepResult: " + std::to_string(row.result) + "\n");
        EXPECT_EQ(statement.getState(), PrepStat::BINDING) << row.name;
        EXPECT_EQ(statement.lastResult(), row.result) << row.name;
        EXPECT_EQ(reportOf([&] { EXPECT_FALSE(con.exec(row.statement)); }),
                  "sqlite3_exec failed for \"" + std::string(row.statement) + "\": " + row.message + "\n");
        if (row.result != SQLITE_BUSY) {
            EXPECT_EQ(number("SELECT count(*) FROM job"), before) << row.name;
        }
        row.end();
        EXPECT_EQ(reportOf([&] { EXPECT_FALSE(statement.step()); }), "") << row.name;
        EXPECT_EQ(statement.getState(), PrepStat::DONE) << row.name;
    }
    EXPECT_EQ(number("SELECT count(*) FROM job"), 4);
}

TEST_F(Database, RowsBeforeAFailureCountAndTheBindingsStayBehindIt)
{
    PrepStat statement(con, "SELECT abs(CASE id WHEN 2 THEN -9223372036854775808 ELSE ? END) FROM job ORDER BY id");
    statement.bindInt(1, -7);
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(statement.step());
        EXPECT_EQ(statement.columnInt(0), 7);
        EXPECT_EQ(reportOf([&] { EXPECT_FALSE(statement.step()); }), stepText + ": Unexpected stepResult: 1\n");
        EXPECT_EQ(statement.getState(), PrepStat::BINDING);
    }
}

TEST_F(Database, WriteProtectedFileCanBeReadByAUserWithoutRoot)
{
    const std::string name = folder / "jobs.db";
    chmod(folder.path.c_str(), 0755);
    chmod(name.c_str(), 0444);
    const support::ChildResult child = support::runInChild([&] {
        constexpr uid_t nobody = 65534;
        if (getuid() == 0 && (setgid(nobody) != 0 || setuid(nobody) != 0))
            _exit(1);
        DbCon readOnly(name);
        PrepStat write(readOnly, "INSERT INTO job VALUES(3, 'three')");
        const bool wrote = write.step() || write.step();
        PrepStat query(readOnly, "SELECT count(*) FROM job");
        const bool counted = query.step() && query.columnInt(0) == 2;
        if (!readOnly.isValid() || wrote || write.getState() != PrepStat::INVALID || !counted)
            _exit(2);
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(child.err, stepText + ": Attempt to write a readonly database\n");
}

TEST_F(Database, CannotBeClosedUnderAStatement)
{
    const std::string closing = "SQLITE_OK == sqlite3_close(sql)";
    PrepStat statement(con, "SELECT 1");
    EXPECT_EQ(assertionTrap::failureOf([&] { con.open("elsewhere"); }),
              file + ": void sqlite3cpp::DbCon::open(const char*): " + closing);
    EXPECT_DEATH(
        {
            DbCon inner(":memory:");
            new PrepStat(inner, "SELECT 1");
        },
        support::assertion(file, "virtual sqlite3cpp::DbCon::~DbCon()", closing));
    EXPECT_DEATH(
        {
            PrepStat failing(con, "SELECT 1");
            support::FaultScope fault(sqlite3_finalizeFault, SQLITE_IOERR);
            failing.~PrepStat();
        },
        support::assertion(file, "virtual sqlite3cpp::PrepStat::~PrepStat()",
                           "state == INVALID || finalizeResult == SQLITE_OK"));
}

TEST_F(Database, OpensAnotherFileInPlaceOfTheFirst)
{
    con.open((folder / "other.db").c_str());
    EXPECT_TRUE(con.isValid());
    EXPECT_EQ(number("SELECT count(*) FROM sqlite_master"), 0);
    EXPECT_EQ(reportOf([&] { con.open("/"); }), "sqlite3_open failed: unable to open database file\n");
    EXPECT_FALSE(con.isValid());
    con.open((folder / "jobs.db").c_str());
    EXPECT_EQ(number("SELECT count(*) FROM job"), 2);
}

TEST(DbCon, WithoutADatabaseIsInvalidAndEndsQuietly)
{
    static const std::string query = "SELECT 1";
    EXPECT_EQ(reportOf([] {
                  DbCon con("/");
                  EXPECT_FALSE(con.isValid());
                  EXPECT_FALSE(con.exec(query));
                  EXPECT_EQ(assertionTrap::failureOf([&] { PrepStat statement(con, query); }),
                            file + ": sqlite3cpp::DbCon::operator sqlite3*(): valid");
              }),
              "sqlite3_open failed: unable to open database file\n");
    EXPECT_EQ(reportOf([] {
                  std::unique_ptr<DbCon> con;
                  {
                      support::FaultScope fault(sqlite3_open_v2Fault, SQLITE_NOMEM);
                      con = std::make_unique<DbCon>("never.db");
                  }
                  EXPECT_FALSE(con->isValid());
                  EXPECT_EQ(assertionTrap::failureOf([&] { con->exec(query); }),
                            file + ": void sqlite3cpp::DbCon::exec(const string&): sql");
              }),
              "sqlite3_open failed: out of memory\nsql == NULL in ~DbCon\n");
}

TEST(DbCon, TakesTheDefaultFileInTheWorkingDirectory)
{
    const support::TemporaryFolder folder;
    const support::ChildResult child = support::runInChild([&] {
        if (chdir(folder.path.c_str()) != 0)
            _exit(1);
        DbCon con;
        if (!con.exec("CREATE TABLE job(id)"))
            _exit(2);
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(access((folder / "sqLiteTest.db").c_str(), F_OK), 0);
}

} // namespace
