// Any addresses, one after another, against a model that looks at each character.

#include "Fuzz.h"
#include "PAMHelper.h"
#include "support/FakePam.h"

#include <optional>

namespace {

using Address = std::optional<std::string>;

const char* textOf(const Address& address)
{
    return address ? address->c_str() : nullptr;
}

void take(std::string& field, const Address& address)
{
    if (!address)
        return;
    std::size_t dots = 0;
    std::size_t afterColon = 0;
    for (std::size_t i = 0; i < address->size(); ++i) {
        if ((*address)[i] == '.')
            ++dots;
        else if ((*address)[i] == ':')
            afterColon = i + 1;
    }
    field = dots > 0 && afterColon > 1 ? address->substr(afterColon) : *address;
}

/// A null pointer, or the bytes up to the next zero.
Address nextAddress(FuzzedDataProvider& input)
{
    if (input.ConsumeProbability<float>() < 0.1F)
        return std::nullopt;
    return input.ConsumeRandomLengthString(64).c_str();
}

} // namespace

FUZZ_SETUP
{
    return 0;
}

FUZZ_TARGET
{
    FuzzedDataProvider input(data, size);
    std::string remote;
    std::string local;
    Address first = nextAddress(input);
    Address second = nextAddress(input);
    auto* const helper = new PAMHelper(textOf(first), textOf(second));
    take(remote, first);
    take(local, second);
    while (input.remaining_bytes() > 0) {
        first = nextAddress(input);
        second = nextAddress(input);
        helper->setRemoteIP(textOf(first));
        helper->setInterfaceIP(textOf(second));
        take(remote, first);
        take(local, second);
        MUST(helper->getRemoteIP() == remote);
    }

    fakePam() = {};
    fakePam().records = true;
    std::string any = "any";
    bool skip = false;
    MUST(helper->authenticate(any, any, any, skip) == PAM_SUCCESS);
    MUST(fakePam().calls[1] == "1 rhost " + remote);
    MUST(fakePam().calls[2] == "1 INTERFACE_IP=" + local);
    helper->dispose();
    return 0;
}
