#include "fake_platform.h"

#include "firmware/discovery_internal.h"
#include "history/history_internal.h"
#include "metriclog/cycle.h"
#include "report.h"
#include "scenario.h"
#include "tracelog/state.h"

#include <zelo/firmware.h>
#include <zelo/platform.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <type_traits>

namespace zelo::test {

namespace {

FakePlatform gFake;

int fakeSysinfo(struct sysinfo *info) {
    if (gFake.sysinfoFails) {
        errno = EFAULT;
        return -1;
    }
    info->uptime = gFake.uptime;
    return 0;
}

constexpr uint8_t kIana[3] = {ZELO_IANA_ID & 0xFF, (ZELO_IANA_ID >> 8) & 0xFF,
                              (ZELO_IANA_ID >> 16) & 0xFF};

void recordSyslog(int priority, const char *message) {
    gFake.syslog.emplace_back(priority, message);
}

template <class T>
int fakeGet(const char *what, const char *key, T *value) {
    gFake.storeCalls.push_back(std::string(what) + " " + key);
    const auto it = gFake.store.find(key);
    if (it != gFake.store.end())
        *value = std::is_same_v<T, uint8_t> ? it->second != 0 : static_cast<T>(it->second);
    return it != gFake.store.end();
}

} // namespace

FakePlatform &fake() {
    return gFake;
}

void PlatformTest::SetUp() {
    gFake = FakePlatform{};
    firmware::resetSupportCache();
    history::resetHistories();
    metriclog::resetBaseline();
    metriclog::restartFileNumbering();
    trace::u32TraceLogIndex = 0;
    trace::s32PowerHistoryLogLevel = 0;
    hooks->sysinfo = fakeSysinfo;
    hooks->syslog = recordSyslog;
    setConsole(true);
    char tmpl[] = "/tmp/zelo-test-XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl), nullptr);
    root = tmpl;
    ::setenv("ZELO_ROOT", root.c_str(), 1);
}

void PlatformTest::TearDown() {
    EXPECT_EQ(gFake.pending(), 0u) << "scripted IPMI exchanges were not sent";
    metriclog::resetBaseline(); // frees what the test left
    ::unsetenv("RUX_FAMILY");
    ::unsetenv("ZELO_ROOT");
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
}

void PlatformTest::useFirmware(const std::string &scenario) {
    sim::Scenario parsed;
    std::string error;
    ASSERT_TRUE(sim::parseScenario(scenario, "t.scn", parsed, error)) << error;
    firmware = std::make_unique<sim::Firmware>(parsed);
    gFake.firmware = firmware.get();
}

std::string PlatformTest::trace() const {
    const Bytes bytes = fileBytes(root + "/tmp/zelo_trace/zelo_trace_log_0.txt");
    return std::string(bytes.begin(), bytes.end());
}

Bytes fileBytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

Bytes head(uint8_t handle, uint8_t element, uint8_t method) {
    return {kIana[0], kIana[1], kIana[2], handle, element, method};
}

Bytes concat(Bytes a, const Bytes &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes okResponse(const Bytes &data) {
    return concat({0, kIana[0], kIana[1], kIana[2]}, data);
}

} // namespace zelo::test

using zelo::test::fakeGet;
using zelo::test::gFake;

extern "C" {

int IPMI_DoIPMICmd(uint8_t netFn, uint8_t cmd, const uint8_t *request, uint32_t requestLen,
                   uint8_t *response, uint32_t *responseLen) {
    ++gFake.exchanges;
    const zelo::test::Bytes sent(request, request + requestLen);
    if (gFake.firmware != nullptr) {
        const auto answer = gFake.firmware->handle(netFn, cmd, sent);
        const auto n = std::min<std::size_t>(answer.size(), *responseLen);
        std::copy_n(answer.begin(), n, response);
        *responseLen = static_cast<uint32_t>(n);
        return 0;
    }
    if (gFake.next >= gFake.script.size()) {
        ADD_FAILURE() << "unexpected IPMI request";
        return -1;
    }
    const auto &step = gFake.script[gFake.next++];
    EXPECT_EQ(netFn, step.netFn);
    EXPECT_EQ(cmd, step.cmd);
    EXPECT_EQ(sent, step.request) << "request " << gFake.next;
    gFake.lastCapacity = *responseLen;
    if (step.rc != 0)
        return step.rc;
    const auto n = std::min<std::size_t>(step.response.size(), *responseLen);
    std::copy_n(step.response.begin(), n, response);
    *responseLen = static_cast<uint32_t>(n);
    return 0;
}

int GetAllSensorInfoByType(uint32_t *deliveredLen, uint32_t areaSize, const uint8_t *sensorType,
                           uint8_t *area) {
    gFake.sensorTypes.push_back(*sensorType);
    gFake.sensorAreaSize = areaSize;
    *deliveredLen = 0;
    if (gFake.sensorResult != 0)
        return gFake.sensorResult;
    const auto n = std::min<std::size_t>(gFake.sensorRecords.size(), areaSize);
    std::copy_n(gFake.sensorRecords.begin(), n, area);
    *deliveredLen = gFake.sensorClaimed.value_or(static_cast<uint32_t>(n));
    return 0;
}

int kiv_config_get_bool(const char *key, uint8_t *value) {
    return fakeGet("get_bool", key, value);
}
int kiv_config_get_int(const char *key, int *value) {
    return fakeGet("get_int", key, value);
}

static int fakeSet(const char *what, const char *key, int64_t value, int flag) {
    gFake.storeCalls.push_back(std::string(what) + " " + key + "=" + std::to_string(value) +
                               " flag " + std::to_string(flag));
    if (gFake.failingSets.count(key) != 0)
        return 0;
    gFake.store[key] = value;
    return 1;
}

int kiv_config_set_bool(const char *key, uint8_t value, int flag) {
    return fakeSet("set_bool", key, value, flag);
}
int kiv_config_set_int(const char *key, int value, int flag) {
    return fakeSet("set_int", key, value, flag);
}
int kiv_config_set_int64(const char *key, int64_t value, int flag) {
    return fakeSet("set_int64", key, value, flag);
}

int sw_msg_dispatcher(uint16_t eventId, void *params) {
    zelo::test::FakePlatform::SentEvent sent{eventId, std::nullopt};
    if (params != nullptr) {
        sent.params.emplace();
        std::memcpy(sent.params->data(), params, sent.params->size());
    }
    gFake.events.push_back(sent);
    return gFake.eventResult;
}

int kiv_config_clear(const char *key) {
    gFake.storeCalls.push_back(std::string("clear ") + key);
    gFake.store.erase(key);
    return 1;
}

// No child processes in unit tests: a command that cannot be started.
FILE *secure_popen(const char *, const char *) {
    return nullptr;
}

int secure_pclose(FILE *) {
    return -1;
}

} // extern "C"
