// Defends the slot and doorbell protocol inside one process and over one mapping, so that a thread sanitizer sees both
// sides: each request is served once by one receiver, each caller gets the reply to its own request, and no receiver
// sleeps while there is work, whatever the receivers do between two requests.
#include "records/shared_memory_channel.h"

#include "common/mutex.h"
#include "one_mapping.h"

#include <sys/mman.h>

#include <algorithm>
#include <random>

namespace platform_test {
namespace {

using borven_host::Channel;
using borven_host::Connection;
using borven_host::LayoutVersion;
using borven_host::MakeBell;
using borven_host::RequestFilter;
using borven_host::SharedMemoryEnds;
using borven_host::SharedMemoryRegion;
using borven_host::SlotHalf;
using borven_host::SlotWord;
using borven_host::UniqueFd;

/// One call for each value from `first` up to `end`, which must be answered with the next one.
void CallWithEach(Connection& connection, std::int64_t first, std::int64_t end) {
    for (std::int64_t value = first; value < end; ++value) {
        std::int64_t returned = 0;
        ASSERT_EQ(KnStatusOk, CallOn(connection, value, &returned));
        ASSERT_EQ(value + 1, returned);
    }
}

/// Counts the served requests, by value.
class Ledger final {
public:
    explicit Ledger(std::size_t values) : served(values) {}

    void Serve(std::int64_t value) { ++served.at(static_cast<std::size_t>(value)); }
    void ExpectEachOnce() const {
        EXPECT_TRUE(std::all_of(served.begin(), served.end(), [](const auto& count) { return count == 1; }));
    }

private:
    std::vector<std::atomic<int>> served;
};

TEST(SharedMemoryChannel, EachRequest_IsServedOnce_AndAnsweredToItsCaller) {
    constexpr int clients = 16;
    constexpr int receivers = 8;
    constexpr int calls = 1500;
    Channel channel(Channel::DeadClient::ReplyAnswersOk);
    std::vector<Client> joined;
    for (int i = 0; i < clients; ++i) {
        joined.push_back(JoinOverOneMapping(channel));
    }
    Ledger ledger(clients * calls);
    std::vector<std::unique_ptr<Background<void>>> serving;
    for (int i = 0; i < receivers; ++i) {
        serving.push_back(std::make_unique<Background<void>>([&] {
            Record request;
            while (ReceiveFrom(channel, request) == KnStatusOk) {
                ledger.Serve(request.Value());
                EXPECT_EQ(KnStatusOk, EchoTo(channel, request));
            }
        }));
    }
    {
        std::vector<std::unique_ptr<Background<void>>> calling;
        for (int i = 0; i < clients; ++i) {
            calling.push_back(std::make_unique<Background<void>>(
                [&, i] { CallWithEach(*joined[static_cast<std::size_t>(i)].connection, i * calls, (i + 1) * calls); }));
        }
    }
    channel.Close();
    serving.clear();
    ledger.ExpectEachOnce();
}

/// Threads that start their own replacements. None starts once Join was called.
class Crew final {
public:
    void Add(const std::function<void()>& step) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        if (!isOver) {
            threads.emplace_back(step);
        }
    }

    void Join() EXCLUDES(mutex) {
        std::vector<std::thread> joined;
        {
            const common::MutexLock lock(mutex);
            isOver = true;
            joined.swap(threads);
        }
        for (std::thread& thread : joined) {
            thread.join();
        }
    }

private:
    common::Mutex mutex;
    std::vector<std::thread> threads GUARDED_BY(mutex);
    bool isOver GUARDED_BY(mutex) = false;
};

// A receiver receives one request and leaves for good, after it has started its replacement: what the bus does with
// every request that waits. Some leave the channel before they reply, and reply later.
TEST(SharedMemoryChannel, ReceiversThatLeave_SwallowNoWakeUp) {
    constexpr int clients = 16;
    constexpr int calls = 150;
    Channel channel(Channel::DeadClient::ReplyAnswersOk);
    std::vector<Client> joined;
    for (int i = 0; i < clients; ++i) {
        joined.push_back(JoinOverOneMapping(channel));
    }
    Ledger ledger(clients * calls);
    Crew crew;
    std::function<void()> serve;
    std::atomic<int> turn{0};
    serve = [&] {
        Record request;
        while (true) {
            if (ReceiveFrom(channel, request) != KnStatusOk) {
                return;
            }
            ledger.Serve(request.Value());
            const int kind = turn++ % 4;
            if (kind < 2) {
                EXPECT_EQ(KnStatusOk, EchoTo(channel, request));
                continue;
            }
            crew.Add(serve);
            if (kind == 2) {
                std::this_thread::yield();
            }
            EXPECT_EQ(KnStatusOk, EchoTo(channel, request));
            return;
        }
    };
    for (int i = 0; i < 4; ++i) {
        crew.Add(serve);
    }
    {
        std::vector<std::unique_ptr<Background<void>>> calling;
        for (int i = 0; i < clients; ++i) {
            calling.push_back(std::make_unique<Background<void>>(
                [&, i] { CallWithEach(*joined[static_cast<std::size_t>(i)].connection, i * calls, (i + 1) * calls); }));
        }
    }
    channel.Close();
    crew.Join();
    ledger.ExpectEachOnce();
}

// The other receivers sleep most of the time, so a receiver that leaves a request behind must wake one of them.
TEST(SharedMemoryChannel, ARequestThatWaitsForAnother_IsNotAlone) {
    Channel channel(Channel::DeadClient::ReplyAnswersOk);
    const Client waiting = JoinOverOneMapping(channel);
    const Client bringing = JoinOverOneMapping(channel);
    std::atomic<std::int64_t> brought{0};
    std::vector<std::unique_ptr<Background<void>>> serving;
    for (int i = 0; i < 3; ++i) {
        serving.push_back(std::make_unique<Background<void>>([&] {
            Record request;
            while (ReceiveFrom(channel, request) == KnStatusOk) {
                if (request.header.mid == 1) {
                    brought.wait(request.Value() - 1);
                } else {
                    brought = request.Value();
                    brought.notify_all();
                }
                EXPECT_EQ(KnStatusOk, EchoTo(channel, request));
            }
        }));
    }
    constexpr int rounds = 3000;
    {
        Background waiter([&] {
            for (int i = 1; i <= rounds; ++i) {
                const Record request = RequestOf(i, 0, 1);
                Record response;
                ASSERT_EQ(KnStatusOk, waiting.connection->Call(&request.header, &response.header));
            }
        });
        Background bringer([&] {
            for (int i = 1; i <= rounds; ++i) {
                ASSERT_EQ(KnStatusOk, CallOn(*bringing.connection, i));
            }
        });
    }
    channel.Close();
}

TEST(SharedMemoryChannel, CallsOfManyThreadsOnOneConnection_TakeTurns) {
    constexpr int threads = 6;
    constexpr int calls = 500;
    Channel channel(Channel::DeadClient::ReplyAnswersOk);
    const Client joined = JoinOverOneMapping(channel);
    Ledger ledger(threads * calls);
    Background server([&] {
        Record request;
        while (ReceiveFrom(channel, request) == KnStatusOk) {
            ledger.Serve(request.Value());
            EXPECT_EQ(KnStatusOk, EchoTo(channel, request));
        }
    });
    {
        std::vector<std::unique_ptr<Background<void>>> calling;
        for (int i = 0; i < threads; ++i) {
            calling.push_back(std::make_unique<Background<void>>(
                [&, i] { CallWithEach(*joined.connection, i * calls, (i + 1) * calls); }));
        }
    }
    channel.Close();
    server.Get();
    ledger.ExpectEachOnce();
}

TEST(SharedMemoryChannel, ClientsThatComeAndGo_LoseNothing) {
    constexpr int rounds = 40;
    Channel channel(Channel::DeadClient::ReplyAnswersOk);
    std::vector<std::unique_ptr<Background<void>>> serving;
    std::atomic<int> served{0};
    for (int i = 0; i < 3; ++i) {
        serving.push_back(std::make_unique<Background<void>>([&] {
            Record request;
            while (ReceiveFrom(channel, request) == KnStatusOk) {
                ++served;
                EXPECT_EQ(KnStatusOk, EchoTo(channel, request));
            }
        }));
    }
    {
        std::vector<std::unique_ptr<Background<void>>> visiting;
        for (int i = 0; i < 6; ++i) {
            visiting.push_back(std::make_unique<Background<void>>([&] {
                for (int round = 0; round < rounds; ++round) {
                    const Client joined = JoinOverOneMapping(channel);
                    for (int call = 0; call < 20; ++call) {
                        ASSERT_EQ(KnStatusOk, CallOn(*joined.connection, call));
                    }
                    channel.RemoveClient(joined.id);
                    channel.RemoveClient(joined.id);
                    ASSERT_EQ(KnStatusClosed, CallOn(*joined.connection, 1));
                }
            }));
        }
    }
    EXPECT_EQ(0u, channel.ClientCount());
    channel.Close();
    serving.clear();
    EXPECT_EQ(6 * rounds * 20, served);
}

TEST(SharedMemoryChannel, RemovingAClientUnderACall_EndsTheCall_AndTheReplyGoesNowhere) {
    Channel channel(Channel::DeadClient::ReplyReportsIt);
    const Client joined = JoinOverOneMapping(channel);
    Background call([&] { return CallOn(*joined.connection, 1); });
    Record request;
    ASSERT_EQ(KnStatusOk, ReceiveFrom(channel, request));
    channel.RemoveClient(joined.id);
    EXPECT_EQ(KnStatusClosed, call.Get());
    EXPECT_EQ(KnStatusPeerGone, EchoTo(channel, request));
    EXPECT_EQ(KnStatusInvalidArgument, EchoTo(channel, request));
}

TEST(SharedMemoryChannel, ClosingWhileAllCall_EndsEverybody) {
    for (int round = 0; round < 30; ++round) {
        Channel channel(Channel::DeadClient::ReplyAnswersOk);
        std::vector<Client> joined;
        std::atomic<int> calls{0};
        std::vector<std::unique_ptr<Background<void>>> running;
        for (int i = 0; i < 4; ++i) {
            joined.push_back(JoinOverOneMapping(channel));
        }
        for (int i = 0; i < 4; ++i) {
            running.push_back(std::make_unique<Background<void>>([&, i] {
                std::int32_t status = KnStatusOk;
                while ((status = CallOn(*joined[static_cast<std::size_t>(i)].connection, 1)) == KnStatusOk) {
                    ++calls;
                }
                EXPECT_EQ(KnStatusClosed, status);
            }));
            running.push_back(std::make_unique<Background<void>>([&] {
                Record request;
                std::int32_t status = KnStatusOk;
                while ((status = ReceiveFrom(channel, request)) == KnStatusOk) {
                    const auto replied = EchoTo(channel, request);
                    EXPECT_TRUE(replied == KnStatusOk || replied == KnStatusClosed) << replied;
                }
                EXPECT_EQ(KnStatusClosed, status);
            }));
        }
        Await("some calls", [&] { return calls > 50; });
        channel.Close();
        channel.Close();
        Record request;
        EXPECT_EQ(KnStatusClosed, ReceiveFrom(channel, request));
        EXPECT_EQ(KnStatusClosed, EchoTo(channel, request));
    }
}

TEST(SharedMemoryChannel, AThreadThatEndsOrReceivesAgain_AbandonsItsRequest) {
    Channel channel(Channel::DeadClient::ReplyAnswersOk);
    const Client first = JoinOverOneMapping(channel);
    const Client second = JoinOverOneMapping(channel);
    Background firstCall([&] { return CallOn(*first.connection, 1); });
    Record request;
    std::thread([&] { EXPECT_EQ(KnStatusOk, ReceiveFrom(channel, request)); }).join();
    EXPECT_EQ(KnStatusAbandoned, firstCall.Get());

    Background secondCall([&] { return CallOn(*second.connection, 1); });
    ASSERT_EQ(KnStatusOk, ReceiveFrom(channel, request));
    Background later([&] {
        Background closing([&] {
            EXPECT_EQ(KnStatusAbandoned, secondCall.Get());
            channel.Close();
        });
    });
    EXPECT_EQ(KnStatusClosed, ReceiveFrom(channel, request));
}

TEST(SharedMemoryChannel, AChannelThatIsGone_LeavesARequestOfItsToTheThread) {
    Client joined;
    std::optional<Background<std::int32_t>> call;
    std::thread([&] {
        Channel channel(Channel::DeadClient::ReplyAnswersOk);
        joined = JoinOverOneMapping(channel);
        call.emplace([&] { return CallOn(*joined.connection, 1); });
        Record request;
        EXPECT_EQ(KnStatusOk, ReceiveFrom(channel, request));
    }).join(); // the channel ends before the thread that owes the reply
    EXPECT_EQ(KnStatusClosed, call->Get());
}

TEST(SharedMemoryChannel, ARefusedRequest_ReachesNoReceiver) {
    Channel channel(Channel::DeadClient::ReplyAnswersOk);
    const Client joined = JoinOverOneMapping(channel, {.onlyInterface = 3, .methodCount = 2});
    std::atomic<int> served{0};
    Background server([&] {
        Record request;
        while (ReceiveFrom(channel, request) == KnStatusOk) {
            ++served;
            EXPECT_EQ(KnStatusOk, EchoTo(channel, request));
        }
    });
    Record response;
    const auto call = [&](const Record& request) { return joined.connection->Call(&request.header, &response.header); };
    EXPECT_EQ(KnStatusDenied, call(RequestOf(1, 2, 0)));
    EXPECT_EQ(KnStatusUnimplemented, call(RequestOf(1, 3, 2)));
    EXPECT_EQ(KnStatusOk, call(RequestOf(1, 3, 1)));
    channel.Close();
    server.Get();
    EXPECT_EQ(1, served);
}

TEST(SharedMemoryRegion, ThatIsNotSealed_IsRefused) {
    SharedMemoryRegion region;
    UniqueFd good;
    ASSERT_EQ(KnStatusOk, SharedMemoryRegion::Create(LayoutVersion, region, good));
    SharedMemoryRegion opened;
    EXPECT_EQ(KnStatusOk, SharedMemoryRegion::Open(good, opened));

    const UniqueFd unsealed(::memfd_create("unsealed", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    ASSERT_EQ(0, ::ftruncate(unsealed.Get(), 4096));
    EXPECT_EQ(KnStatusDenied, SharedMemoryRegion::Open(unsealed, opened));
    constexpr int seals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
    ASSERT_EQ(0, ::fcntl(unsealed.Get(), F_ADD_SEALS, seals));
    EXPECT_EQ(KnStatusDenied, SharedMemoryRegion::Open(unsealed, opened)) << "no header";

    const UniqueFd larger(::memfd_create("larger", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    ASSERT_EQ(0, ::ftruncate(larger.Get(), 8192));
    ASSERT_EQ(0, ::fcntl(larger.Get(), F_ADD_SEALS, seals));
    EXPECT_EQ(KnStatusDenied, SharedMemoryRegion::Open(larger, opened));
    EXPECT_EQ(KnStatusDenied, SharedMemoryRegion::Open(MakeBell(), opened));
}

TEST(SharedMemoryEnds, WhoseBellsAreNoEventDescriptors_AreRefused) {
    SharedMemoryEnds ends;
    UniqueFd file;
    ASSERT_EQ(KnStatusOk, SharedMemoryRegion::Create(LayoutVersion, ends.region, file));
    const auto received = [&](UniqueFd bell, UniqueFd doorbell) {
        std::array<int, 2> pair{};
        EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()));
        const UniqueFd server(pair[0]);
        const UniqueFd client(pair[1]);
        ends.bell = std::move(bell);
        ends.doorbell = std::move(doorbell);
        EXPECT_EQ(KnStatusOk, borven_host::SendEnds(server.Get(), file, ends));
        SharedMemoryEnds arrived;
        return borven_host::ReceiveEnds(client.Get(), arrived);
    };
    const auto pipe = [] { // to ring it raises SIGPIPE
        std::array<int, 2> pair{};
        EXPECT_EQ(0, ::pipe2(pair.data(), O_CLOEXEC));
        ::close(pair[0]);
        return UniqueFd(pair[1]);
    };
    EXPECT_EQ(KnStatusOk, received(MakeBell(), MakeBell()));
    EXPECT_EQ(KnStatusDenied, received(pipe(), MakeBell()));
    EXPECT_EQ(KnStatusDenied, received(MakeBell(), pipe()));
}

TEST(SharedMemorySlot, ARecord_ArrivesAsItWasSent_WhateverLayThereBefore) {
    SharedMemoryRegion region;
    UniqueFd file;
    ASSERT_EQ(KnStatusOk, SharedMemoryRegion::Create(LayoutVersion, region, file));
    SlotHalf& half = region.Slot().reply;
    constexpr unsigned seed = 17;
    std::mt19937 random(seed);
    for (std::size_t used = 0; used <= NkRecordSize; ++used) {
        std::array<std::byte, NkRecordSize> sent{};
        for (std::byte& byte : sent) {
            byte = random() % 50 == 0 ? static_cast<std::byte>(random()) : std::byte{0};
        }
        std::array<std::byte, NkRecordSize> received{};
        received.fill(std::byte{0xEE});
        half.Get(received.data(), half.Put(sent.data(), used));
        std::fill(sent.begin() + static_cast<std::ptrdiff_t>(used), sent.end(), std::byte{0});
        ASSERT_EQ(sent, received) << used;
    }
}

TEST(SharedMemorySlot, AShortRecord_TravelsInOneCacheLine) {
    SharedMemoryRegion region;
    UniqueFd file;
    ASSERT_EQ(KnStatusOk, SharedMemoryRegion::Create(LayoutVersion, region, file));
    Record record = RequestOf(1);
    EXPECT_EQ(1u, region.Slot().request.Put(&record, NkRecordSize));
    record.body.back() = std::byte{1};
    EXPECT_EQ(1u | 1u << 16, region.Slot().request.Put(&record, NkRecordSize));
}

TEST(SharedMemorySlot, AWord_KeepsItsParts) {
    const SlotWord record(0xFFFFFFFF, 0x1FFFF);
    EXPECT_EQ(0xFFFFFFFFu, record.Sequence());
    EXPECT_EQ(0x1FFFFu, record.Pieces());
    EXPECT_EQ(KnStatusOk, record.Status());
    for (const KnStatus status : {KnStatusBadRecord, KnStatusAbandoned, KnStatusNoReply}) {
        EXPECT_EQ(status, SlotWord::WithStatus(7, status).Status());
        EXPECT_EQ(7u, SlotWord::WithStatus(7, status).Sequence());
        EXPECT_EQ(0u, SlotWord::WithStatus(7, status).Pieces());
    }
}

} // namespace
} // namespace platform_test
