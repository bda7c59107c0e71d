#include "JobStore.h"

#include "Failure.h"

#include "Quorvil/GeneralException.h"

namespace labelPrinter {

namespace {

using sqlite3cpp::PrepStat;

constexpr int mostWaiting = 1000;

constexpr const char* schema = "CREATE TABLE IF NOT EXISTS jobs (id INTEGER PRIMARY KEY, text TEXT NOT NULL, "
                               "origin TEXT NOT NULL, state TEXT NOT NULL, message TEXT NOT NULL DEFAULT '');"
                               "CREATE INDEX IF NOT EXISTS jobsByState ON jobs (state)";
constexpr const char* toPrint = "state IN ('accepted', 'printing')";

/// What the numbers of SQLite mean that a printer meets.
std::string reason(int result)
{
    switch (result & 0xFF) {
    case 5:
    case 6:
        return "the job database is locked";
    case 8:
        return "the job database is read-only";
    case 10:
        return "the job database cannot be read or written";
    case 13:
        return "the disk of the job database is full";
    default:
        return "the job database fails with SQLite's error " + std::to_string(result);
    }
}

} // namespace

JobStore::JobStore(const std::string& path)
    : database(path)
{
    // Each text is prepared and each state written under these; what fails has been told on the standard error output.
    if (!database.isValid() || !database.exec("PRAGMA busy_timeout = 2000") ||
        !database.exec("PRAGMA synchronous = FULL") || !database.exec(schema))
        throw Failure(path + ": the job database cannot be opened");
    lastId = readNumber("SELECT coalesce(max(id), 0) FROM jobs");
    const int count = readNumber(std::string("SELECT count(*) FROM jobs WHERE ") + toPrint);
    if (lastId < 0 || count < 0)
        throw Failure(path + ": the job database cannot be read");
    waiting = quorvil::CapacityControl::create("waiting jobs", mostWaiting, count);
    giveBackAll();
}

int JobStore::readNumber(const std::string& query)
{
    PrepStat select(database, query);
    return select.step() ? select.columnInt(0) : -1;
}

int JobStore::add(const std::string& text, const std::string& origin)
{
    const util::Lock lock(mutex);
    try {
        waiting->increaseSize(1);
    } catch (const util::GeneralException&) {
        throw Failure::passing("too many jobs are waiting");
    }
    const int id = ++lastId;
    PrepStat insert(database, "INSERT INTO jobs (id, text, origin, state) VALUES (?1, ?2, ?3, 'accepted')");
    if (insert.getState() == PrepStat::BINDING) {
        insert.bindInt(1, id);
        insert.bindText(2, text.data(), text.size());
        insert.bindText(3, origin);
        insert.step();
    }
    if (insert.getState() == PrepStat::DONE)
        return id;
    jobLeaves();
    throw Failure::passing(reason(insert.lastResult()));
}

std::optional<StoredJob> JobStore::take()
{
    const util::Lock lock(mutex);
    saveUnsaved();
    StoredJob job{nextToPrint(), "", ""};
    if (job.id == 0)
        return std::nullopt;
    {
        PrepStat select(database, "SELECT text, origin FROM jobs WHERE id = ?1");
        if (select.getState() != PrepStat::BINDING)
            return std::nullopt;
        select.bindInt(1, job.id);
        if (!select.step())
            return std::nullopt;
        // Neither holds a NUL; a null pointer would be a lack of memory.
        const unsigned char* text = select.columnText(0);
        const unsigned char* origin = select.columnText(1);
        if (text == nullptr || origin == nullptr)
            return std::nullopt;
        job.text = reinterpret_cast<const char*>(text);
        job.origin = reinterpret_cast<const char*>(origin);
    }
    inWork.insert(job.id);
    // For people who look; where it cannot be written, the job is printed all the same.
    save(job.id, {"printing", ""});
    return job;
}

int JobStore::nextToPrint()
{
    PrepStat select(database, std::string("SELECT id FROM jobs WHERE ") + toPrint + " ORDER BY id");
    while (select.step()) {
        const int id = select.columnInt(0);
        const auto hold = held.find(id);
        if (!inWork.contains(id) && !unsaved.contains(id) && (hold == held.end() || hold->second.released))
            return id;
    }
    return 0;
}

void JobStore::finish(int id, const std::string& state, const std::string& message)
{
    const util::Lock lock(mutex);
    // First, so that it is known whatever fails below.
    unsaved[id] = {state, message};
    inWork.erase(id);
    held.erase(id);
    jobLeaves();
    saveUnsaved();
}

bool JobStore::hold(int id, const std::string& message)
{
    const util::Lock lock(mutex);
    const auto before = held.find(id);
    const bool isNew = before == held.end() || before->second.message != message;
    held[id] = {message, false};
    inWork.erase(id);
    // Where it cannot be written, the database says "printing", which means the same once nobody prints it.
    save(id, {"accepted", message});
    return isNew;
}

void JobStore::releaseHeld()
{
    const util::Lock lock(mutex);
    saveUnsaved();
    for (auto& [id, hold] : held)
        hold.released = true;
}

void JobStore::giveBackAll()
{
    const util::Lock lock(mutex);
    saveUnsaved();
    inWork.clear();
    // Where it cannot be written: "printing" is taken like "accepted".
    (void)database.exec("UPDATE jobs SET state = 'accepted' WHERE state = 'printing'");
}

bool JobStore::save(int id, const End& end)
{
    PrepStat update(database, "UPDATE jobs SET state = ?1, message = ?2 WHERE id = ?3");
    if (update.getState() != PrepStat::BINDING)
        return false;
    update.bindText(1, end.state);
    update.bindText(2, end.message);
    update.bindInt(3, id);
    update.step();
    return update.getState() == PrepStat::DONE;
}

void JobStore::saveUnsaved()
{
    for (auto job = unsaved.begin(); job != unsaved.end() && save(job->first, job->second);)
        job = unsaved.erase(job);
}

void JobStore::jobLeaves()
{
    try {
        waiting->decreaseSize(1);
    } catch (const util::GeneralException&) {
        // A job whose acceptance was reported as failed and had reached the disk all the same was never counted.
        return;
    }
}

} // namespace labelPrinter
