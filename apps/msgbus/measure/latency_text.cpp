#include "measure/latency_text.h"

#include "terminal/quantity.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>

namespace measure {

std::vector<std::string> LatencyCells(const common::Histogram& histogram) {
    const auto cell = [&](std::int64_t ns) { return histogram.Count() == 0 ? "-" : terminal::Duration(ns); };
    std::vector<std::string> cells{cell(histogram.LeastNs())};
    for (const auto& quantile : Quantiles) {
        cells.push_back(cell(histogram.QuantileNs(quantile.share)));
    }
    cells.push_back(cell(histogram.MostNs()));
    return cells;
}

std::vector<std::string> LatencyHeadings() {
    std::vector<std::string> headings{"MIN"};
    for (const auto& quantile : Quantiles) {
        headings.emplace_back(quantile.name);
        headings.back().front() = 'P';
    }
    headings.emplace_back("MAX");
    return headings;
}

nlohmann::ordered_json LatencyJson(const common::Histogram& histogram) {
    nlohmann::ordered_json json{{"count", histogram.Count()}, {"min_ns", histogram.LeastNs()}};
    for (const auto& quantile : Quantiles) {
        json[std::string(quantile.name) + "_ns"] = histogram.QuantileNs(quantile.share);
    }
    json["max_ns"] = histogram.MostNs();
    return json;
}

std::string Bars(const common::Histogram& histogram) {
    constexpr std::uint64_t widest = 50; // columns
    const auto doublings = histogram.Doublings();
    const auto first = std::find_if(doublings.begin(), doublings.end(), [](auto count) { return count != 0; });
    const std::uint64_t most = doublings.empty() ? 0 : *std::max_element(doublings.begin(), doublings.end());
    std::string text;
    for (auto doubling = first; doubling != doublings.end(); ++doubling) {
        const auto bits = static_cast<unsigned>(doubling - doublings.begin());
        const std::int64_t end = std::int64_t{1} << bits;
        const std::uint64_t width = (*doubling * widest + most - 1) / most;
        text += fmt::format("  below {:>6} {:>10} {}\n", terminal::Duration(end), *doubling,
                            std::string(static_cast<std::size_t>(width), '#'));
    }
    return text;
}

} // namespace measure
