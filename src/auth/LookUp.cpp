// SPDX-License-Identifier: BSD-3-Clause
// What hosts call for each request, built for speed; the rest of a login waits for PAM.

#include "PAMHelper.h"

#include "sync/FastLock.h"

PAMHelper* PAMHelper::instanceForSessionId(const std::string& sessionId)
{
    const FastLock lock(instanceMapMonitor);
    const auto entry = instanceMap.find(sessionId);
    return entry == instanceMap.end() ? nullptr : entry->second;
}

PAMHelper* PAMHelper::instanceForKEPId(unsigned int id)
{
    const FastLock lock(instanceMapMonitor);
    for (const auto& [sessionId, helper] : instanceMap) {
        if (static_cast<unsigned int>(helper->getKEPSessionId()) == id)
            return helper;
    }
    return nullptr;
}
