// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "GorvApi.h"

#include <initializer_list>
#include <vector>

/// The options of a program's command line and their values.
///
/// An argument that begins with a dash is an option; its values are the arguments that follow it, up to the
/// next one with a dash. So "-5" is an option, never a value, and so is "-port=7578", whose name has the
/// equals sign in it. Arguments before the first option are skipped. The argument vector stays the caller's
/// and outlives the object. Not synchronised; neither copied nor moved.
///
/// @code
/// CommandLine options(argc, argv); // serverd -port 7578 --verbose
/// const char* port = options.getArg("port");
/// bool verbose = options.hasArg("-verbose"); // only one dash is taken off
/// const char* unknown = options.getUnknown({"port", "-verbose"}); // null: there is no other option
/// @endcode
///
/// @include examples/reference/CommandLine.cpp
/// @verbinclude examples/reference/CommandLine.out
class GORV_API CommandLine {
public:
    /// Split @p argv. A null pointer ends it before @p argc elements. Throws std::bad_alloc when memory runs
    /// out.
    CommandLine(int argc, char** argv);

    ~CommandLine();

    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    /// Returns whether the option @p name, written without its dash, was given. A null name never was.
    bool hasArg(const char* name);

    /// Returns the first value of the option @p name, or null if it was not given or has no value. When it
    /// was given more than once, its first occurrence answers. Points into the argument vector.
    const char* getArg(const char* name);

    /// The same with @p defaultValue, which may be null, instead of null.
    const char* getArg(const char* name, const char* defaultValue);

    /// Read the first value of the option @p name into @p value: decimal, "0x" hexadecimal, "0b" base-2 or
    /// "0" octal, with a "+" at most (an argument with a dash is an option), from @p least to @p most, and
    /// nothing around it. Without the option, or a value of it, @p value keeps what it held, so put the
    /// default there.
    /// @return false, with @p value unchanged, if there is a value and it is no such number.
    bool getInt(const char* name, int least, int most, int& value);

    /// Find an option that is given by mistake. Nothing else tells of one: it is as good as absent.
    /// @param known the options that the program has, each written without its dash; null is none.
    /// @return the first option on the command line that is none of @p known, without its dash, or null.
    /// Belongs to the object. A negative number is such an option, too.
    const char* getUnknown(std::initializer_list<const char*> known) const;

private:
    struct Option;

    GORV_LOCAL const Option* find(const char* name) const;

    std::vector<Option> m_args; // one entry an occurrence
};
