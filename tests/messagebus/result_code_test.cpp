// Defends the numbers that clients get for the results of the bus: every client is built with this table.
#include "bos_connector.h"
#include "ipc_server.h"
#include "support/bus_test.h"

#include <climits>
#include <cstdint>

namespace {

using cor::ResultCode;
using testing::ElementsAre;
using testing::IsEmpty;

class ResultCodeTest : public test_support::BusTest {
protected:
    std::int32_t Translate(std::int32_t code) const { return connector.ToIpcResultCode(static_cast<ResultCode>(code)); }

    message_bus::BosConnector connector{nullptr};
};

TEST_F(ResultCodeTest, ToIpcResultCode_TranslatesEveryKnownCodeSilently) {
    constexpr std::int32_t expected[] = {0,       -49152,  -81920,  -114688, -147456, -180224,
                                         -212992, -245760, -278528, -311296, -344064};
    for (std::int32_t code = 0; code <= 10; ++code) {
        EXPECT_EQ(Translate(code), expected[code]) << code;
        EXPECT_EQ(Translate(code), code == 0 ? 0 : -(2 * code + 1) * 16384) << code;
    }
    EXPECT_THAT(journal.Logs(), IsEmpty());
}

TEST_F(ResultCodeTest, ToIpcResultCode_GivesTheBitPatternsOfTheWire) {
    EXPECT_EQ(static_cast<std::uint32_t>(Translate(1)), 0xFFFF4000U);
    EXPECT_EQ(static_cast<std::uint32_t>(Translate(8)), 0xFFFBC000U);
    EXPECT_EQ(static_cast<std::uint32_t>(Translate(10)), 0xFFFAC000U);
}

TEST_F(ResultCodeTest, ToIpcResultCode_OfEleven_IsThatOfTenWithALine) {
    EXPECT_EQ(Translate(11), -344064);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 ToIpcResultCode: BosConnector: Undefined ResultCode: 11"));
}

TEST_F(ResultCodeTest, ToIpcResultCode_OfANegativeCode_IsUndefined) {
    EXPECT_EQ(Translate(-1), -344064);
    EXPECT_EQ(Translate(INT_MIN), -344064);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 ToIpcResultCode: BosConnector: Undefined ResultCode: -1",
                                            "4 ToIpcResultCode: BosConnector: Undefined ResultCode: -2147483648"));
}

TEST_F(ResultCodeTest, ToIpcResultCode_KeepsTheValueOfEachCodeInTheBitsThatAnErrorReplyCarries) {
    for (std::int32_t code = 1; code <= 10; ++code) {
        const auto negated = 0U - static_cast<std::uint32_t>(Translate(code));
        EXPECT_NE(negated & 0x4000U, 0U) << code;
        EXPECT_EQ(negated >> 15, static_cast<std::uint32_t>(code));
    }
}

} // namespace
