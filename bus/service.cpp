// The objects on the bus and the loop that keeps them current: the metric
// log directory and the daemon's pid file are watched with inotify, so a new
// record is shown as soon as the daemon's cycle lets go of the log, and
// nothing runs between records.
#include "service.h"

#include "paths.h"
#include "readings.h"

#include <zelo.h>
#include <zelo/platform.h>
#include <zelo/telemetry.h>

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <grp.h>
#include <memory>
#include <optional>
#include <pwd.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace zelo::bus {
namespace {

constexpr const char *kValueIface = "xyz.openbmc_project.Sensor.Value";
constexpr const char *kAvailabilityIface = "xyz.openbmc_project.State.Decorator.Availability";
constexpr const char *kStatusIface = "xyz.openbmc_project.State.Decorator.OperationalStatus";
constexpr const char *kAssociationIface = "xyz.openbmc_project.Association.Definitions";
constexpr const char *kCapIface = "xyz.openbmc_project.Control.Power.Cap";
constexpr const char *kSensorsRoot = "/xyz/openbmc_project/sensors";
constexpr const char *kCapPath = "/xyz/openbmc_project/control/host0/power_cap";
constexpr const char *kInvalidArgument = "xyz.openbmc_project.Common.Error.InvalidArgument";
constexpr const char *kNotAllowed = "xyz.openbmc_project.Common.Error.NotAllowed";
constexpr const char *kInternalFailure = "xyz.openbmc_project.Common.Error.InternalFailure";

// The cap keys the daemon keeps current in the store.
constexpr const char *kCapKey = "pcap_kiv_element_zelo";
constexpr const char *kCapMaxKey = "pcap_max_kiv_element_zelo";
constexpr const char *kCapMinKey = "pcap_min_kiv_element_zelo";
constexpr const char *kCapSoftMinKey = "pcap_soft_min_kiv_element_zelo";

std::string resolved(const char *absPath) {
    char path[PATH_MAX];
    return resolvePath(absPath, path, sizeof path) ? path : "";
}

std::optional<uint32_t> stored(const char *key) {
    int value = 0;
    if (kiv_config_get_int(key, &value) == 0 || value < 0)
        return std::nullopt;
    return static_cast<uint32_t>(value);
}

// The daemon's pid while the process its pid file names runs and is named
// zelo, else 0. The file's lock is not tried: holding it even briefly could
// keep a starting daemon out.
pid_t runningDaemon(const std::string &pidFile) {
    long pid = 0;
    std::ifstream(pidFile) >> pid;
    if (pid <= 0 || pid > INT_MAX)
        return 0;
    std::string name;
    std::ifstream("/proc/" + std::to_string(pid) + "/comm") >> name;
    return name == "zelo" ? static_cast<pid_t>(pid) : 0;
}

struct Service;

struct SensorObject {
    Service *service;
    std::size_t index;
    std::string path;
};

struct Service {
    Options options;
    gid_t capGid = 0;
    bool blade = false;
    std::string logDir = resolved("/tmp/zelo_log");
    std::string lastFile = logDir + "/zelo_last.log";
    std::string lockFile = logDir + "/zelo.lock";
    std::string runDir = resolved("/run");
    std::string pidFile = runDir + "/zelo.pid";

    sd_bus *bus = nullptr;
    sd_event *event = nullptr;
    sd_event_source *logWatch = nullptr;
    sd_event_source *runWatch = nullptr;
    sd_event_source *timer = nullptr;
    sd_event_source *daemonExit = nullptr; // the running daemon's pidfd
    pid_t daemonPid = 0;
    std::vector<sd_bus_slot *> slots;

    std::vector<SensorObject> sensors;
    std::array<Reading, kSensors.size()> shown{};
    EnergyMeter energy;
    bool logChanged = true;
    CapLimits cap;

    ~Service() {
        for (sd_bus_slot *slot : slots)
            sd_bus_slot_unref(slot);
        sd_event_source_unref(logWatch);
        sd_event_source_unref(runWatch);
        sd_event_source_unref(timer);
        sd_event_source_disable_unref(daemonExit);
        sd_bus_flush_close_unref(bus);
        sd_event_unref(event);
    }

    void refresh();
    void refreshCap();
    void watch();
    void armTimer(double seconds);
    bool watchDaemon();
    void readMissingLimits();
    bool mayChangeCap(sd_bus_message *call) const;
};

// ---- Sensor properties ----

const Reading &readingOf(void *userdata) {
    const auto *s = static_cast<SensorObject *>(userdata);
    return s->service->shown[s->index];
}

int getFigure(sd_bus *, const char *, const char *, const char *property, sd_bus_message *reply,
              void *userdata, sd_bus_error *) {
    const Reading &r = readingOf(userdata);
    const double value = std::strcmp(property, "Value") == 0      ? r.value
                         : std::strcmp(property, "MinValue") == 0 ? r.min
                                                                  : r.max;
    return sd_bus_message_append(reply, "d", value);
}

int getUnit(sd_bus *, const char *, const char *, const char *, sd_bus_message *reply,
            void *userdata, sd_bus_error *) {
    const auto *s = static_cast<SensorObject *>(userdata);
    return sd_bus_message_append(reply, "s", unitName(kSensors[s->index].unit));
}

int getAvailable(sd_bus *, const char *, const char *, const char *, sd_bus_message *reply,
                 void *userdata, sd_bus_error *) {
    return sd_bus_message_append(reply, "b", static_cast<int>(readingOf(userdata).available));
}

int getAssociations(sd_bus *, const char *, const char *, const char *, sd_bus_message *reply,
                    void *userdata, sd_bus_error *) {
    const auto *s = static_cast<SensorObject *>(userdata);
    return sd_bus_message_append(reply, "a(sss)", 1, "chassis", "all_sensors",
                                 s->service->options.chassis.c_str());
}

constexpr sd_bus_vtable kValueTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Value", "d", getFigure, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("MinValue", "d", getFigure, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("MaxValue", "d", getFigure, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("Unit", "s", getUnit, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_VTABLE_END};
constexpr sd_bus_vtable kAvailabilityTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Available", "b", getAvailable, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_VTABLE_END};
constexpr sd_bus_vtable kStatusTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Functional", "b", getAvailable, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_VTABLE_END};
constexpr sd_bus_vtable kAssociationTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Associations", "a(sss)", getAssociations, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_VTABLE_END};

// ---- The power cap ----

int getCap(sd_bus *, const char *, const char *, const char *property, sd_bus_message *reply,
           void *userdata, sd_bus_error *) {
    const CapLimits &c = static_cast<Service *>(userdata)->cap;
    if (std::strcmp(property, "PowerCapEnable") == 0)
        return sd_bus_message_append(reply, "b", static_cast<int>(c.enabled));
    if (std::strcmp(property, "PowerCap") == 0 && !c.cap) {
        // The daemon keeps the limits in the store, not the cap: the firmware
        // is asked, only when someone asks for it.
        const uint8_t handle = ZELO_GetModuleHandle(0);
        uint16_t watts = 0;
        if (handle == 0 || ZELO_ReadPcapRegister(handle, &watts) != ZELO_RC_SUCCESS)
            watts = 0;
        return sd_bus_message_append(reply, "u", uint32_t{watts});
    }
    const std::optional<uint32_t> &value = std::strcmp(property, "PowerCap") == 0           ? c.cap
                                           : std::strcmp(property, "MinPowerCapValue") == 0 ? c.min
                                           : std::strcmp(property, "MaxPowerCapValue") == 0
                                               ? c.max
                                               : c.softMin;
    return sd_bus_message_append(reply, "u", value.value_or(0));
}

bool Service::mayChangeCap(sd_bus_message *call) const {
    sd_bus_creds *creds = nullptr;
    if (sd_bus_query_sender_creds(call, SD_BUS_CREDS_EUID | SD_BUS_CREDS_UID | SD_BUS_CREDS_AUGMENT,
                                  &creds) < 0)
        return false;
    uid_t uid = 0;
    const bool known =
        sd_bus_creds_get_euid(creds, &uid) >= 0 || sd_bus_creds_get_uid(creds, &uid) >= 0;
    sd_bus_creds_unref(creds);
    if (!known)
        return false;
    if (uid == 0)
        return true;
    if (options.capGroup.empty())
        return false;
    const passwd *user = ::getpwuid(uid);
    if (user == nullptr)
        return false;
    int count = 64;
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    if (::getgrouplist(user->pw_name, user->pw_gid, groups.data(), &count) < 0) {
        groups.resize(static_cast<std::size_t>(count));
        if (::getgrouplist(user->pw_name, user->pw_gid, groups.data(), &count) < 0)
            return false;
    }
    groups.resize(static_cast<std::size_t>(count));
    return std::find(groups.begin(), groups.end(), capGid) != groups.end();
}

int setCap(sd_bus *bus, const char *, const char *, const char *property, sd_bus_message *value,
           void *userdata, sd_bus_error *error) {
    auto *service = static_cast<Service *>(userdata);
    if (!service->mayChangeCap(sd_bus_get_current_message(bus)))
        return sd_bus_error_setf(error, SD_BUS_ERROR_ACCESS_DENIED,
                                 "Only root%s%s may change the power cap",
                                 service->options.capGroup.empty() ? "" : " and group ",
                                 service->options.capGroup.c_str());
    if (std::strcmp(property, "PowerCapEnable") == 0) {
        int enable = 0;
        const int r = sd_bus_message_read(value, "b", &enable);
        if (r < 0)
            return r;
        if ((enable != 0) == service->cap.enabled)
            return 0;
        return sd_bus_error_set(error, kNotAllowed,
                                "Power capping is switched on or off in the host's POST power "
                                "settings; the firmware offers no register to change it");
    }
    uint32_t watts = 0;
    const int r = sd_bus_message_read(value, "u", &watts);
    if (r < 0)
        return r;
    // The limits the daemon published, else the firmware's own.
    service->readMissingLimits();
    const uint8_t handle = ZELO_GetModuleHandle(0);
    if (handle == 0 || !service->cap.min || !service->cap.max)
        return sd_bus_error_set(error, kInternalFailure,
                                "The firmware's power cap limits cannot be read");
    const uint32_t low = *service->cap.min, high = *service->cap.max;
    const bool enabled = ZELO_IsPowerCappingEnabled() != 0;
    if (enabled != service->cap.enabled) {
        service->cap.enabled = enabled;
        (void)sd_bus_emit_properties_changed(bus, kCapPath, kCapIface, "PowerCapEnable", nullptr);
    }
    switch (judgeCap(watts, enabled, low, high)) {
    case CapVerdict::NotEnabled:
        return sd_bus_error_set(error, kNotAllowed,
                                "Power capping is not enabled or not supported by the firmware");
    case CapVerdict::OutOfRange:
        return sd_bus_error_setf(error, kInvalidArgument,
                                 "A power cap of %u W is outside the firmware's limits, %u to %u W",
                                 watts, low, high);
    case CapVerdict::Accepted:
        break;
    }
    const uint8_t rc = ZELO_WritePcapRegister(handle, static_cast<uint16_t>(watts));
    if (rc != ZELO_RC_SUCCESS)
        return sd_bus_error_setf(error, kInternalFailure,
                                 "The firmware refused the power cap, result code %u", rc);
    if (service->cap.cap)
        service->cap.cap = watts;
    return 0;
}

constexpr sd_bus_vtable kCapTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_WRITABLE_PROPERTY("PowerCap", "u", getCap, setCap, 0,
                             SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_WRITABLE_PROPERTY("PowerCapEnable", "b", getCap, setCap, 0,
                             SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("MinPowerCapValue", "u", getCap, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("MaxPowerCapValue", "u", getCap, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("MinSoftPowerCapValue", "u", getCap, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_VTABLE_END};

// ---- Keeping current ----

// Limits the daemon has not published yet come from the firmware.
void Service::readMissingLimits() {
    const uint8_t handle = !cap.min || !cap.max || !cap.softMin ? ZELO_GetModuleHandle(0) : 0;
    if (handle == 0)
        return;
    const std::pair<std::optional<uint32_t> *, uint8_t (*)(uint8_t, uint16_t *)> limits[] = {
        {&cap.min, ZELO_ReadPcapMinRegister},
        {&cap.max, ZELO_ReadPcapMaxRegister},
        {&cap.softMin, ZELO_ReadPcapSoftMinRegister}};
    for (const auto &[limit, read] : limits) {
        uint16_t watts = 0;
        if (!*limit && read(handle, &watts) == ZELO_RC_SUCCESS)
            *limit = watts;
    }
}

void Service::refreshCap() {
    // What the store lacks stays as the firmware last told it.
    const auto keep = [](const char *key, const std::optional<uint32_t> &known) {
        const auto value = stored(key);
        return value ? value : known;
    };
    const CapLimits now{keep(kCapKey, cap.cap), keep(kCapMinKey, cap.min),
                        keep(kCapMaxKey, cap.max), keep(kCapSoftMinKey, cap.softMin), cap.enabled};
    if (now.cap != cap.cap || now.min != cap.min || now.max != cap.max ||
        now.softMin != cap.softMin) {
        cap = now;
        (void)sd_bus_emit_properties_changed(bus, kCapPath, kCapIface, "PowerCap", "PowerCapEnable",
                                             "MinPowerCapValue", "MaxPowerCapValue",
                                             "MinSoftPowerCapValue", nullptr);
    }
}

void Service::refresh() {
    // The log's reader would wait for a lock the running daemon holds, and
    // the bus with it; the lock's removal brings us back. A lock the daemon
    // left behind when it died the reader breaks at once.
    const bool running = watchDaemon();
    struct stat st {};
    if (running && ::stat(lockFile.c_str(), &st) == 0) {
        logChanged = true;
        return;
    }
    SnapshotBuffer *buffers = nullptr;
    BladeInletSensorBuffer *inlets = nullptr;
    PerfMetricSet *perfs = nullptr;
    uint8_t count = 0, skipped = 0;
    std::vector<Record> records;
    if (ReadMetricLog(&buffers, &inlets, &perfs, &count, &skipped) == ZELO_RC_SUCCESS) {
        for (uint8_t i = 0; i < count; ++i)
            records.push_back(toRecord(buffers[i], perfs != nullptr ? &perfs[i] : nullptr, blade));
        FreeMetricValue(buffers, inlets, perfs, count);
    }
    energy.add(records);
    Freshness fresh{running, 0};
    if (::stat(lastFile.c_str(), &st) == 0)
        fresh.ageSeconds = std::difftime(std::time(nullptr), st.st_mtime);
    const auto now = readings(records, fresh, energy.joules());
    for (std::size_t i = 0; i < now.size(); ++i) {
        const Reading before = shown[i];
        shown[i] = now[i];
        if (same(before, now[i]))
            continue;
        const char *path = sensors[i].path.c_str();
        (void)sd_bus_emit_properties_changed(bus, path, kValueIface, "Value", "MinValue",
                                             "MaxValue", nullptr);
        if (before.available != now[i].available) {
            (void)sd_bus_emit_properties_changed(bus, path, kAvailabilityIface, "Available",
                                                 nullptr);
            (void)sd_bus_emit_properties_changed(bus, path, kStatusIface, "Functional", nullptr);
        }
    }
    refreshCap();
    // A record that is not followed in time is shown as stale then.
    const bool live = now[0].available || now[1].available;
    if (live)
        armTimer(3 * periodSeconds(records) - fresh.ageSeconds + 1);
    logChanged = false;
}

int onDaemonExit(sd_event_source *, int, uint32_t, void *userdata) {
    auto *service = static_cast<Service *>(userdata);
    service->daemonExit = sd_event_source_disable_unref(service->daemonExit);
    service->daemonPid = 0;
    service->refresh();
    return 0;
}

// Whether the daemon runs; its end, however it comes, is noticed at once
// through a descriptor of its process.
bool Service::watchDaemon() {
    const pid_t pid = runningDaemon(pidFile);
    if (pid != daemonPid) {
        daemonExit = sd_event_source_disable_unref(daemonExit);
        daemonPid = 0;
        const int fd = pid > 0 ? static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)) : -1;
        if (fd >= 0 && sd_event_add_io(event, &daemonExit, fd, EPOLLIN, onDaemonExit, this) >= 0) {
            (void)sd_event_source_set_io_fd_own(daemonExit, 1);
            daemonPid = pid;
        } else if (fd >= 0) {
            ::close(fd);
        }
    }
    return pid > 0;
}

int onTimer(sd_event_source *, uint64_t, void *userdata) {
    auto *service = static_cast<Service *>(userdata);
    if (service->logWatch == nullptr)
        service->watch(); // the log directory may be there now
    service->refresh();
    return 0;
}

void Service::armTimer(double seconds) {
    const auto usec = static_cast<uint64_t>(std::max(seconds, 1.0) * 1e6);
    if (timer == nullptr) {
        (void)sd_event_add_time_relative(event, &timer, CLOCK_MONOTONIC, usec, 100000, onTimer,
                                         this);
        return;
    }
    (void)sd_event_source_set_time_relative(timer, usec);
    (void)sd_event_source_set_enabled(timer, SD_EVENT_ONESHOT);
}

// A record is complete once the daemon's cycle removes the log's lock; the
// counter file says that one was written.
int onLogEvent(sd_event_source *source, const struct inotify_event *e, void *userdata) {
    auto *service = static_cast<Service *>(userdata);
    if ((e->mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) != 0) {
        sd_event_source_unref(source);
        service->logWatch = nullptr;
        service->armTimer(10); // until the daemon makes the directory again
        return 0;
    }
    const bool lock = std::strcmp(e->name, "zelo.lock") == 0;
    if (!lock && (std::strcmp(e->name, "zelo_last.log") == 0 || (e->mask & IN_DELETE) != 0))
        service->logChanged = true;
    if (lock && (e->mask & IN_DELETE) != 0 && service->logChanged)
        service->refresh();
    return 0;
}

int onRunEvent(sd_event_source *, const struct inotify_event *e, void *userdata) {
    if (e->len > 0 && std::strcmp(e->name, "zelo.pid") == 0)
        static_cast<Service *>(userdata)->refresh(); // the daemon started or ended
    return 0;
}

void Service::watch() {
    const uint32_t mask =
        IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
    if (logWatch == nullptr &&
        sd_event_add_inotify(event, &logWatch, logDir.c_str(), mask, onLogEvent, this) < 0)
        logWatch = nullptr;
    if (runWatch == nullptr &&
        sd_event_add_inotify(event, &runWatch, runDir.c_str(),
                             IN_MODIFY | IN_CLOSE_WRITE | IN_DELETE | IN_ONLYDIR, onRunEvent,
                             this) < 0)
        runWatch = nullptr;
    if (logWatch == nullptr)
        armTimer(10);
}

int fail(const char *what, int r) {
    std::fprintf(stderr, "zelo-dbus: %s: %s\n", what, std::strerror(-r));
    return 1;
}

} // namespace

int serve(const Options &options) {
    auto service = std::make_unique<Service>();
    Service &s = *service;
    s.options = options;
    s.blade = IsBladeServer() != 0;
    if (!options.capGroup.empty()) {
        const group *g = ::getgrnam(options.capGroup.c_str());
        if (g == nullptr) {
            std::fprintf(stderr, "zelo-dbus: no group '%s' (--cap-group)\n",
                         options.capGroup.c_str());
            return 1;
        }
        s.capGid = g->gr_gid;
    }
    int r = sd_event_default(&s.event);
    if (r < 0)
        return fail("no event loop", r);
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    sigprocmask(SIG_BLOCK, &stop, nullptr);
    (void)sd_event_add_signal(s.event, nullptr, SIGTERM, nullptr, nullptr);
    (void)sd_event_add_signal(s.event, nullptr, SIGINT, nullptr, nullptr);
    if ((r = sd_bus_open_system(&s.bus)) < 0)
        return fail("cannot connect to the system bus", r);
    // Gone bus, gone service: systemd starts it again.
    (void)sd_bus_set_exit_on_disconnect(s.bus, 1);
    if ((r = sd_bus_attach_event(s.bus, s.event, SD_EVENT_PRIORITY_NORMAL)) < 0)
        return fail("cannot attach to the event loop", r);

    sd_bus_slot *slot = nullptr;
    if ((r = sd_bus_add_object_manager(s.bus, &slot, kSensorsRoot)) < 0)
        return fail("cannot add the object manager", r);
    s.slots.push_back(slot);
    s.sensors.reserve(kSensors.size());
    for (std::size_t i = 0; i < kSensors.size(); ++i) {
        s.sensors.push_back(
            {&s, i, std::string(kSensorsRoot) + "/" + kSensors[i].kind + "/" + kSensors[i].name});
        SensorObject &object = s.sensors.back();
        const std::pair<const char *, const sd_bus_vtable *> tables[] = {
            {kValueIface, kValueTable},
            {kAvailabilityIface, kAvailabilityTable},
            {kStatusIface, kStatusTable},
            {kAssociationIface, kAssociationTable}};
        for (const auto &[iface, table] : tables) {
            if ((r = sd_bus_add_object_vtable(s.bus, &slot, object.path.c_str(), iface, table,
                                              &object)) < 0)
                return fail("cannot add a sensor", r);
            s.slots.push_back(slot);
        }
    }
    if ((r = sd_bus_add_object_vtable(s.bus, &slot, kCapPath, kCapIface, kCapTable, &s)) < 0)
        return fail("cannot add the power cap", r);
    s.slots.push_back(slot);

    s.watch();
    s.refresh();
    // Whether capping is on only the firmware tells: asked once here, and
    // again at every set.
    s.cap.enabled = ZELO_IsPowerCappingEnabled() != 0;
    s.readMissingLimits();
    if ((r = sd_bus_request_name(s.bus, kBusName, 0)) < 0)
        return fail("cannot own the bus name", r);
    for (const SensorObject &object : s.sensors)
        (void)sd_bus_emit_object_added(s.bus, object.path.c_str());
    r = sd_event_loop(s.event);
    return r < 0 ? fail("event loop", r) : r;
}

} // namespace zelo::bus
