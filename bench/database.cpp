// Database: a prepared statement that walks rows, and one that is bound anew for each row, beside SQLite's own
// interface and SQLiteCpp. The database lies in memory, so that what is measured is the way to SQLite and back.

#include "Quorvil/sqlite3cpp.h"
#include "bench/support.h"
#ifdef QUORVIL_PEER_SQLITECPP
#include "bench/peers/sqliteCpp.h"
#endif

#include <cstdlib>
#include <sqlite3.h>
#include <string>

namespace {

constexpr int rows = 1000;

std::string tables()
{
    std::string text =
        "CREATE TABLE job(id INTEGER PRIMARY KEY, pages INTEGER, copies INTEGER, priority INTEGER); BEGIN;";
    for (int id = 1; id <= rows; ++id)
        text += "INSERT INTO job VALUES(" + std::to_string(id) + ", " + std::to_string(id * 7 % 100) + ", " +
                std::to_string(id % 3) + ", 5);";
    return text + "COMMIT;";
}

/// Each candidate has a database of its own, and a statement on it.
class Ours
{
public:
    explicit Ours(const std::string& query)
        : con(":memory:")
        , statement((con.exec(tables()), con), query)
    {
    }

    sqlite3cpp::PrepStat& get()
    {
        return statement;
    }

private:
    sqlite3cpp::DbCon con;
    sqlite3cpp::PrepStat statement;
};

class Bare
{
public:
    explicit Bare(const std::string& query)
    {
        if (sqlite3_open(":memory:", &sql) != SQLITE_OK ||
            sqlite3_exec(sql, tables().c_str(), nullptr, nullptr, nullptr) != SQLITE_OK ||
            sqlite3_prepare_v2(sql, query.c_str(), -1, &statement, nullptr) != SQLITE_OK)
            std::abort();
    }

    ~Bare()
    {
        sqlite3_finalize(statement);
        sqlite3_close(sql);
    }

    Bare(const Bare&) = delete;
    Bare& operator=(const Bare&) = delete;

    Bare& get()
    {
        return *this;
    }

    void bindInt(int index, int value)
    {
        if (sqlite3_bind_int(statement, index, value) != SQLITE_OK)
            std::abort();
    }

    bool step()
    {
        return sqlite3_step(statement) == SQLITE_ROW;
    }

    int columnInt(int column)
    {
        return sqlite3_column_int(statement, column);
    }

    void reset()
    {
        if (sqlite3_reset(statement) != SQLITE_OK)
            std::abort();
    }

private:
    sqlite3* sql = nullptr;
    sqlite3_stmt* statement = nullptr;
};

#ifdef QUORVIL_PEER_SQLITECPP
class SqliteCpp : public bench::SqliteCppJobs
{
public:
    explicit SqliteCpp(const std::string& query)
        : SqliteCppJobs(tables(), query)
    {
    }

    SqliteCpp& get()
    {
        return *this;
    }
};
#endif

/// All rows with their four numbers; the sum tells whether they were the right ones.
template <typename Statement>
long walk(Statement& statement)
{
    long sum = 0;
    while (statement.step())
        for (int column = 0; column < 4; ++column)
            sum += statement.columnInt(column);
    statement.reset();
    return sum;
}

template <typename Candidate>
void stepLoop(benchmark::State& state)
{
    long expected = 0;
    for (int id = 1; id <= rows; ++id)
        expected += id + id * 7 % 100 + id % 3 + 5;
    Candidate candidate("SELECT id, pages, copies, priority FROM job");
    auto& statement = candidate.get();
    if (walk(statement) != expected) {
        state.SkipWithError("other rows");
        return;
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(walk(statement));
    state.SetItemsProcessed(state.iterations() * rows);
}

template <typename Statement>
int lookUp(Statement& statement, int id)
{
    statement.bindInt(1, id);
    const int pages = statement.step() ? statement.columnInt(0) : -1;
    statement.reset();
    return pages;
}

template <typename Candidate>
void bindStepReset(benchmark::State& state)
{
    Candidate candidate("SELECT pages FROM job WHERE id = ?");
    auto& statement = candidate.get();
    for (int id = 1; id <= rows; ++id)
        if (lookUp(statement, id) != id * 7 % 100) {
            state.SkipWithError("another row");
            return;
        }
    int id = 0;
    for (auto _ : state) {
        id = id % rows + 1;
        benchmark::DoNotOptimize(lookUp(statement, id));
    }
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::RegisterBenchmark("database/step/prepStat", stepLoop<Ours>);
    benchmark::RegisterBenchmark("database/step/sqlite3", stepLoop<Bare>);
    benchmark::RegisterBenchmark("database/bind/prepStat", bindStepReset<Ours>);
    benchmark::RegisterBenchmark("database/bind/sqlite3", bindStepReset<Bare>);
#ifdef QUORVIL_PEER_SQLITECPP
    benchmark::RegisterBenchmark("database/step/sqliteCpp", stepLoop<SqliteCpp>);
    benchmark::RegisterBenchmark("database/bind/sqliteCpp", bindStepReset<SqliteCpp>);
#endif
    return bench::run(argc, argv, true);
}
