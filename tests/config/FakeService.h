// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <deque>
#include <map>
#include <string>
#include <utility>

// A service that prints what it is asked and answers as told; a cancellation may act in each call. Its
// functions take the place of libkep.so.1's in the program that holds them, or make a libkep.so.1 of their
// own.

extern std::map<std::string, int> answers; // results by the start of a call as printed; success for others
extern std::deque<std::pair<int, int>> answeredReads; // code and size, for the next calls of kep_config_get
extern const char*
    answeredText; // of kep_config_get_str_n, cut without a terminator; null: nothing is written
