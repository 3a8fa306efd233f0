/// What the tools' functions throw, as one line of text.
#pragma once

#include <functional>
#include <string>

namespace kest::test
{

/// Exit code and text of the failure that `step` throws: "2 length 0: there is nothing to transfer". Empty when it
/// throws none.
std::string complaint(const std::function<void()>& step);

} // namespace kest::test
