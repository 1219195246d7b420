// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// Keeps a cancellation of the calling thread waiting for one scope.
class CancelBlock {
public:
    CancelBlock() noexcept;
    ~CancelBlock();

    CancelBlock(const CancelBlock&) = delete;
    CancelBlock& operator=(const CancelBlock&) = delete;

private:
    int m_before = 0;
};
