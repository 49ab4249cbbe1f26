// Defends nk/transport.h: every call gets exactly one answer, from the thread that received it, and no death, bad
// record or forgotten reply of one client or thread blocks another.
#include "support.h"

namespace platform_test {
namespace {

using Transport = PlatformTest;

TEST_F(Transport, Call_GetsTheReplyToItsRequest) {
    const Handle server = RegisterStatic();
    const Handle client = ConnectStatic();
    Background call([&] {
        Record response;
        const auto status = Call(client.Get(), RequestOf(41, 3, 4), response);
        return std::pair(status, response);
    });

    Record request;
    ASSERT_EQ(KnStatusOk, Receive(server.Get(), request));
    EXPECT_EQ(3, request.header.iid);
    EXPECT_EQ(4, request.header.mid);
    EXPECT_EQ(41, request.Value());
    EXPECT_EQ(NkRecordSize, NkGetSize(request.header));
    ASSERT_EQ(KnStatusOk, Echo(server.Get(), request));

    const auto [status, response] = call.Get();
    EXPECT_EQ(KnStatusOk, status);
    EXPECT_EQ(42, response.Value());
}

TEST_F(Transport, Call_CarriesEveryByteOfTheRecord) {
    Handle server = RegisterStatic();
    const Handle client = ConnectStatic();
    Background serving([&] {
        Record request;
        EXPECT_EQ(KnStatusOk, Receive(server.Get(), request));
        EXPECT_EQ(KnStatusOk, Reply(server.Get(), request));
    });
    Record request = RequestOf(0);
    for (std::size_t i = 0; i < request.body.size(); ++i) {
        request.body[i] = static_cast<std::byte>(i * 7);
    }
    for (std::size_t i = 0; i < sizeof request.header.reserved; ++i) {
        request.header.reserved[i] = static_cast<std::uint8_t>(i + 1);
    }
    Record response;
    ASSERT_EQ(KnStatusOk, Call(client.Get(), request, response));
    EXPECT_EQ(0, std::memcmp(&request, &response, sizeof request));
}

TEST_F(Transport, CallsOnOneConnection_TakeTurns) {
    const Handle server = RegisterStatic();
    const Handle client = ConnectStatic();
    const Echoers echoers(server.Get(), 3);
    std::vector<std::unique_ptr<Background<int>>> callers;
    for (int caller = 0; caller < 4; ++caller) {
        callers.push_back(std::make_unique<Background<int>>([&client, caller] {
            int wrong = 0;
            for (int i = 0; i < 100; ++i) {
                const std::int64_t value = caller * 1000 + i;
                std::int64_t returned = 0;
                wrong += CallWith(client.Get(), value, &returned) != KnStatusOk || returned != value + 1;
            }
            return wrong;
        }));
    }
    for (const auto& caller : callers) {
        EXPECT_EQ(0, caller->Get());
    }
    EXPECT_EQ(400, echoers.Served());
}

TEST_F(Transport, EachRequest_GoesToExactlyOneOfManyReceivers) {
    constexpr int clients = 8;
    constexpr int callsEach = 100;
    Handle server = RegisterStatic();
    std::vector<std::atomic<int>> seen(clients * callsEach);
    std::vector<std::unique_ptr<Background<std::int32_t>>> receivers;
    NkBosTransport shared = TransportOf(server.Get());
    for (int i = 0; i < 4; ++i) {
        // Half of them share one transport object.
        receivers.push_back(std::make_unique<Background<std::int32_t>>([&, isSharing = i % 2 == 0] {
            NkBosTransport own = TransportOf(server.Get());
            NkBosTransport* transport = isSharing ? &shared : &own;
            while (true) {
                Record request;
                NkSetSize(request.header, NkRecordSize);
                if (const auto status = NkBosTransport_Receive(transport, &request.header, nullptr); status != 0) {
                    return status;
                }
                ++seen[static_cast<std::size_t>(request.Value())];
                if (const auto status = NkBosTransport_Reply(transport, &request.header, nullptr); status != 0) {
                    return status;
                }
            }
        }));
    }
    std::vector<std::unique_ptr<Background<int>>> callers;
    for (int i = 0; i < clients; ++i) {
        callers.push_back(std::make_unique<Background<int>>([i] {
            const Handle client = ConnectStatic();
            int wrong = 0;
            for (int call = 0; call < callsEach; ++call) {
                const std::int64_t value = i * callsEach + call;
                std::int64_t returned = -1;
                wrong += CallWith(client.Get(), value, &returned) != KnStatusOk || returned != value;
            }
            return wrong;
        }));
    }
    for (const auto& caller : callers) {
        EXPECT_EQ(0, caller->Get());
    }
    server.Close();
    for (const auto& receiver : receivers) {
        EXPECT_EQ(KnStatusClosed, receiver->Get());
    }
    for (const auto& count : seen) {
        EXPECT_EQ(1, count);
    }
}

TEST_F(Transport, AReply_BelongsToTheThreadThatReceived) {
    const Handle server = RegisterStatic();
    const Handle one = ConnectStatic();
    const Handle two = ConnectStatic();
    std::promise<void> mayReply;
    const std::shared_future<void> released = mayReply.get_future().share();
    std::atomic<int> received{0};
    const auto serveOnce = [&] {
        Record request;
        EXPECT_EQ(KnStatusOk, Receive(server.Get(), request));
        ++received;
        released.wait();
        EXPECT_EQ(KnStatusOk, Echo(server.Get(), request));
    };
    Background first(serveOnce);
    Background second(serveOnce);
    const auto callWith = [](KnHandle client, std::int64_t value) {
        std::int64_t returned = 0;
        EXPECT_EQ(KnStatusOk, CallWith(client, value, &returned));
        return returned;
    };
    Background callOne([&] { return callWith(one.Get(), 10); });
    Background callTwo([&] { return callWith(two.Get(), 20); });
    Await("both requests under way", [&] { return received == 2; });
    mayReply.set_value();
    EXPECT_EQ(11, callOne.Get());
    EXPECT_EQ(21, callTwo.Get());
}

TEST_F(Transport, Reply_OfAThreadThatOwesNone_IsRefused) {
    const Handle server = RegisterStatic();
    const Handle client = ConnectStatic();
    Background call([&] { return CallWith(client.Get(), 1); });
    Record request;
    ASSERT_EQ(KnStatusOk, Receive(server.Get(), request));

    Background other([&] { return Reply(server.Get(), request); });
    EXPECT_EQ(KnStatusInvalidArgument, other.Get());

    EXPECT_EQ(KnStatusOk, Reply(server.Get(), request));
    EXPECT_EQ(KnStatusInvalidArgument, Reply(server.Get(), request)) << "a request gets one reply";
    EXPECT_EQ(KnStatusOk, call.Get());
}

TEST_F(Transport, AThreadMayOweRepliesOnSeveralChannels) {
    const Handle first = RegisterStatic("first");
    const Handle second = RegisterStatic("second");
    const Handle one = ConnectStatic("first");
    const Handle two = ConnectStatic("second");
    std::int64_t returnedOne = 0;
    std::int64_t returnedTwo = 0;
    Background callOne([&] { return CallWith(one.Get(), 1, &returnedOne); });
    Background callTwo([&] { return CallWith(two.Get(), 2, &returnedTwo); });
    Record requestOne;
    Record requestTwo;
    ASSERT_EQ(KnStatusOk, Receive(first.Get(), requestOne));
    ASSERT_EQ(KnStatusOk, Receive(second.Get(), requestTwo));
    EXPECT_EQ(KnStatusOk, Echo(first.Get(), requestOne));
    EXPECT_EQ(KnStatusOk, Echo(second.Get(), requestTwo));
    EXPECT_EQ(KnStatusOk, callOne.Get());
    EXPECT_EQ(KnStatusOk, callTwo.Get());
    EXPECT_EQ(2, returnedOne);
    EXPECT_EQ(3, returnedTwo);
}

TEST_F(Transport, AThreadThatReceivesAgain_AbandonsItsRequest) {
    const Handle server = RegisterStatic();
    const Handle client = ConnectStatic();
    const Handle other = ConnectStatic();
    Background call([&] { return CallWith(client.Get(), 1); });
    Record request;
    ASSERT_EQ(KnStatusOk, Receive(server.Get(), request));

    Background otherCall([&] { return CallWith(other.Get(), 2); });
    ASSERT_EQ(KnStatusOk, Receive(server.Get(), request));
    EXPECT_EQ(2, request.Value());
    EXPECT_EQ(KnStatusAbandoned, call.Get());
    EXPECT_EQ(KnStatusOk, Reply(server.Get(), request));
    EXPECT_EQ(KnStatusOk, otherCall.Get());
}

TEST_F(Transport, AThreadThatEnds_AbandonsItsRequest) {
    Handle server = RegisterStatic();
    const Handle client = ConnectStatic();
    Background call([&] { return CallWith(client.Get(), 1); });
    Background([&] {
        Record request;
        EXPECT_EQ(KnStatusOk, Receive(server.Get(), request));
    }).Get();
    EXPECT_EQ(KnStatusAbandoned, call.Get());

    const Echoers echoers(server.Get());
    EXPECT_EQ(KnStatusOk, CallWith(client.Get(), 2)) << "the connection goes on";
}

TEST_F(Transport, AClientThatGoesAwayWhileServed_LeavesPeerGoneToItsReply) {
    const Handle server = RegisterStatic();
    Handle client = ConnectStatic();
    Background call([&, handle = client.Get()] { return CallWith(handle, 1); });
    Record request;
    ASSERT_EQ(KnStatusOk, Receive(server.Get(), request));
    client.Close();
    EXPECT_EQ(KnStatusClosed, call.Get());
    EXPECT_EQ(KnStatusPeerGone, Reply(server.Get(), request));

    const Handle next = ConnectStatic();
    Background nextCall([&] { return CallWith(next.Get(), 5); });
    ASSERT_EQ(KnStatusOk, Receive(server.Get(), request)) << "other clients are served";
    EXPECT_EQ(5, request.Value());
    EXPECT_EQ(KnStatusOk, Reply(server.Get(), request));
    EXPECT_EQ(KnStatusOk, nextCall.Get());
}

TEST_F(Transport, ClosingTheServerEnd_EndsBlockedAndLaterReceives) {
    for (int round = 0; round < 20; ++round) {
        Handle server = RegisterStatic();
        const KnHandle channel = server.Get();
        Record one;
        Record two;
        Background first([&] { return Receive(channel, one); });
        Background second([&] { return Receive(channel, two); });
        if (round % 2 == 0) {
            first.AwaitBlocked();
            second.AwaitBlocked();
        }
        ASSERT_EQ(KnStatusOk, server.Close());
        EXPECT_EQ(KnStatusClosed, first.Get());
        EXPECT_EQ(KnStatusClosed, second.Get());
        EXPECT_EQ(KnStatusClosed, Receive(channel, one));
    }
}

TEST_F(Transport, ClosingTheServerEnd_EndsBlockedAndLaterCalls) {
    for (int round = 0; round < 20; ++round) {
        Handle server = RegisterStatic();
        const Handle client = ConnectStatic();
        Background call([&] { return CallWith(client.Get(), 1); });
        if (round % 2 == 0) {
            call.AwaitBlocked();
        }
        ASSERT_EQ(KnStatusOk, server.Close());
        EXPECT_EQ(KnStatusClosed, call.Get());
        EXPECT_EQ(KnStatusClosed, CallWith(client.Get(), 1));
    }
}

TEST_F(Transport, ClosingTheServerEnd_EndsARequestUnderWay) {
    Handle server = RegisterStatic();
    const KnHandle channel = server.Get();
    const Handle client = ConnectStatic();
    Background call([&] { return CallWith(client.Get(), 1); });
    Record request;
    ASSERT_EQ(KnStatusOk, Receive(channel, request));
    ASSERT_EQ(KnStatusOk, server.Close());
    EXPECT_EQ(KnStatusClosed, call.Get());
    EXPECT_EQ(KnStatusClosed, Reply(channel, request));
}

TEST_F(Transport, ARequestWithAWrongSizeWord_IsAnsweredAndNeverReceived) {
    const Handle server = RegisterStatic();
    const Handle client = ConnectStatic();
    const Echoers echoers(server.Get());
    for (const std::uint32_t size : {0u, 24u, 1055u, 1057u, 0x7FFFFFu, 0x80000000u | 1056u, 0x80000020u}) {
        Record request = RequestOf(1);
        request.header.size = size;
        Record response;
        EXPECT_EQ(KnStatusBadRecord, Call(client.Get(), request, response)) << size;
    }
    EXPECT_EQ(0, echoers.Served());
    EXPECT_EQ(KnStatusOk, CallWith(client.Get(), 1)) << "the connection goes on";
    EXPECT_EQ(1, echoers.Served());
}

TEST_F(Transport, TheUpperBitsOfARequestsSizeWord_Pass) {
    const Handle server = RegisterStatic();
    const Handle client = ConnectStatic();
    const Echoers echoers(server.Get());
    Record request = RequestOf(1);
    request.header.size |= 0x7F800000;
    Record response;
    EXPECT_EQ(KnStatusOk, Call(client.Get(), request, response));
    EXPECT_EQ(request.header.size, response.header.size);
}

/// What a client finds after a call that is answered with `reply`, in a buffer that was all ones before.
Record ArrivalOf(const Record& reply) {
    Handle server = RegisterStatic();
    const Handle client = ConnectStatic();
    Background serving([&] {
        Record request;
        EXPECT_EQ(KnStatusOk, Receive(server.Get(), request));
        EXPECT_EQ(KnStatusOk, Reply(server.Get(), reply));
    });
    Record response;
    std::memset(static_cast<void*>(&response), 0xFF, sizeof response);
    EXPECT_EQ(KnStatusOk, Call(client.Get(), RequestOf(1), response));
    return response;
}

TEST_F(Transport, WhatLiesBehindTheSizeOfAReply_ArrivesAsZeros) {
    Record reply;
    std::memset(static_cast<void*>(&reply), 0xAB, sizeof reply);
    reply.header.size = 32;
    const Record response = ArrivalOf(reply);
    EXPECT_EQ(0, std::memcmp(&response, &reply, 32));
    for (std::size_t i = 8; i < response.body.size(); ++i) {
        ASSERT_EQ(std::byte{0}, response.body[i]) << i;
    }
}

TEST_F(Transport, AnErrorReply_KeepsItsFlag) {
    Record reply;
    reply.header.size = 0x80000020;
    reply.SetValue(4);
    const Record response = ArrivalOf(reply);
    EXPECT_EQ(0x80000020u, response.header.size);
    EXPECT_EQ(4, response.Value());
}

TEST_F(Transport, AnUntouchedReply_Arrives) {
    Record reply;
    reply.header.iid = 2;
    reply.header.mid = 9;
    const Record response = ArrivalOf(reply);
    EXPECT_EQ(0, std::memcmp(&response, &reply, sizeof reply));
}

TEST_F(Transport, AReplyThatClaimsMoreThanARecord_ArrivesWhole) {
    Record reply;
    std::memset(static_cast<void*>(&reply), 0xAB, sizeof reply);
    reply.header.size = 0x7FFFFF;
    const Record response = ArrivalOf(reply);
    EXPECT_EQ(0, std::memcmp(&response, &reply, sizeof reply));
}

TEST_F(Transport, AZeroedTransport_ServesNothing) {
    NkBosTransport transport{};
    Record record = RequestOf(1);
    EXPECT_EQ(KnStatusInvalidArgument, NkBosTransport_Receive(&transport, &record.header, nullptr));
    EXPECT_EQ(KnStatusInvalidArgument, NkBosTransport_Reply(&transport, &record.header, nullptr));
    EXPECT_EQ(KnStatusInvalidArgument,
              NkBosTransport_Call(&transport, &record.header, nullptr, &record.header, nullptr));
}

TEST_F(Transport, NullPointers_AreRefused) {
    const Handle server = RegisterStatic();
    const Handle client = ConnectStatic();
    NkBosTransport atServer = TransportOf(server.Get());
    NkBosTransport atClient = TransportOf(client.Get());
    Record record = RequestOf(1);
    EXPECT_EQ(KnStatusInvalidArgument, NkBosTransport_Init(nullptr, server.Get(), nullptr, 0));
    EXPECT_EQ(KnStatusInvalidArgument, NkBosTransport_Receive(nullptr, &record.header, nullptr));
    EXPECT_EQ(KnStatusInvalidArgument, NkBosTransport_Receive(&atServer, nullptr, nullptr));
    EXPECT_EQ(KnStatusInvalidArgument, NkBosTransport_Reply(nullptr, &record.header, nullptr));
    EXPECT_EQ(KnStatusInvalidArgument, NkBosTransport_Reply(&atServer, nullptr, nullptr));
    EXPECT_EQ(KnStatusInvalidArgument, NkBosTransport_Call(nullptr, &record.header, nullptr, &record.header, nullptr));
    EXPECT_EQ(KnStatusInvalidArgument, NkBosTransport_Call(&atClient, nullptr, nullptr, &record.header, nullptr));
    EXPECT_EQ(KnStatusInvalidArgument, NkBosTransport_Call(&atClient, &record.header, nullptr, nullptr, nullptr));
}

TEST_F(Transport, TheWrongEnd_AndWhatIsNoHandle_AreRefused) {
    const Handle server = RegisterStatic();
    const Handle client = ConnectStatic();
    Record record = RequestOf(1);
    EXPECT_EQ(KnStatusInvalidArgument, Receive(client.Get(), record));
    EXPECT_EQ(KnStatusInvalidArgument, Reply(client.Get(), record));
    EXPECT_EQ(KnStatusInvalidArgument, Call(server.Get(), record, record));
    for (const KnHandle handle : {KnInvalidHandle, KnHandle{0}, KnHandle{4000000000}}) {
        EXPECT_EQ(KnStatusInvalidArgument, Receive(handle, record)) << handle;
        EXPECT_EQ(KnStatusInvalidArgument, Reply(handle, record)) << handle;
        EXPECT_EQ(KnStatusInvalidArgument, Call(handle, record, record)) << handle;
    }
}

TEST_F(Transport, Receive_WithAnotherRoomThanARecord_IsRefused) {
    const Handle server = RegisterStatic();
    NkBosTransport transport = TransportOf(server.Get());
    Record record;
    for (const std::uint32_t room : {0u, 24u, 1055u, 1057u}) {
        NkSetSize(record.header, room);
        EXPECT_EQ(KnStatusInvalidArgument, NkBosTransport_Receive(&transport, &record.header, nullptr)) << room;
    }
}

TEST_F(Transport, EmptyArenas_PassAndStayEmpty_AndDataInThemIsRefused) {
    Handle server = RegisterStatic();
    const Handle client = ConnectStatic();
    std::array<std::byte, 16> memory{};
    const nk_arena empty{memory.data(), memory.data(), memory.data()};
    nk_arena full{memory.data(), memory.data() + 8, memory.data() + 16};
    NkBosTransport atServer = TransportOf(server.Get());
    NkBosTransport atClient = TransportOf(client.Get());
    Background serving([&] {
        Record request;
        NkSetSize(request.header, NkRecordSize);
        nk_arena arena = empty;
        EXPECT_EQ(KnStatusOk, NkBosTransport_Receive(&atServer, &request.header, &arena));
        EXPECT_EQ(arena.start, arena.current);
        EXPECT_EQ(KnStatusInvalidArgument, NkBosTransport_Reply(&atServer, &request.header, &full));
        EXPECT_EQ(KnStatusOk, NkBosTransport_Reply(&atServer, &request.header, &arena));
    });
    const Record request = RequestOf(1);
    Record response;
    nk_arena arena = empty;
    EXPECT_EQ(KnStatusInvalidArgument,
              NkBosTransport_Call(&atClient, &request.header, &full, &response.header, &arena));
    EXPECT_EQ(KnStatusOk, NkBosTransport_Call(&atClient, &request.header, &arena, &response.header, &arena));
    EXPECT_EQ(arena.start, arena.current);
}

TEST_F(Transport, ManyClientsThatComeAndGo_LoseNothing) {
    Handle server = RegisterStatic();
    const Echoers echoers(server.Get(), 3);
    std::vector<std::unique_ptr<Background<int>>> clients;
    for (int i = 0; i < 6; ++i) {
        clients.push_back(std::make_unique<Background<int>>([i] {
            int wrong = 0;
            for (int visit = 0; visit < 15; ++visit) {
                const Handle client = ConnectStatic();
                for (int call = 0; call < 5; ++call) {
                    std::int64_t returned = 0;
                    const std::int64_t value = i * 1000 + visit * 10 + call;
                    wrong += CallWith(client.Get(), value, &returned) != KnStatusOk || returned != value + 1;
                }
            }
            return wrong;
        }));
    }
    for (const auto& client : clients) {
        EXPECT_EQ(0, client->Get());
    }
    EXPECT_EQ(6 * 15 * 5, echoers.Served());
}

} // namespace
} // namespace platform_test
