// SQLiteCpp's statement: the same loop through its classes.

#ifndef QUORVIL_BENCH_PEERS_SQLITECPP_H
#define QUORVIL_BENCH_PEERS_SQLITECPP_H

#include <SQLiteCpp/SQLiteCpp.h>

#include <string>

namespace bench {

class SqliteCppJobs
{
public:
    SqliteCppJobs(const std::string& tables, const std::string& query)
        : database(":memory:", SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE)
        , statement((database.exec(tables), database), query)
    {
    }

    void bindInt(int index, int value)
    {
        statement.bind(index, value);
    }

    bool step()
    {
        return statement.executeStep();
    }

    int columnInt(int column)
    {
        return statement.getColumn(column).getInt();
    }

    void reset()
    {
        statement.reset();
    }

private:
    SQLite::Database database;
    SQLite::Statement statement;
};

} // namespace bench

#endif
