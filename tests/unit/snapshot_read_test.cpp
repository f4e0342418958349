// Configuration blocks and the chunked snapshot read under one tag.
#include "fake_platform.h"

#include <zelo.h>

namespace zelo::test {
namespace {

constexpr uint8_t kHandle = 5;

class SnapshotReadTest : public PlatformTest {
  protected:
    // A chunk read at offset for len bytes, answered under tag with `data`.
    void expectChunk(uint16_t offset, uint16_t len, uint16_t tag, const Bytes &data) {
        const auto returned = static_cast<uint16_t>(data.size());
        fake().expect({0x2E, 0x81,
                       concat(head(kHandle, 3, 0x81),
                              {static_cast<uint8_t>(offset >> 8), static_cast<uint8_t>(offset),
                               static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len)}),
                       okResponse(concat({static_cast<uint8_t>(tag >> 8), static_cast<uint8_t>(tag),
                                          static_cast<uint8_t>(returned >> 8),
                                          static_cast<uint8_t>(returned)},
                                         data))});
    }
    static Bytes fill(std::size_t n, uint8_t from) {
        Bytes b(n);
        for (std::size_t i = 0; i < n; ++i)
            b[i] = static_cast<uint8_t>(from + i);
        return b;
    }
};

TEST_F(SnapshotReadTest, ConfigurationBlocksDecodeTheirFieldsOrZeroThem) {
    fake().expect({0x2E, 0x81, head(kHandle, 2, 0x80),
                   okResponse({0xEE, 0xEE, 0x00, 0x64, 0x12, 0x34, 10, 50, 4, 9})});
    uint16_t base = 1, second = 1;
    uint8_t inner = 1, width = 1, size = 1, sixth = 1;
    EXPECT_EQ(ZELO_ReadPowerHistogramConfiguration(kHandle, &base, &second, &inner, &width, &size,
                                                   &sixth),
              0);
    EXPECT_EQ(fake().lastCapacity, 14u);
    EXPECT_EQ((std::vector<unsigned>{base, second, inner, width, size, sixth}),
              (std::vector<unsigned>{100, 0x1234, 10, 50, 4, 9}));

    fake().expect({0x2E, 0x81, head(kHandle, 3, 0x80),
                   okResponse({0, 0, 0x00, 0x40, 0x00, 0x01, 0x00, 0x96})});
    uint16_t chunk = 0, total = 0;
    EXPECT_EQ(ZELO_ReadSnapshotBufferConfiguration(kHandle, &chunk, &second, &total), 0);
    EXPECT_EQ(fake().lastCapacity, 12u);
    EXPECT_EQ((std::vector<unsigned>{chunk, second, total}), (std::vector<unsigned>{64, 1, 150}));
    fake().expect({0x2E, 0x81, head(kHandle, 3, 0x80), {0xC9}});
    fake().expect({0x2E, 0x81, head(kHandle, 3, 0x80), {}, -4});
    testing::internal::CaptureStdout();
    EXPECT_EQ(ZELO_ReadSnapshotBufferConfiguration(kHandle, &chunk, &second, &total), 0xC9);
    EXPECT_EQ(chunk | second | total, 0) << "zeroed on failure";
    EXPECT_EQ(ZELO_ReadSnapshotBufferConfiguration(kHandle, &chunk, &second, &total), 255);
    testing::internal::GetCapturedStdout();

    fake().expect(
        {0x2E, 0x81, head(kHandle, 11, 0x80), okResponse({0, 0, 1, 2, 3, 4, 5, 6, 7, 8})});
    uint8_t o[8] = {};
    EXPECT_EQ(ZELO_ReadInputPowerBufferConfiguration(kHandle, &o[0], &o[1], &o[2], &o[3], &o[4],
                                                     &o[5], &o[6], &o[7]),
              0);
    EXPECT_EQ(Bytes(o, o + 8), (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST_F(SnapshotReadTest, OneChunkRefusesAnOverlongAnswer) {
    uint8_t dest[8] = {};
    uint16_t tag = 9, got = 9;
    EXPECT_EQ(ZELO_ReadSnapshotBuffer(kHandle, 0, 4, &tag, &got, nullptr), 253);
    EXPECT_EQ(tag | got, 0) << "no exchange without a destination";

    expectChunk(0x0102, 4, 7, {1, 2, 3});
    EXPECT_EQ(ZELO_ReadSnapshotBuffer(kHandle, 0x0102, 4, &tag, &got, dest), 0);
    EXPECT_EQ(fake().lastCapacity, 12u);
    EXPECT_EQ(tag, 7);
    EXPECT_EQ(got, 3);
    EXPECT_EQ(Bytes(dest, dest + 4), (Bytes{1, 2, 3, 0}));

    expectChunk(0, 2, 7, {9, 9, 9});
    testing::internal::CaptureStdout();
    EXPECT_EQ(ZELO_ReadSnapshotBuffer(kHandle, 0, 2, &tag, &got, dest), 255);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(dest[0], 1) << "nothing copied";
}

// Chunks are put together under one tag; a changed one starts over.
TEST_F(SnapshotReadTest, WholeBufferUnderOneTag) {
    expectChunk(0, 64, 5, fill(64, 0));
    expectChunk(64, 64, 5, fill(64, 64));
    expectChunk(128, 22, 6, fill(22, 1)); // a new snapshot between chunks
    expectChunk(0, 64, 0, fill(64, 2));   // tag 0 is not compared...
    expectChunk(64, 64, 6, fill(64, 3));  // ...so this chunk is taken as it comes
    expectChunk(128, 22, 6, fill(22, 4));
    uint8_t dest[150] = {};
    uint16_t bytesRead = 0, tag = 0;
    EXPECT_EQ(ReadTotalSnapshotBuffer(kHandle, 64, 150, &bytesRead, dest, &tag), 0);
    EXPECT_EQ(bytesRead, 150);
    EXPECT_EQ(tag, 6);
    EXPECT_EQ(Bytes(dest, dest + 150), concat(concat(fill(64, 2), fill(64, 3)), fill(22, 4)));

    expectChunk(0, 40, 7, fill(40, 0));
    EXPECT_EQ(ReadTotalSnapshotBuffer(kHandle, 64, 40, &bytesRead, dest, &tag), 0);
    EXPECT_EQ(tag, 7) << "one chunk, its tag";
}

// Seven reads at most, whether the seventh completes the buffer, the answers
// are empty, or the tag changes after every other chunk.
TEST_F(SnapshotReadTest, SevenReadsAtMost) {
    for (uint16_t i = 0; i < 7; ++i)
        expectChunk(i * 10, 10, 3, fill(10, 0));
    uint8_t dest[70] = {};
    uint16_t bytesRead = 1, tag = 1;
    EXPECT_EQ(ReadTotalSnapshotBuffer(kHandle, 10, 70, &bytesRead, dest, &tag), 255);
    EXPECT_EQ(bytesRead | tag, 0);

    for (int i = 0; i < 7; ++i)
        expectChunk(0, 10, 3, {});
    EXPECT_EQ(ReadTotalSnapshotBuffer(kHandle, 10, 10, &bytesRead, dest, &tag), 255);

    uint16_t t = 1;
    expectChunk(0, 10, t, fill(10, 0));
    for (int read = 2; read <= 7; ++read) {
        const bool restarted = read % 2 == 0;
        expectChunk(restarted ? 10 : 0, 10, restarted ? ++t : t, fill(10, 0));
    }
    bytesRead = tag = 9;
    EXPECT_EQ(ReadTotalSnapshotBuffer(kHandle, 10, 20, &bytesRead, dest, &tag), 255);
    EXPECT_EQ(bytesRead | tag, 0);
}

TEST_F(SnapshotReadTest, FailuresStopAtOnce) {
    uint8_t dest[10] = {};
    uint16_t bytesRead = 1, tag = 1;
    EXPECT_EQ(ReadTotalSnapshotBuffer(kHandle, 0, 10, &bytesRead, dest, &tag), 253);
    EXPECT_EQ(ReadTotalSnapshotBuffer(kHandle, 10, 0, &bytesRead, dest, &tag), 253);
    EXPECT_EQ(tag, 0);
    EXPECT_EQ(bytesRead, 1) << "not written on a refused call";

    expectChunk(0, 4, 3, fill(4, 0));
    fake().expect({0x2E, 0x81, concat(head(kHandle, 3, 0x81), {0, 4, 0, 4}), {0xC0}});
    testing::internal::CaptureStdout();
    EXPECT_EQ(ReadTotalSnapshotBuffer(kHandle, 4, 10, &bytesRead, dest, &tag), 0xC0);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(bytesRead, 4) << "what was read so far";
    EXPECT_EQ(tag, 0);
}

} // namespace
} // namespace zelo::test
