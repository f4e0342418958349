#include "bus_server.h"

#include "bus_names.h"
#include "ipmi_wire.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace zelo::sim {
namespace {

namespace names = busnames;

// How often a lost bus is tried again.
constexpr std::chrono::milliseconds kRejoinPeriod(100);
constexpr int kIdleMs = 200;

// The bridge's status when it cannot pass the request on.
constexpr int32_t kStatusInvalid = 2;

// The sensors' own service.
constexpr const char *kSensorService = "xyz.openbmc_project.Zelo.FwSim";
constexpr const char *kDegrees = "xyz.openbmc_project.Sensor.Value.Unit.DegreesC";
constexpr std::size_t kMaxEntryLen = 4096;

// A sensor's name as an object path element: blanks and anything else a
// path cannot hold become '_'.
std::string pathElement(const std::string &name) {
    std::string element = name.empty() ? "_" : name;
    for (char &c : element)
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')))
            c = '_';
    return element;
}

// The scenario's reading text as degrees: its leading number, NaN when it
// has none ("Unavailable").
double degrees(const std::string &reading) {
    const char *text = reading.c_str();
    char *end = nullptr;
    const double value = std::strtod(text, &end);
    return end == text ? NAN : value;
}

void appendPrintable(std::string &line, const char *text) {
    for (; *text != '\0' && line.size() < kMaxEntryLen; ++text) {
        const auto c = static_cast<unsigned char>(*text);
        line += c >= 0x20 && c != 0x7F ? *text : '?';
    }
}

int msUntil(std::chrono::steady_clock::time_point t) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(t - std::chrono::steady_clock::now()).count();
    return left <= 0 ? 0 : static_cast<int>(std::min<decltype(left)>(left, INT_MAX));
}

} // namespace

BusServer::BusServer(Firmware &firmware, std::string entriesPath)
    : firmware_(firmware), entriesPath_(std::move(entriesPath)) {}

BusServer::~BusServer() {
    leave();
}

void BusServer::leave() {
    for (Held &h : held_)
        sd_bus_message_unref(h.reply);
    held_.clear();
    for (sd_bus_slot *slot : slots_)
        sd_bus_slot_unref(slot);
    slots_.clear();
    bridgeOwned_ = false;
    if (bus_ != nullptr)
        sd_bus_flush_close_unref(bus_);
    bus_ = nullptr;
}

bool BusServer::connect(const std::string &address, std::string &error) {
    address_ = address;
    return join(error);
}

bool BusServer::join(std::string &error) {
    leave();
    sd_bus *bus = nullptr;
    int r = sd_bus_new(&bus);
    if (r >= 0) {
        bus_ = bus;
        r = sd_bus_set_address(bus_, address_.c_str());
    }
    if (r >= 0)
        r = sd_bus_set_bus_client(bus_, 1);
    if (r >= 0)
        r = sd_bus_start(bus_);
    if (r < 0) {
        error = address_ + ": " + std::strerror(-r);
        leave();
        return false;
    }
    static const sd_bus_vtable kIpmbTable[] = {SD_BUS_VTABLE_START(0),
                                               SD_BUS_METHOD("sendRequest", "yyyyay", "iyyyyay",
                                                             &BusServer::onSendRequest,
                                                             SD_BUS_VTABLE_UNPRIVILEGED),
                                               SD_BUS_VTABLE_END};
    static const sd_bus_vtable kCreateTable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Create", "ssa{ss}", "", &BusServer::onCreate, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END};
    static const sd_bus_vtable kMapperTable[] = {SD_BUS_VTABLE_START(0),
                                                 SD_BUS_METHOD("GetSubTree", "sias", "a{sa{sas}}",
                                                               &BusServer::onGetSubTree,
                                                               SD_BUS_VTABLE_UNPRIVILEGED),
                                                 SD_BUS_VTABLE_END};
    static const sd_bus_vtable kValueTable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("Value", "d", &BusServer::sensorProperty, 0,
                        SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
        SD_BUS_PROPERTY("Unit", "s", &BusServer::sensorProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_VTABLE_END};
    static const sd_bus_vtable kStatusTable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("Functional", "b", &BusServer::sensorProperty, 0,
                        SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
        SD_BUS_VTABLE_END};
    struct Object {
        const char *path;
        const char *interface;
        const sd_bus_vtable *table;
        bool fallback;
    };
    const Object objects[] = {
        {names::kIpmbPath, names::kIpmbInterface, kIpmbTable, false},
        {names::kLoggingPath, names::kCreateInterface, kCreateTable, false},
        {names::kMapperPath, names::kMapperInterface, kMapperTable, false},
        {names::kTemperatureRoot, names::kValueInterface, kValueTable, true},
        {names::kTemperatureRoot, names::kStatusInterface, kStatusTable, true},
    };
    for (const Object &o : objects) {
        sd_bus_slot *slot = nullptr;
        r = o.fallback ? sd_bus_add_fallback_vtable(bus_, &slot, o.path, o.interface, o.table,
                                                    &BusServer::findSensor, this)
                       : sd_bus_add_object_vtable(bus_, &slot, o.path, o.interface, o.table, this);
        if (r < 0) {
            error = std::string(o.path) + ": " + std::strerror(-r);
            leave();
            return false;
        }
        slots_.push_back(slot);
    }
    for (const char *name : {names::kLoggingService, names::kMapperService, kSensorService}) {
        r = sd_bus_request_name(bus_, name, 0);
        if (r < 0) {
            error = std::string(name) + ": " + std::strerror(-r);
            leave();
            return false;
        }
    }
    followBridge();
    if (!bridgeOwned_ && firmware_.state().bridge) {
        error = std::string(names::kIpmbService) + ": not taken";
        leave();
        return false;
    }
    return true;
}

// Takes or releases the bridge's name as the scenario says.
void BusServer::followBridge() {
    const bool wanted = firmware_.state().bridge;
    if (bus_ == nullptr || wanted == bridgeOwned_)
        return;
    const int r = wanted ? sd_bus_request_name(bus_, names::kIpmbService, 0)
                         : sd_bus_release_name(bus_, names::kIpmbService);
    if (r >= 0)
        bridgeOwned_ = wanted;
}

int BusServer::fd() const {
    return bus_ != nullptr ? sd_bus_get_fd(bus_) : -1;
}

short BusServer::events() const {
    const int e = bus_ != nullptr ? sd_bus_get_events(bus_) : 0;
    return static_cast<short>(e > 0 ? e : 0);
}

int BusServer::timeoutMs() const {
    int wait = kIdleMs;
    if (bus_ == nullptr)
        return std::min(wait, msUntil(nextJoin_));
    uint64_t usec = 0;
    if (sd_bus_get_timeout(bus_, &usec) > 0 && usec != UINT64_MAX) {
        struct timespec now {};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        const uint64_t nowUs = static_cast<uint64_t>(now.tv_sec) * 1000000U +
                               static_cast<uint64_t>(now.tv_nsec) / 1000U;
        wait = usec <= nowUs
                   ? 0
                   : static_cast<int>(std::min<uint64_t>((usec - nowUs + 999) / 1000, wait));
    }
    for (const Held &h : held_)
        wait = std::min(wait, msUntil(h.due));
    return wait;
}

void BusServer::process() {
    if (bus_ == nullptr) {
        if (Clock::now() < nextJoin_)
            return;
        nextJoin_ = Clock::now() + kRejoinPeriod;
        std::string ignored;
        join(ignored);
        return;
    }
    int r = 0;
    while ((r = sd_bus_process(bus_, nullptr)) > 0) {
    }
    followBridge();
    const auto now = Clock::now();
    for (auto it = held_.begin(); it != held_.end();) {
        if (it->due > now) {
            ++it;
            continue;
        }
        sd_bus_send(bus_, it->reply, nullptr);
        sd_bus_message_unref(it->reply);
        it = held_.erase(it);
    }
    // The bus went away (restarted, say): join it again once it is back.
    if (r < 0 || sd_bus_is_open(bus_) <= 0) {
        leave();
        nextJoin_ = Clock::now() + kRejoinPeriod;
    }
}

// The answer is built from the firmware at once and sent when the
// firmware's delay has passed, so a delay stalls this caller only.
int BusServer::onSendRequest(sd_bus_message *call, void *userdata, sd_bus_error *) {
    auto *self = static_cast<BusServer *>(userdata);
    uint8_t channel = 0, netFn = 0, lun = 0, cmd = 0;
    const void *data = nullptr;
    std::size_t len = 0;
    int r = sd_bus_message_read(call, "yyyy", &channel, &netFn, &lun, &cmd);
    if (r >= 0)
        r = sd_bus_message_read_array(call, 'y', &data, &len);
    if (r < 0)
        return r;
    // Only the firmware's channel leads anywhere, and the controller's own
    // commands (sensors, control) never travel over the bridge.
    std::vector<uint8_t> answer;
    int32_t status = kStatusInvalid;
    if (channel == names::kFirmwareChannel && len <= wire::kMaxDataLen &&
        netFn != wire::kSensorNetFn && netFn != wire::kControlNetFn) {
        answer = self->firmware_.handle(
            netFn, cmd, std::span<const uint8_t>(static_cast<const uint8_t *>(data), len));
        status = answer.empty() ? kStatusInvalid : 0;
    }
    sd_bus_message *reply = nullptr;
    r = sd_bus_message_new_method_return(call, &reply);
    if (r < 0)
        return r;
    const uint8_t cc = answer.empty() ? 0 : answer[0];
    r = sd_bus_message_append(reply, "iyyyy", status, static_cast<uint8_t>(netFn | 1), lun, cmd,
                              cc);
    if (r >= 0)
        r = sd_bus_message_append_array(reply, 'y', answer.empty() ? nullptr : answer.data() + 1,
                                        answer.empty() ? 0 : answer.size() - 1);
    if (r < 0) {
        sd_bus_message_unref(reply);
        return r;
    }
    const std::uint32_t delayMs = self->firmware_.responseDelayMs();
    if (delayMs == 0) {
        r = sd_bus_send(nullptr, reply, nullptr);
        sd_bus_message_unref(reply);
        return r < 0 ? r : 1;
    }
    self->held_.push_back({reply, Clock::now() + std::chrono::milliseconds(delayMs)});
    return 1;
}

// One line per entry, written whole with one append.
int BusServer::onCreate(sd_bus_message *call, void *userdata, sd_bus_error *) {
    const auto *self = static_cast<BusServer *>(userdata);
    const char *message = nullptr;
    const char *severity = nullptr;
    int r = sd_bus_message_read(call, "ss", &message, &severity);
    if (r < 0)
        return r;
    std::string line;
    appendPrintable(line, severity);
    line += ' ';
    appendPrintable(line, message);
    r = sd_bus_message_enter_container(call, 'a', "{ss}");
    const char *key = nullptr;
    const char *value = nullptr;
    while (r >= 0 && (r = sd_bus_message_read(call, "{ss}", &key, &value)) > 0) {
        line += ' ';
        appendPrintable(line, key);
        line += '=';
        appendPrintable(line, value);
    }
    if (r < 0)
        return r;
    line += '\n';
    const int fd = ::open(self->entriesPath_.c_str(),
                          O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0)
        return -errno;
    const ssize_t written = ::write(fd, line.data(), line.size());
    ::close(fd);
    if (written != static_cast<ssize_t>(line.size()))
        return -EIO;
    return sd_bus_reply_method_return(call, "");
}

// Every sensor of the scenario, under the temperature root, from this
// service; nothing for any other subtree.
int BusServer::onGetSubTree(sd_bus_message *call, void *userdata, sd_bus_error *) {
    const auto *self = static_cast<BusServer *>(userdata);
    const char *subtree = nullptr;
    int32_t depth = 0;
    int r = sd_bus_message_read(call, "si", &subtree, &depth);
    if (r < 0)
        return r;
    const std::string root = names::kTemperatureRoot;
    const std::string asked = subtree;
    const bool covers = asked == "/" || root == asked || root.rfind(asked + "/", 0) == 0;
    sd_bus_message *reply = nullptr;
    r = sd_bus_message_new_method_return(call, &reply);
    if (r >= 0)
        r = sd_bus_message_open_container(reply, 'a', "{sa{sas}}");
    if (covers)
        for (const Sensor &s : self->firmware_.state().sensors) {
            if (r < 0)
                break;
            const std::string path = root + "/" + pathElement(s.name);
            r = sd_bus_message_append(reply, "{sa{sas}}", path.c_str(), 1, kSensorService, 2,
                                      names::kValueInterface, names::kStatusInterface);
        }
    if (r >= 0)
        r = sd_bus_message_close_container(reply);
    if (r >= 0)
        r = sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return r < 0 ? r : 1;
}

const Sensor *BusServer::sensorAt(const char *path) const {
    const std::string_view p = path;
    const std::string_view root = names::kTemperatureRoot;
    if (p.size() <= root.size() + 1 || p.substr(0, root.size()) != root || p[root.size()] != '/')
        return nullptr;
    for (const Sensor &s : firmware_.state().sensors)
        if (pathElement(s.name) == p.substr(root.size() + 1))
            return &s;
    return nullptr;
}

int BusServer::findSensor(sd_bus *, const char *path, const char *, void *userdata, void **found,
                          sd_bus_error *) {
    auto *self = static_cast<BusServer *>(userdata);
    if (self->sensorAt(path) == nullptr)
        return 0;
    *found = self;
    return 1;
}

// The scenario's sensor fault fails every read.
int BusServer::sensorProperty(sd_bus *, const char *path, const char *, const char *property,
                              sd_bus_message *reply, void *userdata, sd_bus_error *error) {
    const auto *self = static_cast<BusServer *>(userdata);
    const Sensor *s = self->sensorAt(path);
    if (s == nullptr)
        return -ENOENT;
    if (self->firmware_.state().sensorFault)
        return sd_bus_error_setf(error, SD_BUS_ERROR_FAILED, "sensor read failed (code 0x%02X)",
                                 *self->firmware_.state().sensorFault);
    if (std::strcmp(property, "Value") == 0)
        return sd_bus_message_append(reply, "d", degrees(s->reading));
    if (std::strcmp(property, "Unit") == 0)
        return sd_bus_message_append(reply, "s", kDegrees);
    return sd_bus_message_append(reply, "b", static_cast<int>(s->status == 0));
}

} // namespace zelo::sim
