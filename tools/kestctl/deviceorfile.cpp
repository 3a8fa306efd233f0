#include "tools/kestctl/deviceorfile.h"

#include <filesystem>
#include <fmt/core.h>

#include "base/guess.h"
#include "tools/common/device.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/fieldtext.h"

namespace kest::tools
{

bool namesDevice(const std::string& argument)
{
    if (argument == "-") {
        return false;
    }
    std::error_code none;
    if (isDeviceText(argument)) {
        if (!argument.starts_with("sim:") && std::filesystem::exists(argument, none)) {
            throw wrongUse(fmt::format("'{}': a name {} is taken as a device text, not as a file's", argument,
                                       isFieldText(argument) ? "like this" : "with a comma"),
                           fmt::format("give the file by '- < {}'", shellWord(argument)));
        }
        return true;
    }
    try {
        return !findDevice(argument).text.empty();
    } catch (const failure&) {
        return false;
    }
}

void requireFile(const std::string& argument, const std::string& step)
{
    std::error_code none;
    if (argument != "-" && !std::filesystem::exists(argument, none)) {
        throw failure{.code = exitAbsent,
                      .what = "there is no such device and no such file",
                      .tryThis = didYouMean(argument, deviceNames(), "'kestctl devices' lists the devices"),
                      .device = argument,
                      .step = step};
    }
}

} // namespace kest::tools
