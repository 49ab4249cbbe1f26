// Defends kn/caller.h, and the limits of connections in kn/policy.h, as far as one process can: who calls, what the
// observer sees, and when a caller is gone.
#include "kn/caller.h"

#include "deferring.h"
#include "kn/policy.h"

#include <mutex>

namespace platform_test {
namespace {

constexpr std::uint16_t Observed = 0; ///< the interface

/// Notes what it learns, and does to requests what the test says.
class NotingObserver final : public KnIRequestObserver {
public:
    NotingObserver() { EXPECT_EQ(KnStatusOk, KnObserveRequests(this, Observed)); }
    ~NotingObserver() override { KnObserveRequests(nullptr, 0); }

    bool OnRequest(const KnCaller& caller, nk_message& request, nk_message& reply) noexcept override {
        auto& record = reinterpret_cast<Record&>(request);
        Note("request " + std::to_string(record.Value()), caller);
        if (changeTo != 0) {
            record.SetValue(changeTo);
        }
        if (answerWith != 0) {
            reinterpret_cast<Record&>(reply) = RequestOf(answerWith);
        }
        return answerWith == 0;
    }
    void OnReply(const KnCaller& caller, const nk_message& request, const nk_message& reply) noexcept override {
        KnCaller current;
        statusInReply = KnCallerOfRequest(&current);
        Note("reply " + std::to_string(reinterpret_cast<const Record&>(request).Value()) + " " +
                 std::to_string(reinterpret_cast<const Record&>(reply).Value()),
             caller);
    }
    void OnCallerGone(const KnCaller& caller) noexcept override { Note("gone", caller); }

    std::vector<std::string> Notes() const {
        const std::lock_guard lock(mutex);
        return notes;
    }
    std::vector<std::uint64_t> Ids() const {
        const std::lock_guard lock(mutex);
        return ids;
    }
    void AwaitNote(const std::string& wanted) const {
        Await(wanted.c_str(), [&] {
            const auto now = Notes();
            return std::find(now.begin(), now.end(), wanted) != now.end();
        });
    }

    std::atomic<std::int64_t> changeTo{0};
    std::atomic<std::int64_t> answerWith{0};
    std::atomic<std::int32_t> statusInReply{KnStatusNotFound};

private:
    void Note(std::string what, const KnCaller& caller) {
        const std::lock_guard lock(mutex);
        notes.push_back(std::move(what));
        ids.push_back(caller.id);
    }

    mutable std::mutex mutex;
    std::vector<std::string> notes;
    std::vector<std::uint64_t> ids;
};

class CallerTest : public PlatformTest, public testing::WithParamInterface<ChannelKind> {
protected:
    void SetUp() override {
        PlatformTest::SetUp();
        observer.emplace();
        line = GetParam() == ChannelKind::Static ? std::unique_ptr<Line>(std::make_unique<StaticLine>())
                                                 : std::make_unique<DynamicLine>();
    }
    void TearDown() override {
        line.reset();
        KnHandleCloseServerEnds();
        observer.reset();
        PlatformTest::TearDown();
    }

    KnHandle Channel() const { return line->Channel(); }
    Handle Connect() const { return line->Connect(); }

    /// Receives a request of `client` and returns who made it.
    KnCaller CallerOf(const Handle& client) const {
        Calling call(client);
        Record request;
        KnCaller caller;
        EXPECT_EQ(KnStatusOk, Receive(Channel(), request));
        EXPECT_EQ(KnStatusOk, KnCallerOfRequest(&caller));
        EXPECT_EQ(caller.id, KnCallerId());
        EXPECT_EQ(KnStatusOk, Echo(Channel(), request));
        EXPECT_EQ(OkWith(2), call.Get());
        return caller;
    }

    std::optional<NotingObserver> observer;
    std::unique_ptr<Line> line;
};

INSTANTIATE_TEST_SUITE_P(, CallerTest, testing::Values(ChannelKind::Static, ChannelKind::Dynamic), NameOf);

TEST_P(CallerTest, IsTheProcess) {
    const Handle client = Connect();
    const KnCaller caller = CallerOf(client);
    EXPECT_NE(0U, caller.id);
    EXPECT_EQ(::getpid(), caller.pid);
    EXPECT_EQ(::getuid(), caller.uid);
    EXPECT_NE(0U, caller.startTime);
    EXPECT_STRNE("", caller.program);
}

TEST_P(CallerTest, IsOneForAllConnectionsOfAProcess) {
    const Handle client = Connect();
    const Handle other = Connect();
    EXPECT_EQ(CallerOf(client).id, CallerOf(other).id);
}

TEST_P(CallerTest, WithoutARequest_ThereIsNone) {
    KnCaller caller;
    EXPECT_EQ(KnStatusInvalidArgument, KnCallerOfRequest(&caller));
    EXPECT_EQ(0U, KnCallerId());
    const Handle client = Connect();
    CallerOf(client);
    EXPECT_EQ(KnStatusInvalidArgument, KnCallerOfRequest(&caller)) << "it is answered";
    EXPECT_EQ(0U, KnCallerId());
    EXPECT_EQ(KnStatusInvalidArgument, KnCallerOfRequest(nullptr));
}

TEST_P(CallerTest, ADeferredRequest_IsNotServedByTheThreadAnyMore) {
    const Handle client = Connect();
    Calling call(client);
    Record request;
    NkDeferredReply deferred;
    ASSERT_EQ(KnStatusOk, Receive(Channel(), request));
    EXPECT_NE(0U, KnCallerId());
    ASSERT_EQ(KnStatusOk, NkDeferReply(&deferred));
    EXPECT_EQ(0U, KnCallerId());
    EXPECT_EQ(KnStatusOk, Reply(Channel(), request));
    EXPECT_EQ(KnStatusOk, Answer(deferred, 42));
    EXPECT_EQ(OkWith(42), call.Get());
}

TEST_P(CallerTest, TheObserver_SeesRequestAndReply_BeforeTheClientDoes) {
    const Handle client = Connect();
    CallerOf(client);
    EXPECT_THAT(observer->Notes(), testing::ElementsAre("request 1", "reply 1 2"));
    EXPECT_EQ(KnStatusOk, observer->statusInReply) << "the request is still in service";
}

TEST_P(CallerTest, TheObserver_ChangesARequest) {
    const Handle client = Connect();
    observer->changeTo = 10;
    Calling call(client);
    Record request;
    ASSERT_EQ(KnStatusOk, Receive(Channel(), request));
    EXPECT_EQ(10, request.Value());
    EXPECT_EQ(KnStatusOk, Echo(Channel(), request));
    EXPECT_EQ(OkWith(11), call.Get());
    EXPECT_THAT(observer->Notes(), testing::ElementsAre("request 1", "reply 10 11"));
}

TEST_P(CallerTest, TheObserver_AnswersARequest_WhichNoThreadReceives) {
    const Handle client = Connect();
    const Echoers echoers(Channel());
    observer->answerWith = 77;
    EXPECT_EQ(OkWith(77), CallFor(client.Get(), 1));
    EXPECT_EQ(OkWith(77), CallFor(client.Get(), 2));
    EXPECT_EQ(0, echoers.Served());
    observer->answerWith = 0;
    EXPECT_EQ(OkWith(4), CallFor(client.Get(), 3));
    EXPECT_THAT(observer->Notes(), testing::ElementsAre("request 1", "request 2", "request 3", "reply 3 4"));
}

TEST_P(CallerTest, ClosingTheServerEnd_ClosesTheConnections) {
    const Handle client = Connect();
    KnHandleCloseServerEnds();
    observer->AwaitNote("gone");
}

using ObserverTest = PlatformTest;

TEST_F(ObserverTest, WhenTheLastConnectionHasClosed_TheObserverLearnsIt_AndTheNextIsANewCaller) {
    const NotingObserver observer;
    const Handle server = RegisterStatic();
    const auto callerOf = [&](const Handle& client) {
        Calling call(client);
        Record request;
        EXPECT_EQ(KnStatusOk, Receive(server.Get(), request));
        const std::uint64_t id = KnCallerId();
        EXPECT_EQ(KnStatusOk, Echo(server.Get(), request));
        EXPECT_EQ(KnStatusOk, call.Status());
        return id;
    };
    Handle one = ConnectStatic();
    Handle two = ConnectStatic();
    const std::uint64_t id = callerOf(two);
    two.Close();
    EXPECT_EQ(id, callerOf(one));
    one.Close();
    observer.AwaitNote("gone");
    EXPECT_THAT(observer.Notes(), testing::ElementsAre("request 1", "reply 1 2", "request 1", "reply 1 2", "gone"));
    EXPECT_THAT(observer.Ids(), testing::Each(id));
    const Handle again = ConnectStatic();
    EXPECT_NE(id, callerOf(again));
}

TEST_F(ObserverTest, ARequestOfACallerThatIsGone_SaysSo) {
    const NotingObserver observer;
    const Handle server = RegisterStatic();
    Handle client = ConnectStatic();
    Calling call(client);
    Record request;
    ASSERT_EQ(KnStatusOk, Receive(server.Get(), request));
    KnCaller caller;
    EXPECT_EQ(KnStatusOk, KnCallerOfRequest(&caller));
    client.Close();
    observer.AwaitNote("gone");
    KnCaller gone;
    EXPECT_EQ(KnStatusPeerGone, KnCallerOfRequest(&gone));
    EXPECT_EQ(caller.id, gone.id);
    EXPECT_EQ(caller.id, KnCallerId());
    static_cast<void>(Reply(server.Get(), request));
    EXPECT_EQ(KnStatusClosed, call.Status());
}

TEST_F(ObserverTest, TheObserver_SeesNoRequestToAnotherInterface) {
    const NotingObserver observer;
    const Handle server = RegisterStatic();
    const Handle client = ConnectStatic();
    const Echoers echoers(server.Get());
    Record response;
    EXPECT_EQ(KnStatusOk, Call(client.Get(), RequestOf(1, Observed + 1), response));
    EXPECT_THAT(observer.Notes(), testing::IsEmpty());
}

class ConnectionLimitsTest : public PlatformTest {
protected:
    void TearDown() override {
        KnPolicySetConnectionLimits(2048, 2048);
        PlatformTest::TearDown();
    }
};

TEST_F(ConnectionLimitsTest, AConnectionBeyondThatOfAProcess_IsBusy_UntilOneCloses) {
    ASSERT_EQ(KnStatusOk, KnPolicySetConnectionLimits(2, 100));
    const Handle server = RegisterStatic();
    const Handle first = ConnectStatic();
    Handle second = ConnectStatic();
    KnHandle refused = KnInvalidHandle;
    EXPECT_EQ(KnStatusBusy, ServiceLocatorConnect("line", PatienceMs, &refused));
    second.Close();
    Await("room for another one", [&] { return ServiceLocatorConnect("line", PatienceMs, &refused) == KnStatusOk; });
    KnHandleClose(refused);
}

TEST_F(ConnectionLimitsTest, AConnectionBeyondThatOfTheChannel_IsBusy) {
    ASSERT_EQ(KnStatusOk, KnPolicySetConnectionLimits(10, 1));
    const Handle server = RegisterStatic();
    const Handle first = ConnectStatic();
    KnHandle refused = KnInvalidHandle;
    EXPECT_EQ(KnStatusBusy, ServiceLocatorConnect("line", PatienceMs, &refused));
}

TEST_F(ConnectionLimitsTest, EachRefusedConnection_IsCounted_AndNoOther) {
    const std::uint64_t before = KnPolicyRefusedConnections();
    ASSERT_EQ(KnStatusOk, KnPolicySetConnectionLimits(1, 100));
    const Handle server = RegisterStatic();
    const Handle first = ConnectStatic();
    EXPECT_EQ(before, KnPolicyRefusedConnections());
    KnHandle refused = KnInvalidHandle;
    EXPECT_EQ(KnStatusBusy, ServiceLocatorConnect("line", PatienceMs, &refused));
    EXPECT_EQ(before + 1, KnPolicyRefusedConnections()) << "beyond the limit of a process";
    ASSERT_EQ(KnStatusOk, KnPolicySetConnectionLimits(10, 1));
    EXPECT_EQ(KnStatusBusy, ServiceLocatorConnect("line", PatienceMs, &refused));
    EXPECT_EQ(before + 2, KnPolicyRefusedConnections()) << "beyond the limit of the channel";
    EXPECT_EQ(KnStatusNotFound, ServiceLocatorConnect("another", PatienceMs, &refused));
    EXPECT_EQ(before + 2, KnPolicyRefusedConnections()) << "refused for another reason";
}

TEST_F(ConnectionLimitsTest, ARefusalOnAccept_IsCounted) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    const Joined joined = Join("service");
    ASSERT_EQ(KnStatusOk, KnPolicySetConnectionLimits(1, 100));
    const std::uint64_t before = KnPolicyRefusedConnections();
    Asking asking("service");
    const Request request = Listen();
    ASSERT_EQ(KnStatusOk, request.status);
    KnHandle channel = KnInvalidHandle;
    EXPECT_EQ(KnStatusBusy, KnCmAccept(request.client.c_str(), request.service.c_str(), 0, joined.channel, &channel));
    EXPECT_EQ(KnStatusBusy, asking.status.Get());
    EXPECT_EQ(before + 1, KnPolicyRefusedConnections());
}

TEST_F(ConnectionLimitsTest, LimitsThatCannotBe_AreRefused) {
    EXPECT_EQ(KnStatusInvalidArgument, KnPolicySetConnectionLimits(0, 1));
    EXPECT_EQ(KnStatusInvalidArgument, KnPolicySetConnectionLimits(1, 0));
    EXPECT_EQ(KnStatusInvalidArgument, KnPolicySetConnectionLimits(1, 2049));
}

} // namespace
} // namespace platform_test
