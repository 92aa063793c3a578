// Each fault an instrument or its bridge commits gives the result code the
// library documents, and the instrument answers the next clean request.
#include "sim_fixture.h"

namespace kavrel::test {
namespace {

enum class Request { setting, flash_page, external_spectrum };

struct FaultCase {
    const char *name;
    uint32_t instrument;
    kavrel_sim_fault fault;
    int32_t expected;
    Request request = Request::setting;
};

constexpr uint32_t kSetting = 123456;

// The request a fault is tried on: its result code (a byte count is success).
int32_t make(Request request) {
    switch (request) {
        case Request::setting: {
            uint32_t v = 0;
            const int32_t rc = kavrel_direct_get_integration_time(&v);
            if (rc == KAVREL_DIRECT_OK) {
                EXPECT_EQ(v, kSetting);
            }
            return rc;
        }
        case Request::flash_page: {
            uint8_t page[16];
            const int32_t n = kavrel_direct_flash_read(3, page, sizeof page);
            return n < 0 ? n : KAVREL_DIRECT_OK;
        }
        case Request::external_spectrum: {
            std::vector<uint16_t> s(2048);
            const int32_t n = kavrel_direct_external_spectrum_control(1, s.data(), 2048);
            return n < 0 ? n : KAVREL_DIRECT_OK;
        }
    }
    return KAVREL_DIRECT_ERR_GENERIC;
}

constexpr uint32_t CM2 = KAVREL_SIM_CM2;
constexpr uint32_t NIR = KAVREL_SIM_NIR;

const FaultCase kCases[] = {
    {"NoAnswer", CM2, {KAVREL_SIM_FAULT_NO_ANSWER, 1, 0, 0}, KAVREL_DIRECT_ERR_TIMEOUT},
    {"DelayWithinTheLimit", CM2, {KAVREL_SIM_FAULT_DELAY, 1, 150, 0}, KAVREL_DIRECT_OK},
    {"DelayPastTheLimit", CM2, {KAVREL_SIM_FAULT_DELAY, 1, 400, 0}, KAVREL_DIRECT_ERR_TIMEOUT},
    {"TruncatedHead", CM2, {KAVREL_SIM_FAULT_TRUNCATE, 1, 20, 0}, KAVREL_DIRECT_ERR_TIMEOUT},
    {"TruncatedBody", CM2, {KAVREL_SIM_FAULT_TRUNCATE, 1, 30, 0}, KAVREL_DIRECT_ERR_TIMEOUT},
    {"BadCrc", CM2, {KAVREL_SIM_FAULT_BAD_CRC, 1, 0, 0}, KAVREL_DIRECT_ERR_CRC},
    {"BadPreamble", CM2, {KAVREL_SIM_FAULT_BAD_PREAMBLE, 1, 0, 0}, KAVREL_DIRECT_ERR_PARSE},
    {"ReplyCommandTimeout", CM2, {KAVREL_SIM_FAULT_REPLY_CODE, 1, 0xE0, 0}, KAVREL_DIRECT_ERR_TIMEOUT},
    {"ReplyCrcMismatch", CM2, {KAVREL_SIM_FAULT_REPLY_CODE, 1, 0xE1, 0}, KAVREL_DIRECT_ERR_CRC},
    {"ReplyInvalidCommand", CM2, {KAVREL_SIM_FAULT_REPLY_CODE, 1, 0xE2, 0}, KAVREL_DIRECT_ERR_IO},
    {"ReplyWriteProtect", CM2, {KAVREL_SIM_FAULT_REPLY_CODE, 1, 0xE3, 0}, KAVREL_DIRECT_ERR_WRITE_PROTECT},
    {"TrickleWithinTheLimit", CM2, {KAVREL_SIM_FAULT_TRICKLE, 1, 5, 0}, KAVREL_DIRECT_OK},
    {"TrickleStalls", CM2, {KAVREL_SIM_FAULT_TRICKLE, 1, 250, 0}, KAVREL_DIRECT_ERR_TIMEOUT},
    {"FlashHandshakeFails",
     CM2,
     {KAVREL_SIM_FAULT_HANDSHAKE_FAILED, 1, 0, 0},
     KAVREL_DIRECT_ERR_IO,
     Request::flash_page},
    {"FlashHandshakeStuck",
     CM2,
     {KAVREL_SIM_FAULT_HANDSHAKE_STUCK, 1, 0, 0},
     KAVREL_DIRECT_ERR_TIMEOUT,
     Request::flash_page},
    {"ExternalHandshakeFails",
     CM2,
     {KAVREL_SIM_FAULT_HANDSHAKE_FAILED, 1, 0, 0},
     KAVREL_DIRECT_ERR_IO,
     Request::external_spectrum},
    {"ExternalHandshakeStuck",
     CM2,
     {KAVREL_SIM_FAULT_HANDSHAKE_STUCK, 1, 0, 0},
     KAVREL_DIRECT_ERR_TIMEOUT,
     Request::external_spectrum},
    {"ReadFailure", CM2, {KAVREL_SIM_FAULT_READ_FAILURE, 1, 0, 0}, KAVREL_DIRECT_ERR_IO},
    {"WriteFailure", CM2, {KAVREL_SIM_FAULT_WRITE_FAILURE, 1, 0, 0}, KAVREL_DIRECT_ERR_IO},
    {"NirRefusalMeansNothingToCm2", CM2, {KAVREL_SIM_FAULT_NIR_REFUSE, 1, 0, 0}, KAVREL_DIRECT_OK},

    {"NoAnswer", NIR, {KAVREL_SIM_FAULT_NO_ANSWER, 1, 0, 0}, KAVREL_DIRECT_ERR_TIMEOUT},
    {"DelayWithinTheQuietTime", NIR, {KAVREL_SIM_FAULT_DELAY, 1, 400, 0}, KAVREL_DIRECT_OK},
    {"DelayPastTheQuietTime", NIR, {KAVREL_SIM_FAULT_DELAY, 1, 700, 0}, KAVREL_DIRECT_ERR_TIMEOUT},
    {"TruncatedBelowAFrame", NIR, {KAVREL_SIM_FAULT_TRUNCATE, 1, 2, 0}, KAVREL_DIRECT_ERR_IO},
    {"TruncatedFrame", NIR, {KAVREL_SIM_FAULT_TRUNCATE, 1, 5, 0}, KAVREL_DIRECT_ERR_CRC},
    {"BadCrc", NIR, {KAVREL_SIM_FAULT_BAD_CRC, 1, 0, 0}, KAVREL_DIRECT_ERR_CRC},
    {"Refusal", NIR, {KAVREL_SIM_FAULT_NIR_REFUSE, 1, 0, 0}, KAVREL_DIRECT_ERR_IO},
    {"TrickleWithinTheQuietTime", NIR, {KAVREL_SIM_FAULT_TRICKLE, 1, 100, 0}, KAVREL_DIRECT_OK},
    {"TrickleCutByTheQuietTime", NIR, {KAVREL_SIM_FAULT_TRICKLE, 1, 600, 0}, KAVREL_DIRECT_ERR_IO},
    {"ReadFailure", NIR, {KAVREL_SIM_FAULT_READ_FAILURE, 1, 0, 0}, KAVREL_DIRECT_ERR_IO},
    {"WriteFailure", NIR, {KAVREL_SIM_FAULT_WRITE_FAILURE, 1, 0, 0}, KAVREL_DIRECT_ERR_IO},
    {"ReplyCodeMeansNothingToNir", NIR, {KAVREL_SIM_FAULT_REPLY_CODE, 1, 0xE2, 0}, KAVREL_DIRECT_OK},
};

void PrintTo(const FaultCase &c, std::ostream *os) {
    *os << c.name << " on " << protocol_name(c.instrument);
}

class Faults : public SimTest, public ::testing::WithParamInterface<FaultCase> {
protected:
    void open(uint32_t kind) {
        attach_and_open(kind, "SIM-F");
        ASSERT_EQ(kavrel_direct_set_integration_time(kSetting), KAVREL_DIRECT_OK);
    }
};

TEST_P(Faults, GiveTheirResultThenTheNextRequestIsAnswered) {
    const FaultCase &c = GetParam();
    open(c.instrument);
    ASSERT_EQ(kavrel_sim_inject_fault("SIM-F", &c.fault), KAVREL_DIRECT_OK);
    EXPECT_EQ(make(c.request), c.expected);
    // Whatever is still on its way (a late or trickling reply) has arrived
    // by then and is dropped by the next request.
    kavrel_sim_sleep_ms(10000);
    EXPECT_EQ(make(c.request), KAVREL_DIRECT_OK);
}

INSTANTIATE_TEST_SUITE_P(EachKind, Faults, ::testing::ValuesIn(kCases), [](const auto &info) {
    return std::string(info.param.name) + "_" + protocol_name(info.param.instrument);
});

TEST_F(Faults, LastTheirCountOrUntilCleared) {
    open(KAVREL_SIM_CM2);
    const kavrel_sim_fault twice{KAVREL_SIM_FAULT_BAD_CRC, 2, 0, 0};
    ASSERT_EQ(kavrel_sim_inject_fault("SIM-F", &twice), KAVREL_DIRECT_OK);
    EXPECT_EQ(make(Request::setting), KAVREL_DIRECT_ERR_CRC);
    EXPECT_EQ(make(Request::setting), KAVREL_DIRECT_ERR_CRC);
    EXPECT_EQ(make(Request::setting), KAVREL_DIRECT_OK);

    const kavrel_sim_fault always{KAVREL_SIM_FAULT_NO_ANSWER, 0, 0, 0};
    ASSERT_EQ(kavrel_sim_inject_fault("SIM-F", &always), KAVREL_DIRECT_OK);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(make(Request::setting), KAVREL_DIRECT_ERR_TIMEOUT);
    ASSERT_EQ(kavrel_sim_clear_faults("SIM-F"), KAVREL_DIRECT_OK);
    EXPECT_EQ(make(Request::setting), KAVREL_DIRECT_OK);
}

// The instrument answers requests in order, so a reply later than the read
// limit is what the next exchange reads, if it begins before the reply has
// arrived; the library does not compare the echoed register.
TEST_F(Faults, ALateReplyAnswersTheNextRequest) {
    open(KAVREL_SIM_CM2);
    const kavrel_sim_fault late{KAVREL_SIM_FAULT_DELAY, 1, 300, 0};
    ASSERT_EQ(kavrel_sim_inject_fault("SIM-F", &late), KAVREL_DIRECT_OK);
    uint32_t time = 0;
    EXPECT_EQ(kavrel_direct_get_integration_time(&time), KAVREL_DIRECT_ERR_TIMEOUT);
    uint8_t level = 0;
    EXPECT_EQ(kavrel_direct_get_level_output(&level), KAVREL_DIRECT_OK);
    EXPECT_EQ(level, static_cast<uint8_t>(kSetting)) << "byte 3 of the integration time's late reply";
    kavrel_sim_sleep_ms(100);
    EXPECT_EQ(make(Request::setting), KAVREL_DIRECT_OK);
}

TEST_F(Faults, AreRefusedForAnUnknownKindOrBridge) {
    open(KAVREL_SIM_CM2);
    const kavrel_sim_fault unknown{99, 1, 0, 0}, known{KAVREL_SIM_FAULT_BAD_CRC, 1, 0, 0};
    EXPECT_EQ(kavrel_sim_inject_fault("SIM-F", &unknown), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_sim_inject_fault("NOT-THERE", &known), KAVREL_DIRECT_ERR_NO_DEVICE);
    EXPECT_EQ(kavrel_sim_inject_fault(nullptr, &known), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_sim_clear_faults("NOT-THERE"), KAVREL_DIRECT_ERR_NO_DEVICE);
}

}  // namespace
}  // namespace kavrel::test
