#include "support/journal.h"

#include <algorithm>
#include <utility>

namespace test_support {

std::string ToString(const LogRecord& record) {
    return std::to_string(record.level) + " " + record.function + ": " + record.text;
}

Journal& Journal::Instance() {
    // Never destroyed: a detached remover may still write its last line while the process ends.
    static Journal& journal = *new Journal;
    return journal;
}

void Journal::AddCall(std::string call) {
    Add({false, std::move(call), {}});
}

void Journal::AddLog(LogRecord record) {
    std::string text = ToString(record);
    Add({true, std::move(text), std::move(record)});
}

void Journal::Add(Entry entry) {
    {
        const std::lock_guard lock(mutex);
        const bool isIgnored = std::any_of(ignored.begin(), ignored.end(), [&entry](const std::string& prefix) {
            return entry.text.starts_with(prefix);
        });
        if (isIgnored) {
            return;
        }
        entries.push_back(std::move(entry));
    }
    changed.notify_all();
}

void Journal::Ignore(std::string prefix) {
    const std::lock_guard lock(mutex);
    ignored.push_back(std::move(prefix));
}

void Journal::Clear() {
    const std::lock_guard lock(mutex);
    entries.clear();
    ignored.clear();
}

std::vector<std::string> Journal::Calls(const std::string& prefix) const {
    const std::lock_guard lock(mutex);
    std::vector<std::string> calls;
    for (const auto& entry : entries) {
        if (!entry.isLog && entry.text.starts_with(prefix)) {
            calls.push_back(entry.text);
        }
    }
    return calls;
}

std::vector<std::string> Journal::Logs(int minimumLevel) const {
    const std::lock_guard lock(mutex);
    std::vector<std::string> logs;
    for (const auto& entry : entries) {
        if (entry.isLog && entry.record.level >= minimumLevel) {
            logs.push_back(entry.text);
        }
    }
    return logs;
}

std::vector<LogRecord> Journal::Records() const {
    const std::lock_guard lock(mutex);
    std::vector<LogRecord> records;
    for (const auto& entry : entries) {
        if (entry.isLog) {
            records.push_back(entry.record);
        }
    }
    return records;
}

std::vector<std::string> Journal::All() const {
    const std::lock_guard lock(mutex);
    std::vector<std::string> all;
    for (const auto& entry : entries) {
        all.push_back(entry.text);
    }
    return all;
}

std::size_t Journal::Count(const std::string& wanted) const {
    const std::lock_guard lock(mutex);
    return static_cast<std::size_t>(
        std::count_if(entries.begin(), entries.end(), [&wanted](const Entry& entry) { return entry.text == wanted; }));
}

bool Journal::Await(const std::string& wanted, std::size_t times) const {
    return AwaitMatching([&wanted](const std::string& text) { return text == wanted; }, times);
}

bool Journal::AwaitPrefix(const std::string& prefix, std::size_t times) const {
    return AwaitMatching([&prefix](const std::string& text) { return text.starts_with(prefix); }, times);
}

bool Journal::AwaitMatching(const std::function<bool(const std::string&)>& matches, std::size_t times) const {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, Patience, [&] {
        return static_cast<std::size_t>(std::count_if(
                   entries.begin(), entries.end(), [&](const Entry& entry) { return matches(entry.text); })) >= times;
    });
}

} // namespace test_support
