// Host utilisation (system, CPU, memory, I/O) read through the firmware's XPM
// extension command.
#include "performance.h"
#include "exchange.h"
#include "hooks.h"
#include "report.h"

#include <zelo/acquisition.h>
#include <zelo/firmware.h>
#include <zelo/platform.h>

#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace {

constexpr uint32_t kXpmRequestLen = 11;
constexpr uint32_t kXpmResponseLen = 11;
constexpr uint8_t kPerfBufferLen = 7;
constexpr unsigned kXpmAttempts = 3;
constexpr useconds_t kXpmRetryWaitUs = 1000;
constexpr uint8_t kMaxUtilisation = 100;
constexpr uint8_t kNoBuffersCodes[] = {0xC1, 0x87};

// The four buffers in the order every caller walks them.
struct PerfSource {
    uint8_t bufferId;
    const char *label;
    const char *storeKey;
};
constexpr PerfSource kSources[4] = {
    {ZELO_PERF_BUFFER_SYSTEM, "system", "ZELO_performanceSystem"},
    {ZELO_PERF_BUFFER_CPU, "cpu", "ZELO_performanceCPU"},
    {ZELO_PERF_BUFFER_MEMORY, "mem", "ZELO_performanceMem"},
    {ZELO_PERF_BUFFER_IO, "io", "ZELO_performanceIO"},
};

uint64_t timestampOf(const PerformanceBuffer &b) {
    return zelo::getBe(b.pu8Timestamp, sizeof b.pu8Timestamp);
}

// NM_Performance_IsSupported's answer from its read's result code.
int supportedBy(uint8_t rc) {
    for (const uint8_t code : kNoBuffersCodes)
        if (rc == code)
            return 0;
    return 1;
}

// Busy answers are retried, so the completion code is reported after the last.
constexpr zelo::firmware::ExchangeTexts kXpmTexts{
    zelo::kPrinted, "[%s] Failed to allocate memory for response buffer.\n", ZELO_RC_FAILURE,
    "[%s] Failed to call IPMI_DoIPMICmd(NETFN_DUV, CMDID_ZELO_XPM_EXTENSIONS) and the result "
    "code is %d.\n",
    nullptr};

} // namespace

static_assert(sizeof(PerformanceBuffer) == kPerfBufferLen, "response bytes 4 to 10, no padding");

extern "C" {

uint8_t GetXPMRequestBuffer(uint8_t u8Arg1, uint8_t u8Arg2, uint8_t u8Arg3, uint8_t u8Arg4,
                            uint32_t u32RequestLen, uint8_t **ppu8Request) {
    if (ppu8Request == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    *ppu8Request = nullptr;
    if (u32RequestLen < kXpmRequestLen) // the request's 11 bytes would not fit
        return ZELO_RC_FAILURE;
    auto *request = static_cast<uint8_t *>(std::calloc(u32RequestLen, 1));
    if (request == nullptr)
        return ZELO_RC_NO_MEMORY;
    const uint8_t bytes[kXpmRequestLen] = {
        zelo::kEnterpriseBytes[0],
        zelo::kEnterpriseBytes[1],
        zelo::kEnterpriseBytes[2],
        0x04,
        u8Arg1,
        u8Arg2,
        u8Arg3,
        u8Arg4,
        0x01,
        0x00,
        0x01,
    };
    std::memcpy(request, bytes, sizeof bytes);
    *ppu8Request = request;
    return ZELO_RC_SUCCESS;
}

uint8_t ZELO_ReadPerformanceBuffer(uint8_t u8BufferId, uint8_t u8Second, uint8_t u8Selector,
                                   uint8_t u8ExpectedSize, PerformanceBuffer *psBuffer) {
    static constexpr const char *kName = "ZELO_ReadPerformanceBuffer";
    if (psBuffer == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    zelo::firmware::Exchange x;
    if (GetXPMRequestBuffer(u8BufferId, u8Second, 1, u8Selector, kXpmRequestLen, &x.request) !=
        ZELO_RC_SUCCESS) {
        zelo::print("[%s] Failed to call GetXPMRequestBuffer().\n", kName);
        return ZELO_RC_FAILURE;
    }
    // A busy firmware gets three attempts, 1 ms apart.
    uint8_t rc = ZELO_RC_SUCCESS;
    for (unsigned attempt = 0; attempt < kXpmAttempts; ++attempt) {
        rc = x.run(kName, CMDID_ZELO_XPM_EXTENSIONS, kXpmRequestLen, kXpmResponseLen, kXpmTexts);
        if (rc == ZELO_RC_SUCCESS || x.transportFailed() || x.completionCode() == 0)
            break;
        zelo::hooks().usleep(kXpmRetryWaitUs);
    }
    if (rc != ZELO_RC_SUCCESS) {
        if (x.completionCode() != 0 && !x.transportFailed())
            zelo::print("[%s] Failed to call IPMI Command(NETFN_DUV, CMDID_ZELO_XPM_EXTENSIONS) "
                        "and the result code is %d.\n",
                        kName, rc);
        return rc;
    }
    zelo::firmware::Reader answer = x.answer();
    if (answer.byte(9) != 0 || answer.byte(10) > kMaxUtilisation)
        return ZELO_RC_FAILURE;
    if (answer.byte(8) > u8ExpectedSize) {
        zelo::print("[%s] The returned buffer size (%d) is bigger than expected size (%d)!\n",
                    kName, answer.byte(8), u8ExpectedSize);
        return ZELO_RC_FAILURE;
    }
    uint8_t bytes[kPerfBufferLen] = {};
    if (!answer.copy(4, bytes))
        return ZELO_RC_FAILURE;
    std::memcpy(psBuffer, bytes, kPerfBufferLen);
    // "i: byte" per line, as "%d: %d\n" would format them; formatted by hand
    // because the daemon prints seventeen of these reads a cycle.
    char text[kPerfBufferLen * 8];
    char *at = text;
    for (int i = 0; i < kPerfBufferLen; ++i) {
        *at++ = static_cast<char>('0' + i);
        *at++ = ':';
        *at++ = ' ';
        const unsigned value = bytes[i];
        if (value >= 100)
            *at++ = static_cast<char>('0' + value / 100);
        if (value >= 10)
            *at++ = static_cast<char>('0' + value / 10 % 10);
        *at++ = static_cast<char>('0' + value % 10);
        *at++ = '\n';
    }
    *at = '\0';
    zelo::print("%s", text);
    return ZELO_RC_SUCCESS;
}

int NM_Performance_IsSupported(void) {
    auto *buffer = static_cast<PerformanceBuffer *>(std::calloc(1, sizeof(PerformanceBuffer)));
    if (buffer == nullptr) {
        zelo::print("[%s] Failed to allocate system for performance buffer.\n",
                    "NM_Performance_IsSupported");
        return 2;
    }
    const uint8_t rc = ZELO_ReadPerformanceBuffer(ZELO_PERF_BUFFER_SYSTEM, 0, ZELO_PERF_CURRENT,
                                                  kPerfBufferLen, buffer);
    std::free(buffer);
    return supportedBy(rc);
}

uint8_t GetPerformanceFromNM(PerformanceData *psData) {
    static constexpr const char *kName = "GetPerformanceFromNM";
    if (psData == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    PerformanceBuffer buffers[4] = {};
    for (int i = 0; i < 4; ++i) {
        const uint8_t rc = ZELO_ReadPerformanceBuffer(kSources[i].bufferId, 0, ZELO_PERF_CURRENT,
                                                      kPerfBufferLen, &buffers[i]);
        if (rc != ZELO_RC_SUCCESS) {
            zelo::print("[%s] Failed to call ZELO_ReadPerformanceBuffer(%s), return code is %d.\n",
                        kName, kSources[i].label, rc);
            return rc;
        }
    }
    uint64_t *const fields[4] = {&psData->u64SystemPerf, &psData->u64CPUPerf,
                                 &psData->u64MemoryPerf, &psData->u64IOPerf};
    psData->u64PerfTimestamp = timestampOf(buffers[0]);
    for (int i = 0; i < 4; ++i) {
        *fields[i] = buffers[i].u8Value <= kMaxUtilisation ? buffers[i].u8Value : 0;
        (void)kiv_config_set_int64(kSources[i].storeKey, static_cast<int64_t>(*fields[i]), 0);
    }
    return ZELO_RC_SUCCESS;
}

uint8_t ReadPerformanceDataFromXPM(MetricStat *psStats) {
    static constexpr const char *kName = "ReadPerformanceDataFromXPM";
    if (psStats == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    std::memset(psStats, 0, 4 * sizeof(MetricStat));
    constexpr uint8_t kSelectors[3] = {ZELO_PERF_CURRENT, ZELO_PERF_MAXIMUM, ZELO_PERF_MINIMUM};
    auto *buffers = static_cast<PerformanceBuffer *>(std::calloc(12, sizeof(PerformanceBuffer)));
    if (buffers == nullptr) {
        zelo::print("[%s] Failed to allocate memory for performance buffer.\n", kName);
        return ZELO_RC_FAILURE;
    }
    for (int n = 0; n < 12; ++n) {
        const uint8_t rc = ZELO_ReadPerformanceBuffer(
            kSources[n / 3].bufferId, 0, kSelectors[n % 3], kPerfBufferLen, &buffers[n]);
        if (rc != ZELO_RC_SUCCESS) {
            zelo::print("[%s] Failed to call ZELO_ReadPerformanceBuffer(system), return code is "
                        "%d.\n",
                        kName, rc);
            std::free(buffers);
            return rc;
        }
    }
    for (int n = 0; n < 12; ++n) {
        MetricStat &stat = psStats[n / 3];
        uint64_t *const slots[3] = {&stat.u64Avg, &stat.u64Max, &stat.u64Min};
        *slots[n % 3] = buffers[n].u8Value;
        zelo::print("Perf Data [%d] : %d\n", n, buffers[n].u8Value);
    }
    std::free(buffers);
    return ZELO_RC_SUCCESS;
}

void FreePerfBuffer(PerfMetricSet *psSet) {
    if (psSet == nullptr)
        return;
    for (MetricStat **stat :
         {&psSet->psSystemPerf, &psSet->psCPUPerf, &psSet->psMemoryPerf, &psSet->psIOPerf}) {
        std::free(*stat);
        *stat = nullptr;
    }
}

} // extern "C"

namespace zelo::acquisition {

CyclePerformance readCyclePerformance(bool withExtremes) {
    static constexpr const char *kName = "GetPerformanceFromNM";
    CyclePerformance perf;
    PerformanceBuffer current[4] = {};
    for (int i = 0; i < 4; ++i) {
        perf.currentRc = ZELO_ReadPerformanceBuffer(kSources[i].bufferId, 0, ZELO_PERF_CURRENT,
                                                    kPerfBufferLen, &current[i]);
        if (i == 0)
            perf.supported = supportedBy(perf.currentRc);
        if (perf.currentRc != ZELO_RC_SUCCESS) {
            zelo::print("[%s] Failed to call ZELO_ReadPerformanceBuffer(%s), return code is %d.\n",
                        kName, kSources[i].label, perf.currentRc);
            return perf;
        }
    }
    uint64_t *const fields[4] = {&perf.data.u64SystemPerf, &perf.data.u64CPUPerf,
                                 &perf.data.u64MemoryPerf, &perf.data.u64IOPerf};
    perf.data.u64PerfTimestamp = timestampOf(current[0]);
    for (int i = 0; i < 4; ++i) {
        *fields[i] = current[i].u8Value <= kMaxUtilisation ? current[i].u8Value : 0;
        perf.stats[i].u64Avg = current[i].u8Value;
    }
    if (!withExtremes)
        return perf;
    for (int i = 0; i < 4; ++i) {
        PerformanceBuffer maximum{}, minimum{};
        if (ZELO_ReadPerformanceBuffer(kSources[i].bufferId, 0, ZELO_PERF_MAXIMUM, kPerfBufferLen,
                                       &maximum) != ZELO_RC_SUCCESS ||
            ZELO_ReadPerformanceBuffer(kSources[i].bufferId, 0, ZELO_PERF_MINIMUM, kPerfBufferLen,
                                       &minimum) != ZELO_RC_SUCCESS)
            return perf;
        perf.stats[i].u64Max = maximum.u8Value;
        perf.stats[i].u64Min = minimum.u8Value;
    }
    perf.extremes = true;
    return perf;
}

CyclePerformance readRecordPerformance() {
    CyclePerformance perf;
    perf.supported = NM_Performance_IsSupported();
    if (perf.supported == 1)
        perf.extremes = (ReadPerformanceDataFromXPM(perf.stats) & 0xFF) == 0;
    return perf;
}

void publishPerformance(const CyclePerformance &perf) {
    if (perf.currentRc != ZELO_RC_SUCCESS)
        return;
    const uint64_t fields[4] = {perf.data.u64SystemPerf, perf.data.u64CPUPerf,
                                perf.data.u64MemoryPerf, perf.data.u64IOPerf};
    for (int i = 0; i < 4; ++i)
        (void)kiv_config_set_int64(kSources[i].storeKey, static_cast<int64_t>(fields[i]), 0);
}

} // namespace zelo::acquisition
