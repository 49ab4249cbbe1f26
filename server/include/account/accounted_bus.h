#pragma once

#include "account/account_keeper.h"
#include "account/inbound_account.h"
#include "account/publisher_entry.h"
#include "account/subscriber_entry.h"
#include "bus_interfaces.h"
#include "common/mutex.h"
#include "message_bus.h"
#include "topic_notices.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>

namespace msgbus_server {

/// What became of a description of a topic.
enum class Described { Done, NoPublisher, OtherOwner, NoRoom };

/// The bus, with an account of what passes through it. Nothing in the bus says what the events thread does with a
/// value; so this object knows it before:
///
/// - it has the turn of the pushes while a publisher or a subscriber is registered or unregistered, and before a
///   subscriber is, it waits until the inbound queue is empty. So the subscribers that a value has when it is pushed
///   are those to which it goes, and a value without any is known as such from the beginning;
/// - a push is counted as accepted before the bus has it, since the events thread may be faster than its reply. The bus
///   refuses a push only when its queue is full, which nothing but a push can make it.
///
/// What is so known goes to InboundAccount. Once that is closed, subscribers that come have no account.
///
/// It is also where subscribers learn of publishers, and publishers of subscribers (TopicNotices): with the turn, and
/// an inbound queue that has run empty, it puts a value into the queues of those who asked, so that it comes behind all
/// that was pushed before and ahead of all that is pushed later. What is put like this was not pushed: it belongs to
/// the account of the subscribers, not to that of the bus.
///
/// Threads: any; Push with the turn of the pushes (PushTurn).
class AccountedBus final : public message_bus::IProvider, public message_bus::IProviderControl {
public:
    /// Called for a new subscriber before it gets any value, with what is to be written about it; null: nothing.
    using FollowAction = std::function<void(long subscriberId, std::shared_ptr<SubscriberEntry> entry)>;

    /// `pushTurn`: the mutex of the turn. `publisher`: where pushes go. `topicNotices`: none: reserved topics are as
    /// any others. Lifetime: all must outlive this object.
    AccountedBus(common::Mutex& pushTurn, message_bus::MessageBus& accounted, message_bus::IProvider& publisher,
                 AccountKeeper& written, FollowAction followAction, std::optional<TopicNotices> topicNotices = {});
    AccountedBus(const AccountedBus&) = delete;
    AccountedBus& operator=(const AccountedBus&) = delete;

    /// Requires: the turn is held.
    cor::ResultCode Push(long publisherId, long message) override;

    /// A push was refused before it came here: it is answered 2. Requires: the turn is held.
    void NoteRefused(long publisherId) noexcept;

    /// Returns: 8 also for a reserved topic, whose values are the server's.
    cor::ResultCode RegisterPublisher(const std::string& topic, long& publisherId) override;
    cor::ResultCode RegisterSubscriber(const std::string& name, const std::set<std::string>& wanted,
                                       long& subscriberId) override;
    cor::ResultCode UnregisterPublisher(long publisherId) override;
    cor::ResultCode UnregisterSubscriber(long subscriberId) override;

    /// A push of the server's own, for no subscriber: it takes the turn and is not accounted for.
    cor::ResultCode PushForNobody(long publisherId);

    /// The events thread has put a value into one subscriber's queue. Threads: the events thread.
    void NoteCopy() noexcept { inbound.NoteCopy(); }
    const FanOutRing& Ring() const noexcept { return inbound.Ring(); }

    /// The server stops: from now on the events thread may end at any time.
    void NoteStop() noexcept { inbound.NoteStop(); }

    /// Replaces the description of a topic, when the process `pid` owns its publisher.
    Described Describe(const std::string& topic, std::int32_t pid, std::string_view text);

    /// As the operations of Trace with these names. Throws: std::bad_alloc.
    bool StartTrace(std::string_view topic, std::size_t values);
    void StopTrace();
    instruments::TraceRecord ReadTrace();

private:
    static constexpr long NoId = -1;

    struct Topic {
        std::uint32_t copies = 0; ///< of each value: its subscribers
        long publisher = NoId;
    };
    struct Publisher {
        const std::string* name; ///< of the topic
        Topic* topic;
        PublisherEntry* entry; ///< null: there was no room
    };
    struct Subscriber {
        std::string name;
        TopicNotices::Wishes wishes;
        std::shared_ptr<SubscriberEntry> entry; ///< null: there was no room, or it gets notices only
    };

    cor::ResultCode CountedPush(long publisherId, long message);
    cor::ResultCode PushKnown(Publisher& publisher, long publisherId, long message);
    void CountRefused(PublisherEntry* publisher) noexcept;
    void ForgetTopic(const std::string& topic);

    TopicNotices::Wishes WishesFor(const std::set<std::string>& wanted) const;
    void NotePresence(const std::string& topic, common::PresenceValue value);
    void NoteCounts(const std::set<std::string>& changed);
    void PutFirst(long subscriberId, const TopicNotices::Wishes& wishes);
    std::int64_t PresentAnswer(const common::Reserved& asked) const;
    std::optional<long> LastValueOf(const std::string& topic) const;

    common::Mutex& turn;
    message_bus::MessageBus& bus;
    message_bus::IProvider& provider;
    AccountKeeper& keeper;
    const FollowAction follow;

    // With the turn.
    std::unordered_map<long, Publisher> publishers;
    std::unordered_map<long, Subscriber> subscribers;
    std::map<std::string, Topic, std::less<>> topics; ///< those with a publisher or subscribers
    std::optional<TopicNotices> notices;
    InboundAccount inbound;
};

} // namespace msgbus_server
