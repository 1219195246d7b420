// SPDX-License-Identifier: BSD-3-Clause
#include "Protocol.h"

#include "AInteger.h"

#include <algorithm>

namespace protocol {

constexpr std::size_t kLengthSize = 4; // ahead of a field

std::optional<std::size_t> fieldCount(short operation)
{
    static constexpr std::size_t s_counts[] = {2, 0, 1, 2, 2, 2, 1, 0, 2}; // from Login to ChangePassword
    if (operation < Login || operation > ChangePassword)
        return std::nullopt;
    return s_counts[operation - Login];
}

std::optional<std::vector<std::string_view>> splitFields(std::string_view bytes, std::size_t count)
{
    std::vector<std::string_view> fields;
    while (bytes.size() >= kLengthSize && fields.size() < count) {
        unsigned char header[kLengthSize];
        bytes.copy(reinterpret_cast<char*>(header), kLengthSize);
        bytes.remove_prefix(kLengthSize);
        const auto length = static_cast<unsigned int>(AInteger::decodeInt(header, 0));
        if (length > bytes.size())
            return std::nullopt;
        fields.push_back(bytes.substr(0, length));
        bytes.remove_prefix(length);
    }
    if (fields.size() != count || !bytes.empty())
        return std::nullopt;
    return fields;
}

std::string frame(short code, std::string_view bytes)
{
    bytes = bytes.substr(0, kMaxBytes);
    unsigned char header[kHeaderSize];
    AInteger::encodeShort(header, 0, code);
    AInteger::encodeInt(header, 2, static_cast<int>(bytes.size()));
    std::string result;
    result.reserve(kHeaderSize + bytes.size());
    result.append(reinterpret_cast<const char*>(header), kHeaderSize);
    result.append(bytes);
    return result;
}

std::size_t sizeOf(const std::vector<std::string_view>& fields)
{
    std::size_t size = 0;
    for (const std::string_view field : fields)
        size += kLengthSize + field.size();
    return size;
}

std::string joinFields(const std::vector<std::string_view>& fields)
{
    std::string result;
    result.reserve(sizeOf(fields)); // a field may be a password: no copy is left in a smaller buffer
    for (const std::string_view field : fields) {
        unsigned char length[kLengthSize];
        AInteger::encodeInt(length, 0, static_cast<int>(field.size()));
        result.append(reinterpret_cast<const char*>(length), kLengthSize);
        result.append(field);
    }
    return result;
}

std::string quoted(std::string_view text)
{
    std::string result(text);
    std::replace_if(
        result.begin(), result.end(), [](char c) { return c < ' ' || c > '~' || c == '"'; }, '?');
    return '"' + result + '"';
}

} // namespace protocol
