/// Images of EEPROMs from anywhere. The first byte chooses a format to read the others as; each format that recognises
/// them reads them, too. Fields lie inside the image and have names of their own, and what is damaged says why. An image that does
/// not carry the format is never whole.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "contents/formatlist.h"
#include "contents/reader.h"
#include "contents/recognise.h"

namespace
{

using namespace kest::contents;

void require(bool holds)
{
    if (!holds) {
        std::abort();
    }
}

void checkNodes(const std::vector<node>& nodes, std::size_t imageLength, std::set<std::string>& names)
{
    for (const node& each : nodes) {
        require(each.offset <= imageLength && each.length <= imageLength - each.offset);
        require((each.is == verdict::damaged) == !each.problem.empty());
        require(each.name.empty() || names.insert(each.name).second);
        checkNodes(each.children, imageLength, names);
    }
}

void read(const format& as, std::span<const std::uint8_t> image)
{
    const reading what = readAs(as, image);
    std::set<std::string> names;
    checkNodes(what.nodes, image.size(), names);
    require(carriesFormat(as, image) || !isWhole(what));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0) {
        return 0;
    }
    const std::span<const std::uint8_t> image(data + 1, size - 1);
    read(*formats()[data[0] % formats().size()], image);
    for (const format* each : recognise(image)) {
        read(*each, image);
    }
    return 0;
}
