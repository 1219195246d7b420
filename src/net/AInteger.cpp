// SPDX-License-Identifier: BSD-3-Clause
#include "AInteger.h"

#include "NumberFormatException.h"
#include "base/IntegerText.h"
#include "net/BigEndian.h"

#include <cstdio>

AInteger::AInteger(int value) : m_value(value)
{}

AInteger::~AInteger() = default;

int AInteger::getValue()
{
    return m_value;
}

std::string AInteger::toString()
{
    return toString(m_value);
}

std::string AInteger::toString(int value)
{
    char text[12]; // a sign and ten digits
    std::snprintf(text, sizeof text, "%d", value);
    return text;
}

int AInteger::parseInt(const char* text)
{
    int value = 0;
    if (!parseIntegerText(text, value))
        throw NumberFormatException("%s", text);
    return value;
}

bool AInteger::parseWhole(const char* text, int least, int most, int& value) noexcept
{
    return parseWholeInteger(text, least, most, value);
}

int AInteger::decodeShort(unsigned char* data, int offset)
{
    return loadBigEndian16(data + offset);
}

int AInteger::decodeInt(unsigned char* data, int offset)
{
    return static_cast<int>(loadBigEndian32(data + offset));
}

void AInteger::encodeShort(unsigned char* data, int offset, short value)
{
    storeBigEndian16(data + offset, static_cast<std::uint16_t>(value));
}

void AInteger::encodeInt(unsigned char* data, int offset, int value)
{
    storeBigEndian32(data + offset, static_cast<std::uint32_t>(value));
}
