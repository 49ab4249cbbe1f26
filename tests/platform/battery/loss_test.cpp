// Defends nk/loss.h: what a server notes reaches the client of the deferred request, and no other one.
#include "nk/loss.h"

#include "deferring.h"

namespace platform_test {
namespace {

using LossTest = DeferredReplyTest;

INSTANTIATE_TEST_SUITE_P(, LossTest, testing::Values(ChannelKind::Static, ChannelKind::Dynamic), NameOf);

NkLoss LossOf(const Handle& client) {
    NkLoss loss;
    EXPECT_EQ(KnStatusOk, NkReadLoss(client.Get(), &loss));
    return loss;
}

TEST_P(LossTest, WithoutANote_IsNone) {
    const Handle client = Connect();
    EXPECT_EQ(NkLoss{}, LossOf(client));
}

TEST_P(LossTest, ANote_IsSeenWithTheReplyBehindIt_AndByThatClientOnly) {
    const Handle client = Connect();
    const Handle other = Connect();
    Calling call(client);
    const NkDeferredReply deferred = ReceiveAndDefer();
    EXPECT_EQ(KnStatusOk, NkNoteLoss(deferred, {9, 1'000'000'000'000}));
    EXPECT_EQ(KnStatusOk, Answer(deferred, 42));
    EXPECT_EQ(OkWith(42), call.Get());
    EXPECT_EQ((NkLoss{9, 1'000'000'000'000}), LossOf(client));
    EXPECT_EQ(NkLoss{}, LossOf(other));
    EXPECT_EQ(KnStatusOk, NkNoteLoss(deferred, {0, 7})) << "also behind the reply";
    EXPECT_EQ((NkLoss{0, 7}), LossOf(client));
}

TEST_P(LossTest, WhenTheServerHasClosed_TheLastNoteStays) {
    const Handle client = Connect();
    Calling call(client);
    const NkDeferredReply deferred = ReceiveAndDefer();
    EXPECT_EQ(KnStatusOk, NkNoteLoss(deferred, {9, 3}));
    KnHandleCloseServerEnds();
    EXPECT_EQ(KnStatusClosed, call.Status());
    EXPECT_EQ((NkLoss{9, 3}), LossOf(client));
    EXPECT_EQ(KnStatusClosed, NkNoteLoss(deferred, {9, 4}));
}

TEST_P(LossTest, AClientThatIsGone_GetsNoNote) {
    Handle client = Connect();
    Calling call(client);
    const NkDeferredReply deferred = ReceiveAndDefer();
    const KnHandle closed = client.Get();
    client.Close();
    EXPECT_EQ(KnStatusClosed, call.Status());
    Await("the server to notice", [&] { return NkNoteLoss(deferred, {9, 3}) == KnStatusPeerGone; });
    NkLoss loss;
    EXPECT_EQ(KnStatusClosed, NkReadLoss(closed, &loss));
}

TEST_P(LossTest, WhatIsNoClient_IsRefused) {
    const Handle client = Connect();
    NkLoss loss;
    EXPECT_EQ(KnStatusInvalidArgument, NkNoteLoss({}, {9, 1}));
    EXPECT_EQ(KnStatusInvalidArgument, NkNoteLoss({Channel(), 1, 1'000'000}, {9, 1}));
    EXPECT_EQ(KnStatusInvalidArgument, NkReadLoss(client.Get(), nullptr));
    EXPECT_EQ(KnStatusInvalidArgument, NkReadLoss(Channel(), &loss));
    EXPECT_EQ(KnStatusInvalidArgument, NkReadLoss(KnInvalidHandle, &loss));
}

} // namespace
} // namespace platform_test
