// Any argument vector, its texts split at zero bytes, against a model that keeps every text.

#include "CommandLine.h"
#include "Fuzz.h"

#include <algorithm>

namespace {

constexpr std::size_t kMaxTexts = 24; // each is looked up among all

/// The index of the option's first occurrence, or the end.
std::size_t findOption(const std::vector<std::string>& texts, const std::string& name)
{
    const auto found = std::find(texts.begin(), texts.end(), "-" + name);
    return static_cast<std::size_t>(found - texts.begin());
}

void checkName(CommandLine& line, const std::vector<std::string>& texts, char** argv, const std::string& name)
{
    const std::size_t option = findOption(texts, name);
    const std::size_t value = option + 1;
    const bool hasValue = value < texts.size() && texts[value].substr(0, 1) != "-";
    MUST(line.hasArg(name.c_str()) == (option < texts.size()));
    MUST(line.getArg(name.c_str()) == (hasValue ? argv[value] : nullptr));
}

} // namespace

FUZZ_TARGET
{
    FuzzedDataProvider input(data, size);
    const int surplus = input.ConsumeIntegralInRange(-20, 20);
    std::vector<std::string> texts = fuzz::splitAtZero(input.ConsumeRemainingBytesAsString());
    texts.resize(std::min(texts.size(), kMaxTexts));
    std::vector<char*> argv;
    for (std::string& text : texts)
        argv.push_back(text.data());
    argv.push_back(nullptr);

    // A count that is too large meets the null pointer, one that is too small hides the last arguments.
    const int argc = static_cast<int>(texts.size()) + surplus;
    CommandLine line(argc, argv.data());
    std::vector<std::string> seen = texts;
    seen.resize(static_cast<std::size_t>(std::clamp(argc, 0, static_cast<int>(texts.size()))));
    for (const std::string& text : texts) {
        checkName(line, seen, argv.data(), text);
        if (!text.empty())
            checkName(line, seen, argv.data(), text.substr(1));
    }
    checkName(line, seen, argv.data(), "");
    MUST(!line.hasArg(nullptr) && line.getArg(nullptr) == nullptr);

    CommandLine nothing(argc, nullptr);
    MUST(!nothing.hasArg(texts[0].c_str()));
    return 0;
}
