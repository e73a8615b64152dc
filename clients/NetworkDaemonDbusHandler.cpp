#include "clients/NetworkDaemonDbusHandler.h"

#include "SiblingCall.h"
#include "logging/Log.h"

namespace Networkd {

namespace {

constexpr const char* kListen = "int Networkd::NetworkDaemonDbusHandler::Listen()";
constexpr const char* kChanged =
    "static int Networkd::NetworkDaemonDbusHandler::NetworkPropertiesChanged(sd_bus_message*, void*, "
    "sd_bus_error*)";

template <typename T>
int Get(const char* where, const char* macro, const char* member, T& value) {
    return SiblingCall::GetProperty(where, macro, kService, kObjectPath, kInterface, member, value);
}

template <typename T>
int Set(const char* where, const char* macro, const char* member, const T& value) {
    return SiblingCall::SetProperty(where, macro, kService, kObjectPath, kInterface, member, value);
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
    self->propertiesChanged_.emit(changed);
    return 0;
}

int NetworkDaemonDbusHandler::GetAllNetworkProperties(sdbus_utils::TypedPropertyMap& properties) {
    std::string error;
    const int r =
        sdbus_utils::GetAllProperties(nullptr, kService, kObjectPath, kInterface, properties, error);
    if (r < 0)
        Logging::Log(LOG_ERR, "%s: sdbus_utils::GetAllProperties failed %s",
                     "static int Networkd::NetworkDaemonDbusHandler::GetAllNetworkProperties("
                     "sdbus_utils::TypedPropertyMap&)",
                     error.c_str());
    return r;
}

int NetworkDaemonDbusHandler::Scan() {
    return SiblingCall::LoggedMethod("static int Networkd::NetworkDaemonDbusHandler::Scan()",
                                     "QUORBEL_NETMAN_METHOD_SCAN", kService, kObjectPath, kInterface, "Scan");
}

int NetworkDaemonDbusHandler::Connect(const std::string& ssid, const std::string& passphrase) {
    return SiblingCall::LoggedMethod(
        "static int Networkd::NetworkDaemonDbusHandler::Connect(const std::string&, const std::string&)",
        "QUORBEL_NETMAN_METHOD_CONNECT", kService, kObjectPath, kInterface, "Connect",
        SiblingCall::Args(ssid, passphrase));
}

int NetworkDaemonDbusHandler::Disconnect() {
    return SiblingCall::LoggedMethod("static int Networkd::NetworkDaemonDbusHandler::Disconnect()",
                                     "QUORBEL_NETMAN_METHOD_DISCONNECT", kService, kObjectPath, kInterface,
                                     "Disconnect");
}

int NetworkDaemonDbusHandler::SetMode(const std::string& mode) {
    return Set("static int Networkd::NetworkDaemonDbusHandler::SetMode(const std::string&)",
               "QUORBEL_NETMAN_PROP_MODE", "Mode", mode);
}

int NetworkDaemonDbusHandler::GetMode(std::string& mode) {
    return Get("static int Networkd::NetworkDaemonDbusHandler::GetMode(std::string&)",
               "QUORBEL_NETMAN_PROP_MODE", "Mode", mode);
}

int NetworkDaemonDbusHandler::SetSSID(const std::string& ssid) {
    return Set("static int Networkd::NetworkDaemonDbusHandler::SetSSID(const std::string&)",
               "QUORBEL_NETMAN_PROP_SSID", "SSID", ssid);
}

int NetworkDaemonDbusHandler::GetSSID(std::string& ssid) {
    return Get("static int Networkd::NetworkDaemonDbusHandler::GetSSID(std::string&)",
               "QUORBEL_NETMAN_PROP_SSID", "SSID", ssid);
}

int NetworkDaemonDbusHandler::SetFrequency(const std::string& frequency) {
    return Set("static int Networkd::NetworkDaemonDbusHandler::SetFrequency(const std::string&)",
               "QUORBEL_NETMAN_PROP_FREQ", "WiFiFrequency", frequency);
}

int NetworkDaemonDbusHandler::GetFrequency(std::string& frequency) {
    return Get("static int Networkd::NetworkDaemonDbusHandler::GetFrequency(std::string&)",
               "QUORBEL_NETMAN_PROP_FREQ", "WiFiFrequency", frequency);
}

int NetworkDaemonDbusHandler::GetAvailableFrequencies(std::vector<std::string>& frequencies) {
    return Get(
        "static int Networkd::NetworkDaemonDbusHandler::GetAvailableFrequencies(std::vector<std::string>&)",
        "QUORBEL_NETMAN_PROP_AV_FREQS", "WiFiAvailableFrequencies", frequencies);
}

int NetworkDaemonDbusHandler::GetClients(uint32_t& clients) {
    return Get("static int Networkd::NetworkDaemonDbusHandler::GetClients(uint32_t&)",
               "QUORBEL_NETMAN_PROP_CLIENTS", "WiFiConnectedClients", clients);
}

int NetworkDaemonDbusHandler::GetIpAddress(std::string& address) {
    return Get("static int Networkd::NetworkDaemonDbusHandler::GetIpAddress(std::string&)",
               "QUORBEL_NETMAN_PROP_IP", "IPAddress", address);
}

int NetworkDaemonDbusHandler::GetMacAddress(std::string& address) {
    return Get("static int Networkd::NetworkDaemonDbusHandler::GetMacAddress(std::string&)",
               "QUORBEL_NETMAN_PROP_MAC", "MacAddress", address);
}

int NetworkDaemonDbusHandler::GetSignal(uint32_t& signal) {
    return Get("static int Networkd::NetworkDaemonDbusHandler::GetSignal(uint32_t&)",
               "QUORBEL_NETMAN_PROP_SIG", "WiFiSignal", signal);
}

int NetworkDaemonDbusHandler::GetClientState(uint32_t& state) {
    return Get("static int Networkd::NetworkDaemonDbusHandler::GetClientState(uint32_t&)",
               "QUORBEL_NETMAN_PROP_CLIENT_STATE", "WiFiClientState", state);
}

int NetworkDaemonDbusHandler::GetClientSSID(std::string& ssid) {
    // logs with the SSID word, as it always has
    return Get("static int Networkd::NetworkDaemonDbusHandler::GetClientSSID(std::string&)",
               "QUORBEL_NETMAN_PROP_SSID", "ClientSSID", ssid);
}

int NetworkDaemonDbusHandler::SetPower(uint32_t state) {
    return Set("static int Networkd::NetworkDaemonDbusHandler::SetPower(uint32_t)",
               "QUORBEL_NETMAN_PROP_STATE", "WiFiState", state);
}

int NetworkDaemonDbusHandler::GetPower(uint32_t& state) {
    return Get("static int Networkd::NetworkDaemonDbusHandler::GetPower(uint32_t&)",
               "QUORBEL_NETMAN_PROP_STATE", "WiFiState", state);
}

int NetworkDaemonDbusHandler::GetAccessPointInitialised(bool& initialised) {
    // logs with the STATE word, as it always has
    return Get("static int Networkd::NetworkDaemonDbusHandler::GetAccessPointInitialised(bool&)",
               "QUORBEL_NETMAN_PROP_STATE", "WiFiAccessPointInitialised", initialised);
}

int NetworkDaemonDbusHandler::GetAccessPoints(std::vector<AccessPoint>& accessPoints) {
    std::vector<sdbus_utils::AccessPointTuple> entries;
    const int r =
        Get("static int Networkd::NetworkDaemonDbusHandler::GetAccessPoints(std::vector<AccessPoint>&)",
            "QUORBEL_NETMAN_PROP_ACCESS_POINTS", "AccessPoints", entries);
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
