// Method calls and property Get, Set and GetAll from a client into the daemon's Radio, Advert and Scanner
// objects, registered by BluetoothDbusServer::Run() on a direct connection (no bus daemon), over the
// controller on fakes. Each input is a short run of calls: the members of the three interfaces and of
// the standard ones, unknown members and interfaces, with their own arguments or with any others.
//
// Every call gets exactly one reply; a return carries the member's declared signature and what the
// controller holds; a Set of the right type changes exactly that value and anything else changes none;
// a configuration request for an address the scanner does not list is DeviceNotFound; both ends of the
// connection stay open.
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <systemd/sd-id128.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "BusValues.h"
#include "FuzzSupport.h"
#include "controller/BluetoothController.h"
#include "dbus/BluetoothDbusServer.h"
#include "dbus/Names.h"
#include "dbus_helper/Handles.h"
#include "scanned_device/Json.h"
#include "scanned_device/RemoteCamera.h"
#include "test_support/FakeAdvertiser.h"
#include "test_support/FakeRadio.h"
#include "test_support/FakeScanner.h"
#include "vocabulary/Vocabulary.h"

namespace {

using Fuzz::Check;
using Fuzz::Value;

constexpr const char* kPropertiesInterface = "org.freedesktop.DBus.Properties";
constexpr const char* kPeerInterface = "org.freedesktop.DBus.Peer";
constexpr const char* kIntrospectableInterface = "org.freedesktop.DBus.Introspectable";
constexpr const char* kObjectManagerInterface = "org.freedesktop.DBus.ObjectManager";

constexpr const char* kCameraMac = "C0:FF:EE:00:00:01";
constexpr const char* kOtherUnitMac = "AA:00:00:00:00:02";

constexpr int kMaxCalls = 8;
// Far more rounds than a call and its reply take; more means a connection that never goes quiet.
constexpr int kMaxRounds = 256;

struct Property {
    const char* interface;
    const char* name;
    const char* signature;
    bool writable;
};

const std::vector<Property> kPropertyTable = {
    {BluetoothDbus::kRadioInterface, "Powered", "b", true},
    {BluetoothDbus::kRadioInterface, "Pairable", "b", true},
    {BluetoothDbus::kRadioInterface, "Discoverable", "b", true},
    {BluetoothDbus::kAdvertInterface, "Advertising", "b", true},
    {BluetoothDbus::kAdvertInterface, "AdvertSchema", "i", true},
    {BluetoothDbus::kScannerInterface, "AutoScan", "b", true},
    {BluetoothDbus::kScannerInterface, "AutoScanRateSecs", "i", true},
    {BluetoothDbus::kScannerInterface, "ScannedDevices", "s", false},
    {BluetoothDbus::kScannerInterface, "RemoteCameras", "s", false},
};

enum MemberId {
    kConfigKelpBle,
    kScan,
    kReadKelpBle,
    kGet,
    kSet,
    kGetAll,
    kIntrospect,
    kPing,
    kGetMachineId,
    kGetManagedObjects,
    kMemberCount
};

struct Member {
    const char* interface;
    const char* name;
    const char* in;
    const char* out;
};

// In MemberId order; make-corpus.py draws them by index.
const Member kMembers[kMemberCount] = {
    {BluetoothDbus::kRadioInterface, "ConfigKelpBle", "s", ""},
    {BluetoothDbus::kScannerInterface, "Scan", "", "s"},
    {BluetoothDbus::kScannerInterface, "ReadKelpBle", "", ""},
    {kPropertiesInterface, "Get", "ss", "v"},
    {kPropertiesInterface, "Set", "ssv", ""},
    {kPropertiesInterface, "GetAll", "s", "a{sv}"},
    {kIntrospectableInterface, "Introspect", "", "s"},
    {kPeerInterface, "Ping", "", ""},
    {kPeerInterface, "GetMachineId", "", "s"},
    {kObjectManagerInterface, "GetManagedObjects", "", "a{oa{sa{sv}}}"},
};

// Interfaces and members a call may name besides the table's pairs: any pairing of them, signals and
// properties called as methods, a made-up interface.
const std::vector<std::string> kCallInterfaces = {BluetoothDbus::kRadioInterface,
                                                  BluetoothDbus::kAdvertInterface,
                                                  BluetoothDbus::kScannerInterface,
                                                  kPropertiesInterface,
                                                  kPeerInterface,
                                                  kIntrospectableInterface,
                                                  kObjectManagerInterface,
                                                  "com.quorbel.common.Bluetooth1.Nope"};
const std::vector<std::string> kCallMembers = {"ConfigKelpBle",
                                               "Scan",
                                               "ReadKelpBle",
                                               "Get",
                                               "Set",
                                               "GetAll",
                                               "Introspect",
                                               "Ping",
                                               "GetMachineId",
                                               "GetManagedObjects",
                                               "Powered",
                                               "ConfiguredKelpBle",
                                               "DiscoveredRemoteCamera",
                                               "NewKelpBleData",
                                               "PropertiesChanged",
                                               "InterfacesAdded"};

// Arguments: the fake scanner's two addresses and near misses; interfaces and property names.
const std::vector<std::string> kAddresses = {kCameraMac, kOtherUnitMac, "C0:FF:EE:00:00:02",
                                             "c0:ff:ee:00:00:01", ""};
const std::vector<std::string> kInterfaceArgs = {BluetoothDbus::kRadioInterface,
                                                 BluetoothDbus::kAdvertInterface,
                                                 BluetoothDbus::kScannerInterface,
                                                 "",
                                                 kPropertiesInterface,
                                                 kPeerInterface,
                                                 kIntrospectableInterface,
                                                 kObjectManagerInterface,
                                                 "com.quorbel.common.Bluetooth1.Nope"};
const std::vector<std::string> kNameArgs = {"Powered",       "Pairable", "Discoverable",     "Advertising",
                                            "AdvertSchema",  "AutoScan", "AutoScanRateSecs", "ScannedDevices",
                                            "RemoteCameras", "Nope",     "ConfigKelpBle",    "powered"};

// The properties' types first, so that a Set often carries the right one.
const std::vector<std::string> kHints = {"b", "i", "s", "u", "v", "as", "a{sv}", "ay"};

const Property* FindProperty(const std::string& interface, const std::string& name) {
    for (const Property& property : kPropertyTable) {
        if (interface == property.interface && name == property.name)
            return &property;
    }
    return nullptr;
}

std::vector<const Property*> PropertiesOf(const std::string& interface) {
    std::vector<const Property*> found;
    for (const Property& property : kPropertyTable) {
        if (interface.empty() || interface == property.interface)
            found.push_back(&property);
    }
    return found;
}

bool IsOurs(const std::string& interface) {
    return interface == BluetoothDbus::kRadioInterface || interface == BluetoothDbus::kAdvertInterface ||
           interface == BluetoothDbus::kScannerInterface;
}

bool IsStandard(const std::string& interface) {
    return interface == kPropertiesInterface || interface == kPeerInterface ||
           interface == kIntrospectableInterface || interface == kObjectManagerInterface;
}

// Property name -> its value as Fuzz::Render writes it.
using Values = std::map<std::string, std::string>;

// The daemon's server on one end of a socket pair: what Run() registers, with no bus daemon to own a
// name on.
class DirectServer : public BluetoothDbusServer {
  public:
    DirectServer(std::shared_ptr<BluetoothController> controller, sd_event* loop, int serverEnd)
        : BluetoothDbusServer(std::move(controller), loop), fd(serverEnd) {}

  protected:
    int OpenBus(sd_bus** connection) override {
        sd_id128_t id;
        Check(sd_id128_randomize(&id) >= 0, "sd_id128_randomize");
        sd_bus* bus = nullptr;
        Check(sd_bus_new(&bus) >= 0, "sd_bus_new server");
        Check(sd_bus_set_fd(bus, fd, fd) >= 0, "sd_bus_set_fd server");
        Check(sd_bus_set_server(bus, 1, id) >= 0, "sd_bus_set_server");
        // as the user bus the daemon serves on: setting a property takes no privilege there
        Check(sd_bus_set_trusted(bus, 1) >= 0, "sd_bus_set_trusted");
        Check(sd_bus_start(bus) >= 0, "sd_bus_start server");
        *connection = bus;
        return 0;
    }

  private:
    int fd;
};

// One call's reply as the client saw it.
struct Reply {
    DbusHelper::Message message;
    bool isReturn = false;
    std::string error;
    std::string signature;
};

// The controller on fakes, the server and a client, made once: a connection per input would cost more
// than the calls under test.
class Rig {
  public:
    Rig() {
        Check(sd_event_new(&loop) >= 0, "sd_event_new");
        auto camera = std::make_shared<ScannedDevice::RemoteCamera>();
        camera->SetName("Kelp-1");
        camera->SetMac(kCameraMac);
        camera->SetDeviceType(kRemoteCameraDeviceType);
        auto otherUnit = std::make_shared<ScannedDevice::RemoteCamera>();
        otherUnit->SetName("Unit-7");
        otherUnit->SetMac(kOtherUnitMac);
        otherUnit->SetDeviceType(1);
        scanner->devices = {camera, otherUnit};

        controller = std::make_shared<BluetoothController>(loop, Hooks());
        Check(controller->Initialise(), "the controller did not come up on fakes");
        // Workers would drive the fake radio from their own threads; stopped up front, a configuration
        // request is answered and starts none.
        (void)controller->StopCameraWork(std::chrono::milliseconds(0));

        int fds[2];
        Check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0, "socketpair");
        server = std::make_unique<DirectServer>(controller, loop, fds[0]);
        Check(server->Run() == 0, "BluetoothDbusServer::Run on a direct connection");

        Check(sd_bus_new(&client) >= 0, "sd_bus_new client");
        Check(sd_bus_set_fd(client, fds[1], fds[1]) >= 0, "sd_bus_set_fd client");
        Check(sd_bus_start(client) >= 0, "sd_bus_start client");
        Check(sd_bus_add_filter(client, nullptr, &Rig::OnClientMessage, this) >= 0, "sd_bus_add_filter");
        for (int round = 0; round < kMaxRounds && sd_bus_is_ready(client) <= 0; ++round)
            Pump();
        Check(sd_bus_is_ready(client) > 0, "the client never got through authentication");
        Check(!Fuzz::Factory().FdsAllowed() || sd_bus_can_send(client, SD_BUS_TYPE_UNIX_FD) > 0,
              "the client cannot pass descriptors that the drawn values may hold");
        baseline = Actual();
        baselineSchema = controller->GetScanResponseVersion();
    }

    // Back to the values after start-up, so that an input does the same whatever ran before it.
    void Reset() {
        radio->powered = baseline.at("Powered") == "true";
        radio->pairable = baseline.at("Pairable") == "true";
        radio->discoverable = baseline.at("Discoverable") == "true";
        controller->SetAdvertisingEnabled(baseline.at("Advertising") == "true");
        if (controller->GetScanResponseVersion() != baselineSchema)
            controller->UpdateScanResponse(baselineSchema);
        controller->SetAutoScanEnabled(baseline.at("AutoScan") == "true");
        controller->SetAutoScanRateSecs(static_cast<uint32_t>(std::stoll(baseline.at("AutoScanRateSecs"))));
        radio->calls.clear();
        radio->writes.clear();
        advertiser->calls.clear();
        Check(Actual() == baseline, "the values did not go back to their start-up state");
    }

    // What the properties stand for, read from the controller and the fakes, not through the bus.
    Values Actual() const {
        const auto devices = scanner->Devices();
        return {
            {"Powered", Fuzz::Boolean(radio->powered)},
            {"Pairable", Fuzz::Boolean(radio->pairable)},
            {"Discoverable", Fuzz::Boolean(radio->discoverable)},
            {"Advertising", Fuzz::Boolean(controller->GetAdvertisingEnabled())},
            {"AdvertSchema", Fuzz::Integer(static_cast<int32_t>(controller->GetScanResponseVersion()))},
            {"AutoScan", Fuzz::Boolean(controller->GetAutoScanEnabled())},
            {"AutoScanRateSecs", Fuzz::Integer(static_cast<int32_t>(controller->GetAutoScanRateSecs()))},
            {"ScannedDevices", Fuzz::Quoted(ScannedDevice::DevicesJson(devices))},
            {"RemoteCameras", Fuzz::Quoted(ScannedDevice::RemoteCamerasJson(devices))},
        };
    }

    sd_bus* Client() const { return client; }
    sd_bus* Server() const { return server->Bus(); }
    int ScanCalls() const { return scanner->ScanCalls(); }

    // Sends `call` and runs both ends until they are idle; the one reply, or a failed check.
    Reply Call(sd_bus_message* call) {
        uint64_t cookie = 0;
        Check(sd_bus_send(client, call, &cookie) >= 0, "sd_bus_send");
        awaited = cookie;
        replies = 0;
        reply.reset();
        Check(Pump(), "the two ends never went idle");
        Check(replies != 0, "a call got no reply");
        Check(replies == 1, "a call got " + std::to_string(replies) + " replies");
        Reply out;
        out.message = std::move(reply);
        sd_bus_message* m = out.message.get();
        Check(sd_bus_message_rewind(m, 1) >= 0, "rewind the reply");
        out.isReturn = sd_bus_message_is_method_error(m, nullptr) == 0;
        if (!out.isReturn) {
            const sd_bus_error* error = sd_bus_message_get_error(m);
            out.error = error != nullptr && error->name != nullptr ? error->name : "";
            Check(!out.error.empty(), "an error reply without a name");
        }
        const char* signature = sd_bus_message_get_signature(m, 1);
        out.signature = signature != nullptr ? signature : "";
        return out;
    }

  private:
    ControllerHooks Hooks() {
        ControllerHooks hooks;
        hooks.makeRadio = [this] { return radio; };
        hooks.makeScanner = [this] { return scanner; };
        hooks.makeAdvertiser = [this] { return advertiser; };
        hooks.listenSettings = [](Settingsd::SettingsDaemonDbusHandler&) { return 0; };
        hooks.listenPower = [](Pylond::PylonDaemonDbusHandler&) { return 0; };
        hooks.listenNetwork = [](Networkd::NetworkDaemonDbusHandler&) { return 0; };
        hooks.readNumberSetting = [](const char*, uint32_t safeDefault) { return safeDefault; };
        hooks.readFlagSetting = [](const char*, bool safeDefault) { return safeDefault; };
        hooks.readPowerProperties = [](sdbus_utils::TypedPropertyMap&) { return -ENOTCONN; };
        hooks.readNetworkProperties = [](sdbus_utils::TypedPropertyMap&) { return -ENOTCONN; };
        hooks.followSibling = [](DbusHelper::DbusListener&, const char*, std::function<void()>) { return 0; };
        hooks.readSettingsSection = [](sdbus_utils::TypedPropertyMap&) { return -ENOTCONN; };
        hooks.sleep = [](std::chrono::milliseconds) {};
        hooks.radioType = [] { return 0; };
        // the auto-scan timer is armed but its loop never runs
        hooks.monotonicNowUsec = [] { return uint64_t{0}; };
        return hooks;
    }

    // Both ends until neither has anything left to do; false when that takes too long.
    bool Pump() {
        int idle = 0;
        for (int round = 0; round < kMaxRounds; ++round) {
            const int atServer = sd_bus_process(server->Bus(), nullptr);
            Check(atServer >= 0, "the server's connection failed: " + std::to_string(atServer));
            const int atClient = sd_bus_process(client, nullptr);
            Check(atClient >= 0, "the client's connection failed: " + std::to_string(atClient));
            idle = atServer == 0 && atClient == 0 ? idle + 1 : 0;
            if (idle == 2)
                return true;
        }
        return false;
    }

    // Sees every message before sd-bus drops it, replies to no pending call included.
    static int OnClientMessage(sd_bus_message* m, void* userdata, sd_bus_error*) {
        auto* self = static_cast<Rig*>(userdata);
        uint64_t cookie = 0;
        if (sd_bus_message_get_reply_cookie(m, &cookie) >= 0 && cookie == self->awaited && cookie != 0) {
            ++self->replies;
            if (!self->reply)
                self->reply.reset(sd_bus_message_ref(m));
        }
        return 0;
    }

    sd_event* loop = nullptr;
    std::shared_ptr<TestSupport::FakeRadio> radio = std::make_shared<TestSupport::FakeRadio>();
    std::shared_ptr<TestSupport::FakeScanner> scanner = std::make_shared<TestSupport::FakeScanner>();
    std::shared_ptr<TestSupport::FakeAdvertiser> advertiser = std::make_shared<TestSupport::FakeAdvertiser>();
    std::shared_ptr<BluetoothController> controller;
    std::unique_ptr<DirectServer> server;
    sd_bus* client = nullptr;
    Values baseline;
    uint32_t baselineSchema = 0;

    uint64_t awaited = 0;
    int replies = 0;
    DbusHelper::Message reply;
};

Rig& TheRig() {
    static Rig* const rig = new Rig;
    return *rig;
}

// ------------------------------------------------------------------------------------------------------
// Drawing a call.

// A member or the last element of an interface name: [A-Za-z_][A-Za-z0-9_]*.
std::string BusMember(FuzzedDataProvider& fdp) {
    static const char kChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_0123456789";
    constexpr std::size_t kLeading = 53;
    const std::string raw = fdp.ConsumeRandomLengthString(24);
    std::string name;
    for (const char c : raw) {
        const auto octet = static_cast<uint8_t>(c);
        name += kChars[octet % (name.empty() ? kLeading : sizeof kChars - 1)];
    }
    return name.empty() ? "X" : name;
}

template <typename List>
std::string Pick(FuzzedDataProvider& fdp, const List& list, std::size_t maxText) {
    const std::size_t pick = fdp.ConsumeIntegralInRange<std::size_t>(0, list.size());
    return pick < list.size() ? list[pick] : Fuzz::BusText(fdp, maxText);
}

Value AppendString(sd_bus_message* m, const std::string& text) {
    Check(sd_bus_message_append_basic(m, 's', text.c_str()) >= 0, "append s " + text);
    return Value{"s", text, {}};
}

struct Call {
    std::string path;
    bool hasInterface = true;
    std::string interface;
    std::string member;
    std::vector<Value> args;

    const Member* Resolved() const {
        if (!hasInterface)
            return nullptr;
        for (const Member& known : kMembers) {
            if (interface == known.interface && member == known.name)
                return &known;
        }
        return nullptr;
    }
    std::string Signature() const {
        std::string signature;
        for (const Value& arg : args)
            signature += arg.signature;
        return signature;
    }
    // The first arguments' types are `prefix`.
    bool StartsWith(const std::string& prefix) const {
        return Signature().compare(0, prefix.size(), prefix) == 0;
    }
    std::string Text(std::size_t i) const { return args.at(i).text; }
};

// Draws one call and appends its arguments to a new message; the caller unrefs it.
sd_bus_message* DrawCall(Fuzz::Draw& draw, Call& call) {
    FuzzedDataProvider& fdp = draw.fdp;
    switch (fdp.ConsumeIntegralInRange<int>(0, 2)) {
        case 0:
            call.path = BluetoothDbus::kObjectPath;
            break;
        case 1:
            call.path = "/";
            break;
        default:
            call.path = Fuzz::BusPath(fdp);
    }
    const std::size_t pick = fdp.ConsumeIntegralInRange<std::size_t>(0, kMemberCount);
    if (pick < kMemberCount) {
        call.interface = kMembers[pick].interface;
        call.member = kMembers[pick].name;
    } else {
        const std::size_t interface = fdp.ConsumeIntegralInRange<std::size_t>(0, kCallInterfaces.size() + 1);
        if (interface < kCallInterfaces.size())
            call.interface = kCallInterfaces[interface];
        else if (interface == kCallInterfaces.size())
            call.hasInterface = false;
        else
            call.interface = "com.quorbel.fuzz." + BusMember(fdp);
        const std::size_t member = fdp.ConsumeIntegralInRange<std::size_t>(0, kCallMembers.size());
        call.member = member < kCallMembers.size() ? kCallMembers[member] : BusMember(fdp);
    }

    sd_bus_message* m = nullptr;
    Check(sd_bus_message_new_method_call(TheRig().Client(), &m, nullptr, call.path.c_str(),
                                         call.hasInterface ? call.interface.c_str() : nullptr,
                                         call.member.c_str()) >= 0,
          "new method call " + call.path + " " + call.interface + "." + call.member);
    const bool own = fdp.ConsumeBool();
    const Member* resolved = call.Resolved();
    if (own && resolved != nullptr) {
        const auto id = static_cast<MemberId>(resolved - kMembers);
        if (id == kConfigKelpBle)
            call.args.push_back(AppendString(m, Pick(fdp, kAddresses, 80)));
        if (id == kGet || id == kSet || id == kGetAll)
            call.args.push_back(AppendString(m, Pick(fdp, kInterfaceArgs, 48)));
        if (id == kGet || id == kSet)
            call.args.push_back(AppendString(m, Pick(fdp, kNameArgs, 32)));
        if (id == kSet)
            call.args.push_back(Fuzz::AppendValue(m, draw, "v", 3));
        // now and then one more, of any type: a well-formed call that goes on
        if (fdp.ConsumeIntegralInRange<int>(0, 3) == 3)
            call.args.push_back(Fuzz::AppendValue(m, draw, Fuzz::ChooseType(draw, 3), 3));
    } else if (!own) {
        const int count = fdp.ConsumeIntegralInRange<int>(0, 3);
        for (int i = 0; i < count; ++i)
            call.args.push_back(Fuzz::AppendValue(m, draw, Fuzz::ChooseType(draw, 3), 3));
    }
    return m;
}

// ------------------------------------------------------------------------------------------------------
// Reading replies.

// A basic value of a property's type in Fuzz::Render's text.
std::string ReadRendered(sd_bus_message* m, char type) {
    if (type == 'b') {
        int flag = 0;
        Check(sd_bus_message_read_basic(m, 'b', &flag) > 0, "read b");
        return Fuzz::Boolean(flag != 0);
    }
    if (type == 'i') {
        int32_t number = 0;
        Check(sd_bus_message_read_basic(m, 'i', &number) > 0, "read i");
        return Fuzz::Integer(number);
    }
    const char* text = nullptr;
    Check(type == 's' && sd_bus_message_read_basic(m, 's', &text) > 0 && text != nullptr, "read s");
    return Fuzz::Quoted(text);
}

// A variant holding `property`'s value as the controller has it.
void CheckVariant(sd_bus_message* m, const Property& property, const Values& values) {
    char type = 0;
    const char* contents = nullptr;
    Check(sd_bus_message_peek_type(m, &type, &contents) > 0 && type == 'v', "no variant for a property");
    Check(contents != nullptr && std::string(contents) == property.signature,
          std::string(property.name) + " came as '" + (contents ? contents : "") + "', declared '" +
              property.signature + "'");
    Check(sd_bus_message_enter_container(m, 'v', contents) > 0, "enter v");
    const std::string got = ReadRendered(m, contents[0]);
    Check(got == values.at(property.name), std::string(property.name) + " read " + got +
                                               " where the controller has " + values.at(property.name));
    Check(sd_bus_message_exit_container(m) > 0, "exit v");
}

// An a{sv} with exactly `expected`, each of its declared type and value.
void CheckDictionary(sd_bus_message* m, const std::vector<const Property*>& expected, const Values& values) {
    Check(sd_bus_message_enter_container(m, 'a', "{sv}") > 0, "enter a{sv}");
    std::set<std::string> seen;
    while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
        const char* name = nullptr;
        Check(sd_bus_message_read_basic(m, 's', &name) > 0, "read a property's name");
        const Property* property = nullptr;
        for (const Property* candidate : expected) {
            if (std::string(candidate->name) == name)
                property = candidate;
        }
        Check(property != nullptr, std::string("a dictionary holds ") + name + ", which it should not");
        Check(seen.insert(name).second, std::string("a dictionary holds ") + name + " twice");
        CheckVariant(m, *property, values);
        Check(sd_bus_message_exit_container(m) > 0, "exit {sv}");
    }
    Check(sd_bus_message_exit_container(m) > 0, "exit a{sv}");
    Check(seen.size() == expected.size(), "a dictionary lacks some of the interface's properties");
}

// GetManagedObjects on the daemon's path: that path alone, the standard interfaces without properties
// and the three with all of theirs.
void CheckManagedObjects(sd_bus_message* m, const Values& values) {
    Check(sd_bus_message_enter_container(m, 'a', "{oa{sa{sv}}}") > 0, "enter a{oa{sa{sv}}}");
    Check(sd_bus_message_enter_container(m, 'e', "oa{sa{sv}}") > 0, "GetManagedObjects lists no object");
    const char* path = nullptr;
    Check(sd_bus_message_read_basic(m, 'o', &path) > 0 && std::string(path) == BluetoothDbus::kObjectPath,
          "GetManagedObjects lists another path");
    Check(sd_bus_message_enter_container(m, 'a', "{sa{sv}}") > 0, "enter a{sa{sv}}");
    std::set<std::string> interfaces;
    while (sd_bus_message_enter_container(m, 'e', "sa{sv}") > 0) {
        const char* interface = nullptr;
        Check(sd_bus_message_read_basic(m, 's', &interface) > 0, "read an interface");
        Check(interfaces.insert(interface).second, std::string("listed twice: ") + interface);
        Check(IsOurs(interface) || IsStandard(interface), std::string("listed: ") + interface);
        CheckDictionary(m, IsOurs(interface) ? PropertiesOf(interface) : std::vector<const Property*>{},
                        values);
        Check(sd_bus_message_exit_container(m) > 0, "exit {sa{sv}}");
    }
    Check(interfaces.size() == 7,
          "GetManagedObjects lists " + std::to_string(interfaces.size()) + " interfaces");
    Check(sd_bus_message_exit_container(m) > 0, "exit a{sa{sv}}");
    Check(sd_bus_message_exit_container(m) > 0, "exit {oa{sa{sv}}}");
    Check(sd_bus_message_enter_container(m, 'e', "oa{sa{sv}}") == 0, "GetManagedObjects lists a second path");
    Check(sd_bus_message_exit_container(m) > 0, "exit a{oa{sa{sv}}}");
}

void ExpectError(const Reply& reply, const std::string& what) {
    Check(!reply.isReturn, what + " was answered with a return");
}

void ExpectReturn(const Reply& reply, const std::string& what) {
    Check(reply.isReturn, what + " was answered with " + reply.error);
}

// What the reply to `call` must be, and the values after it: `values` goes in as they were and comes
// out as they must now be.
void Judge(const Call& call, const Reply& reply, Values& values) {
    const std::string what =
        call.path + " " + call.interface + "." + call.member + "(" + call.Signature() + ")";
    const Member* member = call.Resolved();
    if (member == nullptr) {
        ExpectError(reply, what);
        return;
    }
    if (reply.isReturn)
        Check(reply.signature == member->out,
              what + " returned '" + reply.signature + "' where the member declares '" + member->out + "'");
    const bool atObject = call.path == BluetoothDbus::kObjectPath;
    const bool exact = call.Signature() == member->in;
    sd_bus_message* m = reply.message.get();
    switch (static_cast<MemberId>(member - kMembers)) {
        case kConfigKelpBle:
            if (!atObject || !exact) {
                ExpectError(reply, what);
            } else if (call.Text(0) == kCameraMac) {
                ExpectReturn(reply, what);
            } else {
                ExpectError(reply, what);
                const std::string expected = call.Text(0) == kOtherUnitMac
                                                 ? BluetoothDbus::kErrorDeviceNotAKelpCam
                                                 : BluetoothDbus::kErrorDeviceNotFound;
                Check(reply.error == expected, what + " for " + call.Text(0) + " gave " + reply.error);
            }
            break;
        case kScan:
            if (!atObject || !exact) {
                ExpectError(reply, what);
            } else {
                ExpectReturn(reply, what);
                Check(ReadRendered(m, 's') == values.at("ScannedDevices"),
                      "Scan's answer is not the scanner's list");
            }
            break;
        case kReadKelpBle:
            if (!atObject || !exact)
                ExpectError(reply, what);
            else
                ExpectReturn(reply, what);
            break;
        case kGet: {
            const Property* property =
                call.StartsWith("ss") ? FindProperty(call.Text(0), call.Text(1)) : nullptr;
            if (!atObject || property == nullptr) {
                ExpectError(reply, what);
                break;
            }
            ExpectReturn(reply, what);
            CheckVariant(m, *property, values);
            break;
        }
        case kSet: {
            const Property* property =
                call.StartsWith("ss") ? FindProperty(call.Text(0), call.Text(1)) : nullptr;
            const bool typed = property != nullptr && call.args.size() >= 3 &&
                               call.args[2].signature == "v" &&
                               call.args[2].items.at(0).signature == property->signature;
            if (!atObject || !typed || !property->writable) {
                ExpectError(reply, what);
                break;
            }
            ExpectReturn(reply, what);
            std::string value = Fuzz::Render(call.args[2].items[0]);
            if (std::string(property->name) == "AdvertSchema" && value != "3" && value != "4")
                value =
                    Fuzz::Integer(static_cast<int32_t>(BluetoothController::kFallbackScanResponseVersion));
            values[property->name] = value;
            break;
        }
        case kGetAll: {
            if (!call.StartsWith("s")) {
                ExpectError(reply, what);
                break;
            }
            const std::string interface = call.Text(0);
            if (atObject && (IsOurs(interface) || interface.empty())) {
                ExpectReturn(reply, what);
                CheckDictionary(m, PropertiesOf(interface), values);
            } else if (atObject && !IsStandard(interface)) {
                ExpectError(reply, what);
            } else if (reply.isReturn) {
                // sd-bus's own answer: none of the daemon's properties
                CheckDictionary(m, {}, values);
            }
            break;
        }
        case kIntrospect:
            if (atObject && exact) {
                ExpectReturn(reply, what);
                const char* xml = nullptr;
                Check(sd_bus_message_read_basic(m, 's', &xml) > 0, "read the introspection");
                for (const char* interface : {BluetoothDbus::kRadioInterface, BluetoothDbus::kAdvertInterface,
                                              BluetoothDbus::kScannerInterface})
                    Check(std::string(xml).find(std::string("<interface name=\"") + interface + "\">") !=
                              std::string::npos,
                          std::string("the introspection lacks ") + interface);
            }
            break;
        case kPing:
            if (exact)
                ExpectReturn(reply, what);
            break;
        case kGetMachineId:
            break;
        case kGetManagedObjects:
            if (atObject) {
                ExpectReturn(reply, what);
                CheckManagedObjects(m, values);
            }
            break;
        case kMemberCount:
            Fuzz::Fail("no such member");
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Fuzz::QuietLog();
    // an identity file that says nothing: the same scan response on every machine, and no file to read
    // but an empty one
    setenv("VANTU_IDENTITY_FILE", "/dev/null", 1);
    (void)TheRig();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Rig& rig = TheRig();
    rig.Reset();
    FuzzedDataProvider fdp(data, size);
    Fuzz::Draw draw{fdp, kHints};
    Values values = rig.Actual();
    const int calls = fdp.ConsumeIntegralInRange<int>(1, kMaxCalls);
    for (int i = 0; i < calls && (i == 0 || fdp.remaining_bytes() > 0); ++i) {
        Call call;
        Fuzz::MessageRef message(DrawCall(draw, call));
        const int scansBefore = rig.ScanCalls();
        const Reply reply = rig.Call(message.m);
        Judge(call, reply, values);
        const bool scanned = reply.isReturn && call.Resolved() == &kMembers[kScan];
        Check(rig.ScanCalls() - scansBefore == (scanned ? 1 : 0),
              "the scanner ran " + std::to_string(rig.ScanCalls() - scansBefore) + " passes for one call");
        const Values actual = rig.Actual();
        for (const auto& [name, value] : values)
            Check(actual.at(name) == value, name + " is " + actual.at(name) + " where it must be " + value);
        Check(sd_bus_is_open(rig.Server()) > 0, "the server's connection closed");
        Check(sd_bus_is_open(rig.Client()) > 0, "the client's connection closed");
    }
    return 0;
}
