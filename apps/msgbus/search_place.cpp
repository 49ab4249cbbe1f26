#include "search_place.h"

#include "kn/runtime_directory.h"

#include <array>
#include <climits>

std::string SearchPlace() {
    constexpr std::size_t reasonSize = 256;
    std::array<char, PATH_MAX + reasonSize> place{};
    KnDescribeRuntimeDirectory(place.data(), place.size());
    return std::string("; looked in ") + place.data();
}
