#include "tests/contents/images.h"

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>

#include "base/hex.h"
#include "contents/reader.h"
#include "contents/recognise.h"
#include "contents/shownvalue.h"
#include "tests/places.h"

namespace kest::contents::test
{
namespace
{

Bytes fileBytes(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

} // namespace

Bytes exampleImage(const std::string& name)
{
    const Bytes bytes = fileBytes(std::string(kest::test::sourceFolder) + "/examples/images/" + name);
    EXPECT_FALSE(bytes.empty()) << name;
    return bytes;
}

Bytes sharedImage(const std::string& name)
{
    return fileBytes(std::string(kest::test::sourceFolder) + "/../shared/images/" + name);
}

Bytes fromHex(std::string_view digits)
{
    std::string packed(digits);
    packed.erase(std::remove(packed.begin(), packed.end(), ' '), packed.end());
    const auto bytes = bytesOfHexDigits(packed);
    EXPECT_TRUE(bytes.has_value()) << digits;
    return bytes.value_or(Bytes{});
}

std::string textOf(const reading& what, std::string_view name)
{
    const node* const found = findNode(what, name);
    if (found == nullptr) {
        return "(there is none)";
    }
    const std::string text = shownText(*found);
    return found->unit.empty() ? text : text + " " + found->unit;
}

std::string problemOf(const reading& what, std::string_view name)
{
    const node* const found = findNode(what, name);
    return found == nullptr ? "(there is none)" : found->problem;
}

reading readExactly(std::string_view formatName, const Bytes& image)
{
    const format* const as = findFormat(formatName);
    if (as == nullptr) {
        ADD_FAILURE() << "no format " << formatName;
        return {};
    }
    const auto exact = std::make_unique<std::uint8_t[]>(image.size());
    std::copy(image.begin(), image.end(), exact.get());
    return readAs(*as, {exact.get(), image.size()});
}

} // namespace kest::contents::test
