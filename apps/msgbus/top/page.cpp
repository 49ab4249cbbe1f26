#include "page.h"

#include "common/escape.h"
#include "look/account_source.h"
#include "terminal/quantity.h"
#include "terminal/text_table.h"
#include "terminal/text_width.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

namespace top {

namespace {

using instruments::Snapshot;
using terminal::Rate;
using terminal::Short;
using terminal::Style;
using terminal::StyledLine;
using terminal::Table;
using enum Table::Align;

constexpr std::size_t NoLimit = std::numeric_limits<std::size_t>::max();

constexpr std::string_view Help =
    "q quit  t topics  s subscribers  b both  sort: n name r rate l lag a age d drops  o reverse";

std::vector<StyledLine> Summary(const Snapshot& snapshot) {
    const auto& server = snapshot.server;
    const auto& bus = snapshot.bus;
    double pushed = 0;
    for (const auto& publisher : snapshot.publishers) {
        pushed += publisher.rates.last1;
    }
    double taken = 0;
    for (const auto& subscriber : snapshot.subscribers) {
        taken += subscriber.rates.last1;
    }
    std::vector<StyledLine> lines;
    lines.push_back({fmt::format("msgbusd {}, process {}, {}, {}, up {}  {}", common::Escaped(server.version),
                                 server.pid, instruments::NameOf(server.state), server.isStatic ? "static" : "dynamic",
                                 terminal::Duration(snapshot.readAt - server.startedAt),
                                 terminal::UtcTime(snapshot.readAt, server.clockOffset)),
                     Style::Plain});
    if (auto warning = look::WarningAbout(server); !warning.empty()) {
        lines.push_back({std::move(warning), Style::Alarm});
    }
    lines.push_back({fmt::format("accepted {} ({}/s), taken {} ({}/s), inbound {}, queued {}", bus.accepted,
                                 Rate(pushed), bus.flows.taken, Rate(taken), bus.inbound, bus.flows.queued),
                     Style::Plain});
    lines.push_back(
        {fmt::format("dropped {}, refused: {} pushes, {} registrations, {} connections", bus.flows.dropped.Total(),
                     bus.refusedFull, bus.refusedRegistrations, bus.refusedConnections),
         bus.flows.dropped.Total() == 0 ? Style::Plain : Style::Warning});
    lines.push_back({fmt::format("{} workers, {} threads, {} descriptors, {}", server.workers, server.threads,
                                 server.descriptors, terminal::Bytes(server.memoryBytes)),
                     Style::Plain});
    if (!bus.AddsUp() || bus.discrepancies != 0) {
        lines.push_back({"the account does not add up", Style::Alarm});
    }
    return lines;
}

/// A table with the style of each of its rows.
struct StyledTable {
    std::string_view name;
    Table table;
    std::vector<Style> styles;
};

Style StyleOf(std::uint64_t queued, std::uint64_t dropped) {
    constexpr std::uint64_t lagging = 1000; // values; an idle subscriber that wakes up has fewer
    return dropped != 0 ? Style::Alarm : queued >= lagging ? Style::Warning : Style::Plain;
}

StyledTable Topics(const Snapshot& snapshot, const View& view) {
    StyledTable result{"topics",
                       Table({{"RATE", Right, 8},
                              {"SUBS", Right, 4},
                              {"QUEUED", Right, 6},
                              {"DROPPED", Right, 7},
                              {"AGE", Right, 6},
                              {"TOPIC", Left}}),
                       {}};
    for (const auto& row : TopicRows(snapshot, view.sort, view.isReversed)) {
        result.table.Add({Rate(row.rate), std::to_string(row.subscribers), Short(row.queued), Short(row.dropped),
                          terminal::Age(snapshot.readAt, row.lastAt), common::Escaped(row.topic)});
        result.styles.push_back(StyleOf(row.queued, row.dropped));
    }
    return result;
}

StyledTable Subscribers(const Snapshot& snapshot, const View& view) {
    StyledTable result{"subscribers",
                       Table({{"RATE", Right, 8},
                              {"ID", Right, 4},
                              {"QUEUED", Right, 6},
                              {"DROPPED", Right, 7},
                              {"OLDEST", Right, 6},
                              {"PID", Right, 7},
                              {"NAME", Left}}),
                       {}};
    for (const auto* const subscriber : SubscriberRows(snapshot, view.sort, view.isReversed)) {
        const std::uint64_t dropped = subscriber->flows.dropped.Total();
        result.table.Add({Rate(subscriber->rates.last1), std::to_string(subscriber->id),
                          Short(subscriber->flows.queued), Short(dropped),
                          terminal::Age(snapshot.readAt, subscriber->oldestSince),
                          std::to_string(subscriber->process.pid), common::Escaped(subscriber->name)});
        result.styles.push_back(StyleOf(subscriber->flows.queued, dropped));
    }
    return result;
}

/// Appends the table with as many of its rows as `room` lines hold beside its title and headings.
void Append(std::vector<StyledLine>& page, const StyledTable& table, const View& view, std::size_t room,
            std::optional<std::size_t> width) {
    constexpr std::size_t above = 2;
    if (room < above) {
        return;
    }
    const std::size_t shown = std::min(table.styles.size(), room - above);
    page.push_back({fmt::format("{}: {} of {}, by {}{}", table.name, shown, table.styles.size(), NameOf(view.sort),
                                view.isReversed ? " reversed" : ""),
                    Style::Plain});
    auto lines = table.table.Lines(width);
    page.push_back({std::move(lines.front()), Style::Heading});
    for (std::size_t i = 0; i < shown; ++i) {
        page.push_back({std::move(lines[i + 1]), table.styles[i]});
    }
}

} // namespace

std::vector<StyledLine> Page(const Snapshot& snapshot, const View& view, std::optional<terminal::Size> size) {
    auto page = Summary(snapshot);
    std::vector<StyledTable> tables;
    if (view.show != Show::Subscribers) {
        tables.push_back(Topics(snapshot, view));
    }
    if (view.show != Show::Topics) {
        tables.push_back(Subscribers(snapshot, view));
    }
    const auto width = size ? std::optional(size->columns) : std::nullopt;
    constexpr std::size_t footer = 1;
    const std::size_t used = page.size() + footer;
    std::size_t room = !size ? NoLimit : size->rows > used ? size->rows - used : 0;
    for (std::size_t i = 0; i < tables.size(); ++i) {
        // Each table gets an equal share, and the first ones leave what they do not need to those behind them.
        const std::size_t remaining = tables.size() - i;
        std::size_t share = room / remaining;
        if (remaining == 2 && room != NoLimit) {
            constexpr std::size_t above = 2;
            share = std::max(share, room - std::min(room, tables[i + 1].styles.size() + above));
        }
        const std::size_t before = page.size();
        Append(page, tables[i], view, share, width);
        room -= room == NoLimit ? 0 : page.size() - before;
    }
    if (size) {
        page.resize(std::min(page.size(), size->rows > footer ? size->rows - footer : 0));
        page.resize(size->rows - std::min(size->rows, footer)); // the help is the last line of the screen
        page.push_back({std::string(Help), Style::Plain});
        for (auto& line : page) {
            line.text = terminal::FitTo(line.text, size->columns);
        }
    }
    return page;
}

} // namespace top
