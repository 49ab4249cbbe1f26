#pragma once

#include "instruments/snapshot.h"
#include "order.h"
#include "terminal/screen.h"

#include <optional>
#include <vector>

namespace top {

enum class Show { Both, Topics, Subscribers };

/// What a page shows, and how.
struct View {
    Show show = Show::Both;
    SortKey sort = SortKey::Rate;
    bool isReversed = false;
};

/// Returns: the lines of a page: the server, sums, topics, subscribers. With a size it fits into it; else everything is
/// there.
std::vector<terminal::StyledLine> Page(const instruments::Snapshot& snapshot, const View& view,
                                       std::optional<terminal::Size> size);

} // namespace top
