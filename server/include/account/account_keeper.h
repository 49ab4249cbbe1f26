#pragma once

#include "account/error_tally.h"
#include "account/gauges.h"
#include "account/publisher_entry.h"
#include "account/subscriber_entry.h"
#include "account/trace.h"
#include "common/mutex.h"
#include "cor/result_code.h"
#include "instruments/account_file.h"
#include "instruments/snapshot.h"
#include "kn/caller.h"

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace msgbus_server {

class TextHeap;

/// What an account says about its server.
struct ServerIdentity {
    std::string version;
    std::string options; ///< those that differ from the defaults
    bool isStatic = false;
};

/// The account of the bus, as the server writes it: slots for publishers, subscribers and clients, texts, events and
/// what the server says about itself. What happens to values is written by PublisherEntry and SubscriberEntry.
///
/// Threads: the operations on publishers and subscribers one at a time; all others any.
class AccountKeeper final : public ISubscriberSink, public IErrorSink {
public:
    /// Publishers that have left and are remembered with their last value.
    static constexpr std::size_t MostRemembered = 256;

    /// `directory`: of the file; none: the account is in memory only, as it is until Publish.
    /// Throws: instruments::AccountFileError.
    AccountKeeper(const std::optional<std::string>& directory, const instruments::AccountCapacities& capacities,
                  const ServerIdentity& server);
    AccountKeeper(const AccountKeeper&) = delete;
    AccountKeeper& operator=(const AccountKeeper&) = delete;
    ~AccountKeeper() override;

    /// The file gets its name. Throws: instruments::AccountFileError: it is in memory only, and works there. Once.
    void Publish() { file.Publish(); }

    const instruments::AccountFile& File() const noexcept { return file; }
    instruments::layout::Bus& Bus() noexcept { return file.Head().bus; }

    void SetState(instruments::ServerState state) noexcept;
    /// Reads what the process takes of the system, which stays as it was while it cannot be read, and how the clocks
    /// stand to each other. Blocks: for some reads of /proc.
    void RefreshGauges();

    // Publishers and subscribers. The process of the calling thread's request owns what is added; without a request the
    // server itself. An id of the bus is never used twice. Without room nothing is added, and that is counted.

    /// Returns: null when there is no room.
    PublisherEntry* AddPublisher(long id, const std::string& topic);
    /// The publisher has gone. Its last value is remembered for some time.
    void EndPublisher(PublisherEntry& ended, const std::string& topic, bool hasDied);
    /// Replaces the description of its topic, which ends with the publisher. Returns: false when there is no room.
    bool Describe(PublisherEntry& publisher, std::string_view text);

    std::shared_ptr<SubscriberEntry> AddSubscriber(long id, const std::string& name,
                                                   const std::set<std::string>& topics, const FanOutRing& ring);
    /// The subscriber has gone, and left `lost` values unread. Requires: `ended` is not used any more.
    /// `kind`: of the event; none: there is none.
    void EndSubscriber(SubscriberEntry& ended, const std::string& name, std::optional<instruments::EventKind> kind,
                       std::uint64_t lost);

    // Clients. The first two: the process of the calling thread's request.

    void NoteUnknownPush() noexcept;
    void NoteUnknownWait() noexcept;
    /// `name`: the topic or the name that was to be registered.
    void NoteRefusal(const KnCaller& caller, cor::ResultCode code, std::string_view name) noexcept;
    void EndClient(const KnCaller& caller) noexcept;

    void NoteEvent(instruments::EventKind kind, std::int64_t id, const instruments::layout::Program& program,
                   std::string_view name, std::int32_t code = 0, std::uint64_t lost = 0) noexcept;

    /// Something that the account and the bus should agree on differs.
    void NoteDiscrepancy(std::string_view what) noexcept;

    /// The slot of the calling thread, which one of the same name may have had before; null when there is none left.
    instruments::layout::Thread* ThisThread() noexcept;

    void Note(instruments::layout::Subscriber& slot, std::uint64_t nanoseconds) noexcept override;
    void NoteGivenUp(long subscriberId) noexcept override;
    Trace& Following() noexcept override { return trace; }
    void Put(std::size_t index, const instruments::ErrorAccount& entry) noexcept override;

private:
    struct PublisherPlace {
        std::size_t slot;
        bool isOfTopic; ///< it remembers the same topic
    };
    struct ClientRecord {
        std::size_t slot;
        std::int64_t nextRefusalEvent = 0; ///< not before
    };
    using OctavePages = std::array<std::atomic<std::uint32_t>, instruments::LatencyBuckets::Pages>;

    std::optional<PublisherPlace> PublisherSlotFor(const std::string& topic);
    ClientRecord* RecordOf(const KnCaller& caller) noexcept REQUIRES(clientsMutex);
    template <typename Action>
    void WithClient(const KnCaller& caller, Action action) noexcept;
    void CountForRequest(instruments::layout::Counter instruments::layout::Client::*counter) noexcept;
    std::atomic<std::uint32_t>* BucketOf(OctavePages& pages, std::uint64_t nanoseconds) REQUIRES(pagesMutex);
    void ClearLatency(instruments::layout::Subscriber& slot);

    instruments::AccountFile file;
    const std::uint64_t instance; ///< distinguishes the entries of threads' caches

    // Of one thread at a time, as the operations on publishers and subscribers.
    std::unique_ptr<TextHeap> texts;
    std::vector<std::unique_ptr<PublisherEntry>> publishers; ///< by slot
    std::map<std::string, std::size_t> remembered;           ///< slots of publishers that have left, by topic
    std::deque<std::string> rememberedOrder;                 ///< their topics, oldest first
    std::vector<std::size_t> freePublishers;                 ///< slots whose topic had no room
    std::size_t subscribersUsed = 0;                         ///< slots
    std::vector<std::size_t> freeSubscribers;

    common::Mutex clientsMutex;
    std::unordered_map<std::uint64_t, ClientRecord> clients GUARDED_BY(clientsMutex); ///< by caller
    std::size_t clientsUsed GUARDED_BY(clientsMutex) = 0;                             ///< slots
    std::vector<std::size_t> freeClients GUARDED_BY(clientsMutex);

    common::Mutex eventsMutex;  ///< of the ring of events
    common::Mutex threadsMutex; ///< of the table of threads
    std::array<pid_t, instruments::layout::ThreadCapacity> threadIds GUARDED_BY(threadsMutex){}; ///< by slot
    common::Mutex pagesMutex;
    std::uint32_t pagesUsed GUARDED_BY(pagesMutex) = 0;

    Trace trace;

    GaugeRefresh gauges; ///< last: its thread uses the members above
};

} // namespace msgbus_server
