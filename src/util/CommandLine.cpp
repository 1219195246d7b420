// SPDX-License-Identifier: BSD-3-Clause
#include "CommandLine.h"

#include "base/IntegerText.h"

#include <cstring>
#include <string>

struct CommandLine::Option {
    bool isCalled(const char* asked) const
    {
        return asked != nullptr && std::strcmp(name.c_str(), asked) == 0;
    }

    std::string name;                // without its dash
    std::vector<const char*> values; // point into the caller's arguments
};

CommandLine::CommandLine(int argc, char** argv)
{
    for (int i = 0; argv != nullptr && i < argc && argv[i] != nullptr; ++i) {
        const char* argument = argv[i];
        if (argument[0] == '-')
            m_args.emplace_back().name = argument + 1;
        else if (!m_args.empty())
            m_args.back().values.push_back(argument);
    }
}

CommandLine::~CommandLine() = default;

bool CommandLine::hasArg(const char* name)
{
    return find(name) != nullptr;
}

const char* CommandLine::getArg(const char* name)
{
    const Option* option = find(name);
    return option == nullptr || option->values.empty() ? nullptr : option->values.front();
}

const char* CommandLine::getArg(const char* name, const char* defaultValue)
{
    const char* value = getArg(name);
    return value == nullptr ? defaultValue : value;
}

bool CommandLine::getInt(const char* name, int least, int most, int& value)
{
    const char* text = getArg(name);
    return text == nullptr || parseWholeInteger(text, least, most, value);
}

const char* CommandLine::getUnknown(std::initializer_list<const char*> known) const
{
    for (const Option& option : m_args) {
        bool isKnown = false;
        for (const char* name : known)
            isKnown = isKnown || option.isCalled(name);
        if (!isKnown)
            return option.name.c_str();
    }
    return nullptr;
}

const CommandLine::Option* CommandLine::find(const char* name) const
{
    for (const Option& option : m_args) {
        if (option.isCalled(name))
            return &option;
    }
    return nullptr;
}
