// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <functional>
#include <map>
#include <printf.h>
#include <string>

/// What happens, once, at a place that the code comes by: an interposed function, or the conversion "%K" of a
/// message, which writes nothing.
inline std::map<std::string, std::function<void()>>& atPlaces()
{
    static std::map<std::string, std::function<void()>> s_actions;
    return s_actions;
}

inline void comeBy(const char* place)
{
    if (auto action = atPlaces().extract(place))
        action.mapped()();
}

inline void setAtPlace(const char* place, std::function<void()> action)
{
    const auto conversion = [](FILE*, const printf_info*, const void* const*) {
        comeBy("%K");
        return 0;
    };
    ::register_printf_specifier('K', conversion,
                                [](const printf_info*, std::size_t, int*, int*) { return 0; });
    atPlaces()[place] = std::move(action);
}
