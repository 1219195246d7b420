#include "GorvVersion.h"

int gorvVersion() noexcept
{
    return GORV_VERSION;
}
