#include "tests/places.h"

#include <sstream>

namespace kest::test
{

const char* const sourceFolder = KEST_SOURCE_DIR;
const char* const programFolder = KEST_BIN_DIR;
const char* const emulator = KEST_TEST_EMULATOR;

std::vector<std::string> commandOf(const std::string& program)
{
    std::vector<std::string> words;
    std::istringstream text(emulator);
    for (std::string word; std::getline(text, word, ';');) {
        words.push_back(word);
    }
    words.push_back(std::string(programFolder) + "/" + program);
    return words;
}

} // namespace kest::test
