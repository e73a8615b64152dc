#include "clients/NetworkDaemonDbusHandler.h"

#include "SiblingCall.h"
#include "clients/NetworkOperations.h"
#include "logging/Log.h"

namespace Networkd {

namespace {

constexpr const char* kListen = "int Networkd::NetworkDaemonDbusHandler::Listen()";
constexpr const char* kChanged =
    "static int Networkd::NetworkDaemonDbusHandler::NetworkPropertiesChanged(sd_bus_message*, void*, "
    "sd_bus_error*)";

// the operation's row in kOperations, found while compiling
constexpr std::size_t At(std::string_view name) {
    return SiblingCall::IndexOf(kOperations, name);
}

}  // namespace

AccessPoint AccessPoint::From(const sdbus_utils::AccessPointTuple& entry) {
    AccessPoint ap;
    std::tie(ap.ssid, ap.channel, ap.signal, ap.secured) = entry;
    return ap;
}

NetworkDaemonDbusHandler::NetworkDaemonDbusHandler(sd_event* loop) : DbusListener(loop) {}

int NetworkDaemonDbusHandler::Listen() {
    const int connected = DbusConnector::Connect();
    if (connected < 0) {
        Logging::Log(LOG_ERR, "Failed to connect to the dbus, %s", kListen);
        return connected;
    }
    const int listening =
        ListenSignal(kService, kObjectPath, "org.freedesktop.DBus.Properties", "PropertiesChanged",
                     &NetworkDaemonDbusHandler::NetworkPropertiesChanged, this);
    const int result = connected | listening;
    if (result < 0)
        Logging::Log(LOG_ERR, "Failed to register %s signal, %s", "PropertiesChanged", kListen);
    if (result != 0) {
        Logging::Log(LOG_ERR, "Storage: Failed to init signal listeners");
        DbusConnector::Disconnect();
    }
    return result;
}

int NetworkDaemonDbusHandler::NetworkPropertiesChanged(sd_bus_message* message, void* userdata,
                                                       sd_bus_error*) {
    auto* self = static_cast<NetworkDaemonDbusHandler*>(userdata);
    const int skipped = sd_bus_message_skip(message, "s");
    if (skipped < 0) {
        Logging::Log(LOG_ERR, "%s: Failed to skip interface string", kChanged);
        return skipped;
    }
    sdbus_utils::TypedPropertyMap changed;
    const int r = sdbus_utils::ParsePropertiesWithType(message, changed);
    if (r < 0) {
        Logging::Log(LOG_ERR, "%s: ParsePropertiesWithType failed:%d", kChanged, r);
        return -1;
    }
    self->propertiesChanged.emit(changed);
    return 0;
}

int NetworkDaemonDbusHandler::GetAllNetworkProperties(sdbus_utils::TypedPropertyMap& properties) {
    return SiblingCall::GetAll<kOperations, At("GetAllNetworkProperties")>(properties);
}

int NetworkDaemonDbusHandler::Scan() {
    return SiblingCall::Call<kOperations, At("Scan")>();
}

int NetworkDaemonDbusHandler::Connect(const std::string& ssid, const std::string& passphrase) {
    return SiblingCall::Call<kOperations, At("Connect")>(SiblingCall::Args(ssid, passphrase));
}

int NetworkDaemonDbusHandler::Disconnect() {
    return SiblingCall::Call<kOperations, At("Disconnect")>();
}

int NetworkDaemonDbusHandler::SetMode(const std::string& mode) {
    return SiblingCall::Set<kOperations, At("SetMode")>(mode);
}

int NetworkDaemonDbusHandler::GetMode(std::string& mode) {
    return SiblingCall::Get<kOperations, At("GetMode")>(mode);
}

int NetworkDaemonDbusHandler::SetSSID(const std::string& ssid) {
    return SiblingCall::Set<kOperations, At("SetSSID")>(ssid);
}

int NetworkDaemonDbusHandler::GetSSID(std::string& ssid) {
    return SiblingCall::Get<kOperations, At("GetSSID")>(ssid);
}

int NetworkDaemonDbusHandler::SetFrequency(const std::string& frequency) {
    return SiblingCall::Set<kOperations, At("SetFrequency")>(frequency);
}

int NetworkDaemonDbusHandler::GetFrequency(std::string& frequency) {
    return SiblingCall::Get<kOperations, At("GetFrequency")>(frequency);
}

int NetworkDaemonDbusHandler::GetAvailableFrequencies(std::vector<std::string>& frequencies) {
    return SiblingCall::Get<kOperations, At("GetAvailableFrequencies")>(frequencies);
}

int NetworkDaemonDbusHandler::GetClients(uint32_t& clients) {
    return SiblingCall::Get<kOperations, At("GetClients")>(clients);
}

int NetworkDaemonDbusHandler::GetIpAddress(std::string& address) {
    return SiblingCall::Get<kOperations, At("GetIpAddress")>(address);
}

int NetworkDaemonDbusHandler::GetMacAddress(std::string& address) {
    return SiblingCall::Get<kOperations, At("GetMacAddress")>(address);
}

int NetworkDaemonDbusHandler::GetSignal(uint32_t& signal) {
    return SiblingCall::Get<kOperations, At("GetSignal")>(signal);
}

int NetworkDaemonDbusHandler::GetClientState(uint32_t& state) {
    return SiblingCall::Get<kOperations, At("GetClientState")>(state);
}

int NetworkDaemonDbusHandler::GetClientSSID(std::string& ssid) {
    return SiblingCall::Get<kOperations, At("GetClientSSID")>(ssid);
}

int NetworkDaemonDbusHandler::SetPower(uint32_t state) {
    return SiblingCall::Set<kOperations, At("SetPower")>(state);
}

int NetworkDaemonDbusHandler::GetPower(uint32_t& state) {
    return SiblingCall::Get<kOperations, At("GetPower")>(state);
}

int NetworkDaemonDbusHandler::GetAccessPointInitialised(bool& initialised) {
    return SiblingCall::Get<kOperations, At("GetAccessPointInitialised")>(initialised);
}

int NetworkDaemonDbusHandler::GetAccessPoints(std::vector<AccessPoint>& accessPoints) {
    std::vector<sdbus_utils::AccessPointTuple> entries;
    const int r = SiblingCall::Get<kOperations, At("GetAccessPoints")>(entries);
    if (r < 0)
        return r;
    std::vector<AccessPoint> list;
    list.reserve(entries.size());
    for (const auto& entry : entries)
        list.push_back(AccessPoint::From(entry));
    accessPoints = std::move(list);
    return r;
}

}  // namespace Networkd
