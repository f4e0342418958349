// The snapshot layout for each platform and capability, and refusals of
// layouts that do not fit the raw bytes.
#include "fake_platform.h"

#include <zelo.h>

#include <cstdlib>

namespace zelo::test {
namespace {

constexpr uint8_t kHandle = 5;

// Raw snapshot bytes, appended field by field, big-endian.
struct Raw {
    Bytes bytes;
    Raw &be(uint64_t value, int width) {
        for (int i = width - 1; i >= 0; --i)
            bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
        return *this;
    }
    Raw &zeros(std::size_t n) {
        bytes.insert(bytes.end(), n, 0);
        return *this;
    }
};

class SnapshotParseTest : public PlatformTest {
  protected:
    void TearDown() override {
        release();
        ::unsetenv("RUX_FAMILY");
        PlatformTest::TearDown();
    }
    void release() {
        std::free(histogram.pu8BucketData);
        histogram.pu8BucketData = nullptr;
        FreeSnapshotBuffer(record);
        record = nullptr;
    }
    void read(uint8_t element, uint8_t reg, uint8_t len, const Bytes &data) {
        fake().expect(
            {0x2E, 0x81, concat(head(kHandle, element, 0x82), {reg, len}), okResponse(data)});
    }
    // Histogram of inner + 2 buckets of `size` bytes, base 100, width 50.
    void expectHistogram(uint8_t inner, uint8_t size) {
        fake().expect({0x2E, 0x81, head(kHandle, 2, 0x80),
                       okResponse({0, 0, 0, 100, 0, 0, inner, 50, size, 0})});
    }
    void expectCapabilities(uint8_t caps, uint32_t extended) {
        read(0, 7, 1, {caps});
        if (caps & 0x80)
            read(0, 14, 4,
                 {static_cast<uint8_t>(extended >> 24), static_cast<uint8_t>(extended >> 16),
                  static_cast<uint8_t>(extended >> 8), static_cast<uint8_t>(extended)});
    }
    void expectInputPower(uint8_t e, uint8_t r, uint8_t a, uint8_t w1, uint8_t w2) {
        fake().expect(
            {0x2E, 0x81, head(kHandle, 11, 0x80), okResponse({0, 0, 0, e, r, a, w1, w2, 0, 0})});
    }
    uint8_t parse(const Raw &raw) {
        record = static_cast<SnapshotBuffer *>(std::calloc(1, sizeof(SnapshotBuffer)));
        testing::internal::CaptureStdout();
        const uint8_t rc = ParseSnapshotBuffer(
            kHandle, raw.bytes.data(), static_cast<uint16_t>(raw.bytes.size()), record, &histogram);
        output = testing::internal::GetCapturedStdout();
        return rc;
    }
    // The fixed head of a non-blade snapshot with 2 two-byte buckets (N = 4).
    static Raw rackHead() {
        Raw r;
        r.be(0x21, 1).be(1000, 8).be(5, 2).be(7, 2).be(8, 2).be(100, 4).be(2000, 8);
        r.be(30, 1).be(25, 1);
        return r;
    }

    SnapshotBuffer *record = nullptr;
    HistogramData histogram{};
    std::string output;
};

TEST_F(SnapshotParseTest, RackServerWithoutExtendedPart) {
    expectHistogram(0, 2);
    expectCapabilities(0x7F, 0);
    ASSERT_EQ(parse(rackHead()), 0) << output;
    ASSERT_NE(record->psSystemDC, nullptr);
    const SnapshotBuffer &r = *record;
    // Status, DC (avg, max | min), histogram shape, event, CPU, AC, outlet, inlet, time stamp.
    EXPECT_EQ(
        (std::vector<uint64_t>{r.u8PowerStatus, r.psSystemDC->u64Avg,
                               r.psSystemDC->u64Max | r.psSystemDC->u64Min, histogram.u8BucketNum,
                               histogram.u16HistogramBase, histogram.u8BucketWidth, r.u16PowerEvent,
                               r.psEffectiveCPU->u64Avg, r.psSystemAC->u64Avg,
                               r.u8OutletTemperature, r.u8InletTemperature, r.u64Timestamp}),
        (std::vector<uint64_t>{0x21, 1000, 0, 2, 100, 50, 8, 100, 2000, 30, 25, 0}));
    EXPECT_EQ(Bytes(histogram.pu8BucketData, histogram.pu8BucketData + 4), (Bytes{0, 5, 0, 7}));
    EXPECT_EQ(r.psPowerSupplyAC, nullptr);
    EXPECT_EQ(r.psCPUPower, nullptr);
}

TEST_F(SnapshotParseTest, EveryExtendedBlockInItsOrder) {
    expectHistogram(0, 2);
    expectCapabilities(0x80, 0x3C);
    expectInputPower(2, 1, 1, 2, 2);
    Raw raw = rackHead();
    raw.zeros(16);                         // 0x08: skipped
    raw.be(0xAA, 1).be(410, 2).be(450, 2); // supply 0: lead, input, peak
    raw.be(0xBB, 1).be(390, 2).be(440, 2); // supply 1
    raw.be(123456789, 8);                  // 0x10: time stamp
    raw.be(3, 1).be(4, 1).be(40, 8).be(1, 1).be(150, 8).be(2, 1).be(60, 8); // 0x20
    ASSERT_EQ(parse(raw), 0) << output;
    ASSERT_EQ(record->u8PowerSupplyACNum, 2);
    const SnapshotBuffer &r = *record;
    EXPECT_EQ((std::vector<uint64_t>{r.psPowerSupplyAC[0].u64Avg, r.psPowerSupplyAC[0].u64Max,
                                     r.psPowerSupplyAC[1].u64Avg, r.psPowerSupplyAC[1].u64Max,
                                     r.u64Timestamp, r.psCPUPower->u64Avg, r.psMemoryPower->u64Avg,
                                     r.psCoolingPower->u64Avg}),
              (std::vector<uint64_t>{410, 450, 390, 440, 123456789, 150, 60, 40}));
    EXPECT_EQ(r.u8PowerSupplyDCNum, 0);
    EXPECT_EQ(r.psPowerSupplyDC, nullptr);
}

TEST_F(SnapshotParseTest, RepeatFactorSpacesTheEntries) {
    expectHistogram(0, 2);
    expectCapabilities(0x80, 0x24);
    expectInputPower(2, 2, 0, 1, 1);
    Raw raw = rackHead();
    raw.be(11, 1).be(12, 1).zeros(2).be(21, 1).be(22, 1).zeros(2).be(0, 1);
    ASSERT_EQ(parse(raw), 0) << output;
    EXPECT_EQ(record->psPowerSupplyAC[1].u64Avg, 21u);
    EXPECT_EQ(record->psPowerSupplyAC[1].u64Max, 22u);
    EXPECT_EQ(record->psCPUPower, nullptr) << "an empty subsystem list";
}

TEST_F(SnapshotParseTest, BladeHasNoSystemDcNoTemperaturesAndNoInputBlock) {
    ::setenv("RUX_FAMILY", "blade", 1);
    expectHistogram(0, 2);
    expectCapabilities(0x80, 0x14); // input power bit ignored on a blade
    Raw raw;
    raw.be(0x01, 1).be(777, 8).be(1, 2).be(2, 2).be(0, 2).be(9, 4).be(42, 8);
    ASSERT_EQ(parse(raw), 0) << output;
    EXPECT_EQ(record->psSystemDC, nullptr);
    EXPECT_EQ(record->psSystemAC->u64Avg, 777u);
    EXPECT_EQ(record->u8InletTemperature | record->u8OutletTemperature, 0);
    EXPECT_EQ(record->psPowerSupplyAC, nullptr);
    EXPECT_EQ(record->u64Timestamp, 42u) << "the extended part starts at 15 + N";
}

TEST_F(SnapshotParseTest, SubsystemListRefusesDuplicatesAndUnknownTypes) {
    const struct {
        std::vector<std::pair<uint64_t, int>> list; // value, width
        const char *output;
    } cases[] = {
        {{{2, 1}, {1, 1}, {10, 8}, {1, 1}, {20, 8}}, "CPU Subsystems already existed.\n"},
        {{{1, 1}, {3, 1}, {10, 8}}, "Type(3) of subsystem is not supported!\n"},
    };
    for (const auto &c : cases) {
        expectHistogram(0, 2);
        expectCapabilities(0x80, 0x20);
        Raw raw = rackHead();
        for (const auto &[value, width] : c.list)
            raw.be(value, width);
        EXPECT_EQ(parse(raw), 255);
        EXPECT_EQ(output, c.output);
        release();
    }
}

// Every cut of a full layout, and configurations that promise more than the
// bytes hold, are refused without reading past the end.
TEST_F(SnapshotParseTest, LayoutsThatDoNotFitAreRefused) {
    Raw full = rackHead();
    full.zeros(16).be(0xAA, 1).be(410, 2).be(450, 2).be(0xBB, 1).be(390, 2).be(440, 2);
    full.be(1, 8).be(1, 1).be(1, 1).be(10, 8);
    for (std::size_t cut = 0; cut < full.bytes.size(); ++cut) {
        SCOPED_TRACE(cut);
        // Configuration reads happen only as far as the cut lets the parser come.
        if (cut >= 9)
            expectHistogram(0, 2);
        if (cut >= 29)
            expectCapabilities(0x80, 0x3C);
        if (cut >= 45)
            expectInputPower(2, 1, 1, 2, 2);
        // Copy to an exactly sized heap block so ASan sees any overread.
        auto *exact = static_cast<uint8_t *>(std::malloc(cut ? cut : 1));
        std::copy_n(full.bytes.begin(), cut, exact);
        record = static_cast<SnapshotBuffer *>(std::calloc(1, sizeof(SnapshotBuffer)));
        testing::internal::CaptureStdout();
        EXPECT_EQ(
            ParseSnapshotBuffer(kHandle, exact, static_cast<uint16_t>(cut), record, &histogram),
            255);
        testing::internal::GetCapturedStdout();
        std::free(exact);
        EXPECT_EQ(fake().pending(), 0u);
        release();
    }
    // A histogram far larger than the buffer.
    expectHistogram(250, 255);
    EXPECT_EQ(parse(rackHead()), 255);
    EXPECT_NE(output.find("does not fit"), std::string::npos) << output;
    // The record counts buckets in one byte: 253 inner ones (255 in all) are
    // taken, one more is refused.
    for (const int inner : {253, 254}) {
        release();
        expectHistogram(static_cast<uint8_t>(inner), 1);
        EXPECT_EQ(parse(rackHead()), 255);
        EXPECT_EQ(output.find("more buckets") != std::string::npos, inner == 254) << output;
    }
}

TEST_F(SnapshotParseTest, FailedReadsOfTheDescribingRegistersAreReturned) {
    // Rows in reading order; the code tells which read failed.
    const struct {
        Bytes request;
        int rc;
    } cases[] = {{head(kHandle, 2, 0x80), 0xC3},
                 {concat(head(kHandle, 0, 0x82), {7, 1}), 0xC4},
                 {concat(head(kHandle, 0, 0x82), {14, 4}), 0xC5},
                 {head(kHandle, 11, 0x80), 255}};
    for (int answered = 0; answered < 4; ++answered) {
        const auto &c = cases[answered];
        if (answered > 0)
            expectHistogram(0, 2);
        if (answered > 1)
            read(0, 7, 1, {0x80});
        if (answered > 2)
            read(0, 14, 4, {0, 0, 0, 0x04});
        // 255: no answer at all.
        fake().expect({0x2E, 0x81, c.request,
                       Bytes(c.rc == 255 ? 0 : 1, static_cast<uint8_t>(c.rc)),
                       c.rc == 255 ? -9 : 0});
        EXPECT_EQ(parse(rackHead()), c.rc) << answered;
        EXPECT_EQ(output.find("does not fit"), std::string::npos) << "a failed read, not a layout";
        release();
    }
}

TEST_F(SnapshotParseTest, GetSnapshotFailuresLeaveNothingBehind) {
    fake().store["zelo_supported_0"] = 1;
    fake().store["zelo_module_handle_0"] = kHandle;
    Raw raw = rackHead();
    raw.be(1, 1).be(9, 1).be(10, 8); // an unknown subsystem
    const auto n = static_cast<uint8_t>(raw.bytes.size());
    fake().expect({0x2E, 0x81, head(kHandle, 3, 0x80), okResponse({0, 0, 0, 64, 0, 0, 0, n})});
    fake().expect({0x2E, 0x81, concat(head(kHandle, 3, 0x81), {0, 0, 0, n}),
                   okResponse(concat({0, 3, 0, n}, raw.bytes))});
    expectHistogram(0, 2);
    expectCapabilities(0x80, 0x20);
    testing::internal::CaptureStdout();
    EXPECT_EQ(GetSnapshotBufferFromZELO(&record, &histogram), 255);
    EXPECT_EQ(record, nullptr);
    EXPECT_EQ(histogram.pu8BucketData, nullptr);

    // The configuration read and the chunked read fail on their own.
    fake().expect({0x2E, 0x81, head(kHandle, 3, 0x80), {0xC9}});
    EXPECT_EQ(GetSnapshotBufferFromZELO(&record, &histogram), 0xC9);
    fake().expect({0x2E, 0x81, head(kHandle, 3, 0x80), okResponse({0, 0, 0, 64, 0, 0, 0, 29})});
    fake().expect({0x2E, 0x81, concat(head(kHandle, 3, 0x81), {0, 0, 0, 29}), {0xCA}});
    EXPECT_EQ(GetSnapshotBufferFromZELO(&record, &histogram), 0xCA);
    EXPECT_EQ(record, nullptr);
    EXPECT_EQ(GetSnapshotBufferFromZELO(&record, nullptr), 253);
    fake().store.erase("zelo_module_handle_0");
    EXPECT_EQ(GetSnapshotBufferFromZELO(&record, &histogram), 255);
    testing::internal::GetCapturedStdout();
}

} // namespace
} // namespace zelo::test
