// SPDX-License-Identifier: BSD-3-Clause
#include "Store.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <pthread.h>
#include <sqlite3.h>
#include <unistd.h>

namespace {

/// What stands for a type is its place in Value.
constexpr char kTable[] = "CREATE TABLE properties "
                          "(name TEXT PRIMARY KEY, type INTEGER NOT NULL, value NOT NULL) WITHOUT ROWID";
constexpr char kRead[] = "SELECT name, type, value FROM properties";
constexpr char kWrite[] = "INSERT OR REPLACE INTO properties VALUES (?, ?, ?)";
/// A write returns when the disk has it, the folder's entries included.
constexpr char kSafe[] = "PRAGMA synchronous = EXTRA";
/// The lock is never given back. Nothing is written before all has been read.
constexpr char kTake[] = "PRAGMA locking_mode = EXCLUSIVE; PRAGMA journal_mode = TRUNCATE; BEGIN EXCLUSIVE";

/// SQLite is not to be left in the middle: a cancellation waits.
class CancelBlock {
public:
    CancelBlock() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before); }
    ~CancelBlock() { pthread_setcancelstate(m_before, nullptr); }

    CancelBlock(const CancelBlock&) = delete;
    CancelBlock& operator=(const CancelBlock&) = delete;

private:
    int m_before = 0;
};

struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

Statement prepare(sqlite3* database, const char* text)
{
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(database, text, -1, &statement, nullptr);
    return Statement(statement);
}

bool run(sqlite3* database, const char* text)
{
    return sqlite3_exec(database, text, nullptr, nullptr, nullptr) == SQLITE_OK;
}

std::string textIn(sqlite3_stmt* row, int column)
{
    const void* text = sqlite3_column_blob(row, column);
    const int size = sqlite3_column_bytes(row, column);
    return text == nullptr ? std::string() : std::string(static_cast<const char*>(text), size);
}

bool readValue(sqlite3_stmt* row, Value& value)
{
    switch (sqlite3_column_int(row, 1)) {
    case 0:
        value = textIn(row, 2);
        return true;
    case 1:
        value = sqlite3_column_int(row, 2);
        return true;
    case 2:
        value = sqlite3_column_int(row, 2) != 0;
        return true;
    default:
        return false;
    }
}

bool readAll(sqlite3* database, Properties& properties)
{
    const Statement rows = prepare(database, kRead);
    int result = SQLITE_ERROR;
    while ((result = sqlite3_step(rows.get())) == SQLITE_ROW) {
        if (!readValue(rows.get(), properties[textIn(rows.get(), 0)]))
            return false;
    }
    return result == SQLITE_DONE;
}

/// What reading all doesn't see: pages that no row needs today.
bool isWhole(sqlite3* database)
{
    const Statement check = prepare(database, "PRAGMA quick_check(1)");
    return sqlite3_step(check.get()) == SQLITE_ROW && textIn(check.get(), 0) == "ok";
}

void bindValue(sqlite3_stmt* statement, const Value& value)
{
    sqlite3_bind_int(statement, 2, static_cast<int>(value.index()));
    if (const auto* text = std::get_if<std::string>(&value))
        sqlite3_bind_text(statement, 3, text->data(), static_cast<int>(text->size()), SQLITE_STATIC);
    else if (const int* number = std::get_if<int>(&value))
        sqlite3_bind_int(statement, 3, *number);
    else
        sqlite3_bind_int(statement, 3, std::get<bool>(value) ? 1 : 0);
}

void tell(const std::string& path, const char* reason)
{
    std::fprintf(stderr, "libkep: properties in %s: %s\n", path.c_str(), reason);
}

} // namespace

void Store::Close::operator()(sqlite3* database) const
{
    sqlite3_close(database);
}

Store::Database Store::connect(const char* path, int flags)
{
    sqlite3* database = nullptr;
    sqlite3_open_v2(path, &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | flags, nullptr);
    return Database(database);
}

/// A new file gets its name when it is complete, so that an empty one is never taken for new.
bool Store::makeIfMissing(const char* path)
{
    if (::access(path, F_OK) == 0)
        return true;
    const std::string draft = std::string(path) + "-" + std::to_string(::getpid());
    ::unlink(draft.c_str());
    bool made = false;
    {
        const Database database = connect(draft.c_str(), SQLITE_OPEN_CREATE);
        made = run(database.get(), kSafe) && run(database.get(), kTable);
        if (!made)
            tell(path, sqlite3_errmsg(database.get()));
    }
    if (made && ::link(draft.c_str(), path) != 0 && errno != EEXIST) {
        tell(path, std::strerror(errno));
        made = false;
    }
    ::unlink(draft.c_str());
    return made;
}

bool Store::open(const char* path, Properties& properties)
{
    const CancelBlock block;
    if (!makeIfMissing(path))
        return false;
    Database database = connect(path, 0);
    if (!run(database.get(), kSafe) || !run(database.get(), kTake) || !isWhole(database.get()) ||
        !readAll(database.get(), properties) || !run(database.get(), "COMMIT")) {
        tell(path, sqlite3_errcode(database.get()) == SQLITE_OK ? "the file is damaged"
                                                                : sqlite3_errmsg(database.get()));
        return false;
    }
    m_path = path;
    m_database = std::move(database);
    m_owner = ::getpid();
    return true;
}

bool Store::put(const std::string& name, const Value& value)
{
    const CancelBlock block;
    if (::getpid() != m_owner)
        return false;
    const Statement statement = prepare(m_database.get(), kWrite);
    sqlite3_bind_text(statement.get(), 1, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
    bindValue(statement.get(), value);
    const bool done = sqlite3_step(statement.get()) == SQLITE_DONE;
    if (!done && !m_failing)
        tell(m_path, sqlite3_errmsg(m_database.get()));
    m_failing = !done;
    return done;
}
