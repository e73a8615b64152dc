#pragma once
// The network client's static operations, one row each.

#include "clients/NetworkDaemonDbusHandler.h"
#include "clients/SiblingOperation.h"

namespace Networkd {

inline constexpr SiblingCall::ObjectInterface kWiFi{kService, kObjectPath, nullptr, kInterface};

inline constexpr SiblingCall::Operation kOperations[] = {
    kWiFi.GetAll("GetAllNetworkProperties",
                 "static int Networkd::NetworkDaemonDbusHandler::GetAllNetworkProperties("
                 "sdbus_utils::TypedPropertyMap&)"),
    kWiFi.Method("Scan", "static int Networkd::NetworkDaemonDbusHandler::Scan()",
                 "QUORBEL_NETMAN_METHOD_SCAN", "Scan"),
    kWiFi.Method(
        "Connect",
        "static int Networkd::NetworkDaemonDbusHandler::Connect(const std::string&, const std::string&)",
        "QUORBEL_NETMAN_METHOD_CONNECT", "Connect"),
    kWiFi.Method("Disconnect", "static int Networkd::NetworkDaemonDbusHandler::Disconnect()",
                 "QUORBEL_NETMAN_METHOD_DISCONNECT", "Disconnect"),
    kWiFi.Set("SetMode", "static int Networkd::NetworkDaemonDbusHandler::SetMode(const std::string&)",
              "QUORBEL_NETMAN_PROP_MODE", "Mode"),
    kWiFi.Get("GetMode", "static int Networkd::NetworkDaemonDbusHandler::GetMode(std::string&)",
              "QUORBEL_NETMAN_PROP_MODE", "Mode"),
    kWiFi.Set("SetSSID", "static int Networkd::NetworkDaemonDbusHandler::SetSSID(const std::string&)",
              "QUORBEL_NETMAN_PROP_SSID", "SSID"),
    kWiFi.Get("GetSSID", "static int Networkd::NetworkDaemonDbusHandler::GetSSID(std::string&)",
              "QUORBEL_NETMAN_PROP_SSID", "SSID"),
    kWiFi.Set("SetFrequency",
              "static int Networkd::NetworkDaemonDbusHandler::SetFrequency(const std::string&)",
              "QUORBEL_NETMAN_PROP_FREQ", "WiFiFrequency"),
    kWiFi.Get("GetFrequency", "static int Networkd::NetworkDaemonDbusHandler::GetFrequency(std::string&)",
              "QUORBEL_NETMAN_PROP_FREQ", "WiFiFrequency"),
    kWiFi.Get(
        "GetAvailableFrequencies",
        "static int Networkd::NetworkDaemonDbusHandler::GetAvailableFrequencies(std::vector<std::string>&)",
        "QUORBEL_NETMAN_PROP_AV_FREQS", "WiFiAvailableFrequencies"),
    kWiFi.Get("GetClients", "static int Networkd::NetworkDaemonDbusHandler::GetClients(uint32_t&)",
              "QUORBEL_NETMAN_PROP_CLIENTS", "WiFiConnectedClients"),
    kWiFi.Get("GetIpAddress", "static int Networkd::NetworkDaemonDbusHandler::GetIpAddress(std::string&)",
              "QUORBEL_NETMAN_PROP_IP", "IPAddress"),
    kWiFi.Get("GetMacAddress", "static int Networkd::NetworkDaemonDbusHandler::GetMacAddress(std::string&)",
              "QUORBEL_NETMAN_PROP_MAC", "MacAddress"),
    kWiFi.Get("GetSignal", "static int Networkd::NetworkDaemonDbusHandler::GetSignal(uint32_t&)",
              "QUORBEL_NETMAN_PROP_SIG", "WiFiSignal"),
    kWiFi.Get("GetClientState", "static int Networkd::NetworkDaemonDbusHandler::GetClientState(uint32_t&)",
              "QUORBEL_NETMAN_PROP_CLIENT_STATE", "WiFiClientState"),
    // logs with the SSID word, as it always has
    kWiFi.Get("GetClientSSID", "static int Networkd::NetworkDaemonDbusHandler::GetClientSSID(std::string&)",
              "QUORBEL_NETMAN_PROP_SSID", "ClientSSID"),
    kWiFi.Set("SetPower", "static int Networkd::NetworkDaemonDbusHandler::SetPower(uint32_t)",
              "QUORBEL_NETMAN_PROP_STATE", "WiFiState"),
    kWiFi.Get("GetPower", "static int Networkd::NetworkDaemonDbusHandler::GetPower(uint32_t&)",
              "QUORBEL_NETMAN_PROP_STATE", "WiFiState"),
    // logs with the STATE word, as it always has
    kWiFi.Get("GetAccessPointInitialised",
              "static int Networkd::NetworkDaemonDbusHandler::GetAccessPointInitialised(bool&)",
              "QUORBEL_NETMAN_PROP_STATE", "WiFiAccessPointInitialised"),
    kWiFi.Get("GetAccessPoints",
              "static int Networkd::NetworkDaemonDbusHandler::GetAccessPoints(std::vector<AccessPoint>&)",
              "QUORBEL_NETMAN_PROP_ACCESS_POINTS", "AccessPoints"),
};

}  // namespace Networkd
