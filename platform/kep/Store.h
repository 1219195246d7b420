// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <sys/types.h>
#include <variant>

struct sqlite3;

using Value = std::variant<std::string, int, bool>;
using Properties = std::map<std::string, Value, std::less<>>;

/// A file that keeps properties, in SQLite's format, for one process at a time. What goes wrong is told by a
/// line on standard error. Not synchronised.
class Store {
public:
    /// Take the file at @p path, which is made if there is none, and add what it keeps to @p properties.
    /// @return false when another process has it, or when not all of it can be read.
    bool open(const char* path, Properties& properties);

    /// Keep @p value. On return it is safe, whatever ends the process or the machine; until then the value
    /// before it is. A child of fork keeps nothing.
    bool put(const std::string& name, const Value& value);

private:
    struct Close {
        void operator()(sqlite3* database) const;
    };
    using Database = std::unique_ptr<sqlite3, Close>;

    static Database connect(const char* path, int flags);
    static bool makeIfMissing(const char* path);

    std::string m_path;
    Database m_database;
    pid_t m_owner = 0;
    bool m_failing = false; // has been told
};
