/// What most sources of the product include, compiled once in builds with KEST_PCH. Each source includes what it needs
/// all the same: the other builds show when it does not.
#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <fmt/core.h>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>
