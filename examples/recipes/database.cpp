#include "Quorvil/sqlite3cpp.h"

#include <iostream>

int main(int argc, char** argv)
{
    sqlite3cpp::DbCon db(argc > 1 ? argv[1] : ":memory:");
    if (!db.isValid() || !db.exec("CREATE TABLE IF NOT EXISTS job (name TEXT UNIQUE, pages INT)"))
        return 1; // a line on the standard error output has told why

    sqlite3cpp::PrepStat insert(db, "INSERT INTO job VALUES (?, ?)");
    for (const char* const name : {"shipping", "serial", "serial"}) {
        insert.bindText(1, name);
        insert.bindInt(2, 400);
        if (insert.step() || insert.getState() != sqlite3cpp::PrepStat::DONE)
            std::cout << name << " is refused: " << insert.lastResult() << '\n';
        insert.reset(); // the bindings stay
    }

    sqlite3cpp::PrepStat select(db, "SELECT name, pages FROM job ORDER BY name");
    while (select.step())
        std::cout << select.columnText(0) << ": " << select.columnInt(1) << '\n';
}
