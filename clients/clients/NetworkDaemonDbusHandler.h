#pragma once
// Client of the unit's network daemon (com.quorbel.Network1 on the user bus, object /com/quorbel/Network1,
// interface com.quorbel.Network1.WiFi): its property changes as a signal, and static reads, writes and
// method calls, each on a fresh connection of the calling thread. Results: 0 or positive on success, a
// negative error (logged) on failure; out values are only written on success.

#include <sigc++/sigc++.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <string>
#include <vector>

#include "dbus_helper/DbusConnector.h"
#include "dbus_helper/SdbusUtils.h"

namespace Networkd {

inline constexpr const char* kService = "com.quorbel.Network1";
inline constexpr const char* kObjectPath = "/com/quorbel/Network1";
inline constexpr const char* kInterface = "com.quorbel.Network1.WiFi";

// One entry of the "AccessPoints" property, D-Bus "(siib)".
struct AccessPoint {
    std::string ssid;
    int32_t channel = 0;
    int32_t signal = 0;  // dBm
    bool secured = false;

    static AccessPoint From(const sdbus_utils::AccessPointTuple& entry);
    bool operator==(const AccessPoint& other) const {
        return ssid == other.ssid && channel == other.channel && signal == other.signal &&
               secured == other.secured;
    }
};

using PropertiesChangedSignal = sigc::signal<void, sdbus_utils::TypedPropertyMap&>;

class NetworkDaemonDbusHandler : public DbusHelper::DbusListener {
  public:
    explicit NetworkDaemonDbusHandler(sd_event* loop);

    // Connects and subscribes to the Wi-Fi object's PropertiesChanged. 0, or the negative error (logged).
    int Listen();
    PropertiesChangedSignal& PropertiesChanged() { return propertiesChanged; }

    // All Wi-Fi properties (entries added to `properties`).
    static int GetAllNetworkProperties(sdbus_utils::TypedPropertyMap& properties);

    // Connect() and Disconnect() below are the Wi-Fi methods; they hide the listener's own, which stay
    // reachable as DbusConnector::Connect() / DbusConnector::Disconnect().
    static int Scan();
    static int Connect(const std::string& ssid, const std::string& passphrase);
    static int Disconnect();
    static int SetMode(const std::string& mode);
    static int GetMode(std::string& mode);
    static int SetSSID(const std::string& ssid);
    static int GetSSID(std::string& ssid);
    static int SetFrequency(const std::string& frequency);
    static int GetFrequency(std::string& frequency);
    static int GetAvailableFrequencies(std::vector<std::string>& frequencies);
    static int GetClients(uint32_t& clients);
    static int GetIpAddress(std::string& address);
    static int GetMacAddress(std::string& address);
    static int GetSignal(uint32_t& signal);
    static int GetClientState(uint32_t& state);
    static int GetClientSSID(std::string& ssid);
    static int SetPower(uint32_t state);
    static int GetPower(uint32_t& state);
    static int GetAccessPointInitialised(bool& initialised);
    static int GetAccessPoints(std::vector<AccessPoint>& accessPoints);

    // The PropertiesChanged callback; user data is the handler.
    static int NetworkPropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error* error);

  private:
    PropertiesChangedSignal propertiesChanged;
};

}  // namespace Networkd
