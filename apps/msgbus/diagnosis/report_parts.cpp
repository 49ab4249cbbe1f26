#include "report_parts.h"

#include "instruments/account_json.h"
#include "instruments/read_account.h"
#include "run_program.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <gnu/libc-version.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

namespace diagnosis {

namespace {

using instruments::AccountReader;
using instruments::Snapshot;

constexpr off_t MostOfALog = 4 * 1024 * 1024; // bytes, from its end

/// The content of a small file, such as one of /proc. Returns: nothing when it cannot be read.
std::optional<std::string> ContentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return std::nullopt;
    }
    return std::string(std::istreambuf_iterator<char>(file), {});
}

/// Returns: the end of a regular file. Throws: std::invalid_argument.
std::string EndOfLog(const std::string& path) {
    const auto refuse = [&](const std::string& reason) {
        return std::invalid_argument("cannot read the log '" + path + "': " + reason);
    };
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) {
        throw refuse(error ? error.message() : "it is no regular file");
    }
    const auto size = static_cast<off_t>(std::filesystem::file_size(path, error));
    std::ifstream file(path, std::ios::binary);
    if (error || !file) {
        throw refuse(error ? error.message() : std::strerror(errno));
    }
    file.seekg(std::max<off_t>(0, size - MostOfALog));
    std::string end(MostOfALog, '\0'); // the log may grow meanwhile
    file.read(end.data(), MostOfALog);
    end.resize(static_cast<std::size_t>(file.gcount()));
    return end;
}

/// Collects parts, of which each may be missing.
class Parts final {
public:
    void Add(std::string name, std::string meaning, std::optional<std::string> content) {
        if (content && !content->empty()) {
            parts.push_back({std::move(name), std::move(meaning), std::move(*content)});
        }
    }
    std::vector<ReportPart> Result() && { return std::move(parts); }

private:
    std::vector<ReportPart> parts;
};

std::string AsJson(Snapshot snapshot) {
    for (auto& publisher : snapshot.publishers) {
        publisher.lastValue.reset();
    }
    constexpr int indent = 1;
    return instruments::StateToJson(snapshot).dump(indent, ' ', false, nlohmann::json::error_handler_t::replace) + '\n';
}

/// Adds the account; what keeps it from being read goes in its place. Returns: the account.
std::optional<Snapshot> AddAccount(Parts& parts, const std::string& name, const std::string& meaning,
                                   const std::function<std::string()>& path) {
    try {
        auto snapshot = AccountReader(path()).Read();
        parts.Add(name + ".json", meaning + ", without the last values", AsJson(snapshot));
        return snapshot;
    } catch (const instruments::NoAccountError& error) {
        parts.Add(name + ".txt", meaning + ": there is none", std::string(error.what()) + '\n');
    } catch (const instruments::AccountError& error) {
        parts.Add(name + ".txt", meaning + ": it cannot be read", std::string(error.what()) + '\n');
    }
    return std::nullopt;
}

std::string Versions(const std::optional<Snapshot>& account) {
    utsname system{};
    ::uname(&system);
    std::string text = std::string("system   ") + system.sysname + ' ' + system.release + ' ' + system.version + ' ' +
                       system.machine + "\nlibc     glibc " + ::gnu_get_libc_version() + "\nmsgbus   " BORVEN_VERSION;
    text += "\nmsgbusd  " + (account ? account->server.version + " wrote the account" : "no account");
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    if (const auto installed = OutputOf({program.parent_path() / "msgbusd", "--version"}); !error && installed) {
        text += "\nmsgbusd  " + installed->substr(0, installed->find('\n')) + " is beside msgbus";
    }
    return text + '\n';
}

/// Returns: the variables of the bus, one on a line, of an environment as in /proc.
std::string VariablesIn(std::string_view environment) {
    constexpr std::array<std::string_view, 3> prefixes{"BORVEN_", "MALLOC_ARENA_MAX=", "GLIBC_TUNABLES="};
    std::string text;
    while (!environment.empty()) {
        const auto variable = environment.substr(0, environment.find('\0'));
        environment.remove_prefix(std::min(environment.size(), variable.size() + 1));
        if (std::any_of(prefixes.begin(), prefixes.end(), [&](auto prefix) { return variable.starts_with(prefix); })) {
            text += "  " + std::string(variable) + '\n';
        }
    }
    return text.empty() ? "  none\n" : text;
}

std::string Environments(const std::optional<std::string>& server) {
    std::string text = "of msgbus\n" + VariablesIn(ContentOf("/proc/self/environ").value_or(""));
    return server ? text + "of the server\n" + VariablesIn(*server) : text;
}

/// Adds what the server logs to, if it is a file or the journal.
void AddLog(Parts& parts, const std::string& process, std::int32_t pid) {
    std::error_code error;
    const auto target = std::filesystem::read_symlink(process + "/fd/2", error);
    if (!error && std::filesystem::is_regular_file(target, error)) {
        try {
            parts.Add("server.log", "the server's log, at most its last 4 MiB", EndOfLog(target));
            return;
        } catch (const std::invalid_argument&) { // not readable for this user
        }
    }
    auto journal = OutputOf({"timeout", "20", "journalctl", "--quiet", "--no-pager", "--output=short-iso-precise",
                             "--lines=10000", "_COMM=msgbusd", "_PID=" + std::to_string(pid)});
    parts.Add("server.log", "the server's part of the journal, at most its last 10,000 lines", std::move(journal));
}

} // namespace

std::vector<ReportPart> CollectParts(const ReportArguments& arguments) {
    Parts parts;
    const auto account = AddAccount(parts, "account", "the account", [&] {
        return arguments.account ? *arguments.account : instruments::AccountPath();
    });
    if (!arguments.account) {
        AddAccount(parts, "account.previous", "the account of the server before", instruments::PreviousAccountPath);
    }
    const bool isAlive = account && account->server.isAlive;
    const std::string process = isAlive ? "/proc/" + std::to_string(account->server.pid) : "";
    const auto ofServer = [&](const char* file) { return isAlive ? ContentOf(process + file) : std::nullopt; };
    parts.Add("versions.txt", "versions of the system, the C library and the programs", Versions(account));
    parts.Add("os-release.txt", "the distribution", ContentOf("/etc/os-release"));
    parts.Add("limits.txt", "what a program that is started here may take", ContentOf("/proc/self/limits"));
    parts.Add("server-limits.txt", "what the server may take", ofServer("/limits"));
    parts.Add("server-status.txt", "the server's process", ofServer("/status"));
    parts.Add("environment.txt", "variables that the programs read", Environments(ofServer("/environ")));
    if (arguments.log) {
        parts.Add("server.log", "the log, at most its last 4 MiB", EndOfLog(*arguments.log));
    } else if (account) {
        AddLog(parts, process, account->server.pid);
    }
    return std::move(parts).Result();
}

} // namespace diagnosis
