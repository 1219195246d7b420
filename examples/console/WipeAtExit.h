#pragma once

#include <cstddef>
#include <openssl/crypto.h>

/// Wipes what may have held a password at the end of the scope.
class WipeAtExit {
public:
    WipeAtExit(void* bytes, std::size_t size) : m_bytes(bytes), m_size(size) {}
    ~WipeAtExit() { OPENSSL_cleanse(m_bytes, m_size); }
    WipeAtExit(const WipeAtExit&) = delete;
    WipeAtExit& operator=(const WipeAtExit&) = delete;

private:
    void* m_bytes;
    std::size_t m_size;
};
