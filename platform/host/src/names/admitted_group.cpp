#include "names/admitted_group.h"

#include "base/no_throw.h"
#include "kn/policy.h"
#include "kn/status.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fstream>
#include <vector>

namespace borven_host {

namespace {

constexpr gid_t NoGroup = static_cast<gid_t>(-1); // as chown has it
std::atomic<gid_t> group{NoGroup};

bool Contains(const std::vector<gid_t>& groups, gid_t wanted) {
    return std::find(groups.begin(), groups.end(), wanted) != groups.end();
}

/// Returns: the number in a file of the kernel's; the usual one of an unmapped user or group when it cannot be read.
std::uint32_t ReadId(const char* path) {
    constexpr std::uint32_t usual = 65534;
    std::uint32_t id = 0;
    std::ifstream(path) >> id;
    return id == 0 ? usual : id;
}

/// Returns: the supplementary groups that the peer had when it connected; none when the kernel does not say.
std::vector<gid_t> GroupsOfPeer(int socket) {
    constexpr std::size_t usual = 32;
    std::vector<gid_t> groups(usual);
    for (;;) {
        auto bytes = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        const int result = ::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &bytes);
        const bool isShort = result != 0 && errno == ERANGE && bytes > groups.size() * sizeof(gid_t);
        groups.resize(result == 0 || isShort ? bytes / sizeof(gid_t) : 0);
        if (!isShort) {
            return groups;
        }
    }
}

/// Returns: whether this process may give files to the group.
bool IsOwnGroup(gid_t wanted) {
    if (::geteuid() == 0 || ::getegid() == wanted) {
        return true;
    }
    const int count = ::getgroups(0, nullptr);
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(count, 0)));
    const int filled = ::getgroups(static_cast<int>(groups.size()), groups.data());
    groups.resize(static_cast<std::size_t>(std::max(filled, 0)));
    return Contains(groups, wanted);
}

} // namespace

uid_t UnmappedUser() {
    static const uid_t user = ReadId("/proc/sys/kernel/overflowuid");
    return user;
}

std::optional<gid_t> AdmittedGroup() noexcept {
    const gid_t admitted = group.load(std::memory_order_relaxed);
    return admitted == NoGroup ? std::nullopt : std::optional(admitted);
}

bool MayConnect(int socket, const Peer& peer) {
    if (peer.uid == ::geteuid()) {
        return true;
    }
    const auto admitted = AdmittedGroup();
    return admitted && (peer.uid == 0 || peer.gid == *admitted || Contains(GroupsOfPeer(socket), *admitted));
}

} // namespace borven_host

std::int32_t KnPolicyAllowGroup(std::uint32_t group) noexcept {
    if (group == borven_host::NoGroup) {
        return KnStatusInvalidArgument;
    }
    return borven_host::NoThrow([&]() -> std::int32_t {
        // Processes with any group that is not known here would seem to have that one.
        if (group == borven_host::ReadId("/proc/sys/kernel/overflowgid")) {
            return KnStatusInvalidArgument;
        }
        if (!borven_host::IsOwnGroup(group)) {
            return KnStatusDenied;
        }
        borven_host::group.store(group, std::memory_order_relaxed);
        return KnStatusOk;
    });
}
