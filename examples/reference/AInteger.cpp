// SPDX-License-Identifier: BSD-3-Clause
// A frame with a type and a length, most significant byte first, numbers in four notations, and a
// port that is all of its text or none.

#include "AInteger.h"

#include <cstdio>

int main()
{
    unsigned char frame[6];
    AInteger::encodeShort(frame, 0, 258);
    AInteger::encodeInt(frame, 2, -2);
    for (const unsigned char byte : frame)
        std::printf("%02X ", byte);
    std::printf("= %d, %d\n", AInteger::decodeShort(frame, 0), AInteger::decodeInt(frame, 2));

    AInteger::encodeShort(frame, 0, -1); // 16 bits come back without a sign
    std::printf("%d\n", AInteger::decodeShort(frame, 0));

    for (const char* text : {" -12 apples", "0x1F", "0b101", "017"})
        std::printf("\"%s\" is %d\n", text, AInteger::parseInt(text));
    for (const char* text : {"8080", "80 ", "65616"}) {
        int port = 0;
        if (AInteger::parseWhole(text, 1, 65535, port))
            std::printf("port %d\n", port);
    }
    std::printf("%s%s\n", AInteger(42).toString().c_str(), AInteger::toString(-7).c_str());
}
