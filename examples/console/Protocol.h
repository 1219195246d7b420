// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// What travels between console and consoled.
///
/// A request is a frame: a 2-byte operation, a 4-byte length and that many bytes. An answer is a frame whose
/// first two bytes are a result. Integers are big-endian. The bytes of a request are its fields, each a
/// 4-byte length and that many bytes; the bytes of an answer are text.
namespace protocol {

enum Operation : short {
    Login = 1,          ///< user, password
    Who = 2,            ///< no field
    Get = 3,            ///< property
    Set = 4,            ///< property, value
    Event = 5,          ///< event, data
    Call = 6,           ///< function, argument
    Run = 7,            ///< program
    Logout = 8,         ///< no field
    ChangePassword = 9, ///< current password, new password
};

enum Result : short {
    Done = 0,
    BadRequest = 1, ///< Fields that don't fit the operation.
    UnknownOperation = 2,
    TooLarge = 3, ///< The connection ends: the frame can't be skipped.
    NotLoggedIn = 4,
    Refused = 5, ///< A login that failed, for whatever reason, or what the user may not do.
    NotFound = 6,
    Failed = 7,
    Busy = 8, ///< No room for another connection or login, or a program is running already.
};

constexpr std::size_t kHeaderSize = 6;
constexpr std::size_t kMaxBytes = 4096; ///< Of one frame, its header not counted.

/// How many fields the operation takes, or nothing for an operation that doesn't exist.
std::optional<std::size_t> fieldCount(short operation);

/// Split the bytes of a request. The fields point into @p bytes. Nothing unless they are exactly @p count
/// fields that fill @p bytes.
std::optional<std::vector<std::string_view>> splitFields(std::string_view bytes, std::size_t count);

/// The frame of a request or an answer. Longer bytes are cut at kMaxBytes.
std::string frame(short code, std::string_view bytes);

/// How many bytes joinFields() makes.
std::size_t sizeOf(const std::vector<std::string_view>& fields);

/// The bytes of a request with these fields.
std::string joinFields(const std::vector<std::string_view>& fields);

/// How the log and answers show text that somebody else chose: it can't look like another part of the line,
/// and a terminal finds nothing to obey in it.
std::string quoted(std::string_view text);

} // namespace protocol
