#include "base/log_limit.h"

#include <algorithm>
#include <functional>

namespace borven_host {

/// Returns: null when the table is full.
LogLimit::Site* LogLimit::Find(const Record& record, Clock::time_point now) {
    // Two sites with one hash, should there ever be any, share their limit.
    const std::uint64_t key = std::hash<std::string_view>{}(record.file) * 31 + static_cast<std::uint64_t>(record.line);
    if (const auto found = sites.find(key); found != sites.end()) {
        return &found->second;
    }
    if (sites.size() >= MaxSites) {
        std::erase_if(sites, [now](const auto& entry) { return entry.second.end <= now && entry.second.leftOut == 0; });
        if (sites.size() >= MaxSites) {
            return nullptr;
        }
    }
    Site& site = sites[key];
    site.span = FirstSpan;
    site.end = now + FirstSpan;
    return &site;
}

bool LogLimit::Admit(const Record& record, Clock::time_point now) {
    Site* const site = Find(record, now);
    if (site == nullptr) {
        return true;
    }
    if (now >= site->end && site->leftOut == 0) {
        site->span = FirstSpan;
        site->end = now + site->span;
        site->written = 0;
    }
    if (site->written < Burst) {
        ++site->written;
        return true;
    }
    ++site->leftOut;
    nextReport = std::min(nextReport, site->end);
    Report& last = site->last;
    last.level = record.level;
    last.file = record.file;
    last.line = record.line;
    last.function = record.function;
    last.text = record.text.substr(0, MaxTextSize);
    return false;
}

std::vector<LogLimit::Report> LogLimit::Take(Clock::time_point now) {
    std::vector<Report> reports;
    nextReport = Clock::time_point::max();
    for (auto& [key, site] : sites) {
        if (site.leftOut == 0) {
            continue;
        }
        if (site.end > now) {
            nextReport = std::min(nextReport, site.end);
            continue;
        }
        Report report = site.last;
        report.text = std::to_string(site.leftOut) + " more suppressed; the last: " + site.last.text;
        reports.push_back(std::move(report));
        site.leftOut = 0;
        site.written = 0;
        site.span = std::min<Clock::duration>(site.span * 2, LongestSpan);
        site.end = now == Clock::time_point::max() ? site.end : now + site.span;
    }
    return reports;
}

void LogLimit::Clear() noexcept {
    sites.clear();
    nextReport = Clock::time_point::max();
}

} // namespace borven_host
