// The objects' member tables as clients see them in introspection, and the RemoteCameras announcement.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "dbus/AdvertObject.h"
#include "dbus/Names.h"
#include "dbus/RadioObject.h"
#include "dbus/ScannerObject.h"
#include "test_support/ControllerFixture.h"

using namespace ControllerTest;

namespace {

constexpr uint64_t kEmitsChange = SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE;
constexpr uint64_t kUnprivileged = SD_BUS_VTABLE_UNPRIVILEGED;

// One member as a line: kind, name, signature (in/out for methods), flags.
std::vector<std::string> Members(const DbusHelper::DbusObject& object) {
    std::vector<std::string> lines;
    for (const sd_bus_vtable& entry : object.Vtable()) {
        const uint64_t flags = entry.flags;
        switch (entry.type) {
            case _SD_BUS_VTABLE_START:
                lines.push_back("start");
                break;
            case _SD_BUS_VTABLE_END:
                lines.push_back("end");
                break;
            case _SD_BUS_VTABLE_PROPERTY:
            case _SD_BUS_VTABLE_WRITABLE_PROPERTY:
                lines.push_back(
                    std::string(entry.type == _SD_BUS_VTABLE_PROPERTY ? "read-only " : "property ") +
                    entry.x.property.member + " " + entry.x.property.signature + " " + std::to_string(flags));
                break;
            case _SD_BUS_VTABLE_METHOD:
                lines.push_back(std::string("method ") + entry.x.method.member + " '" +
                                entry.x.method.signature + "' '" + entry.x.method.result + "' " +
                                std::to_string(flags));
                break;
            case _SD_BUS_VTABLE_SIGNAL:
                lines.push_back(std::string("signal ") + entry.x.signal.member + " " +
                                entry.x.signal.signature + " " + std::to_string(flags));
                break;
            default:
                lines.push_back("other");
        }
    }
    return lines;
}

const std::string kProperty = std::to_string(kEmitsChange);
const std::string kMethod = std::to_string(kUnprivileged);

// RemoteCameras announced with a chosen result instead of a bus.
class ScannerWithResult : public BluetoothDbusObject::Scanner {
  public:
    ScannerWithResult(std::shared_ptr<BluetoothController> controller, int result)
        : Scanner(std::move(controller)), result(result) {}
    int calls = 0;

  protected:
    int EmitRemoteCamerasChanged() override {
        ++calls;
        return result;
    }

  private:
    int result;
};

}  // namespace

class DbusObjects : public ControllerFixture {
  protected:
    std::shared_ptr<BluetoothController> Shared() {
        MakeInitialised();
        return std::shared_ptr<BluetoothController>(controller.get(), [](BluetoothController*) {});
    }
};

TEST_F(DbusObjects, RadioMembersInTheirOrderWithSignaturesAndFlags) {
    BluetoothDbusObject::Radio radio(Shared());
    EXPECT_EQ(radio.Path(), "/com/quorbel/common/Bluetooth1");
    EXPECT_EQ(radio.Interface(), "com.quorbel.common.Bluetooth1.Radio");
    EXPECT_EQ(Members(radio),
              (std::vector<std::string>{
                  "start", "property Powered b " + kProperty, "property Pairable b " + kProperty,
                  "property Discoverable b " + kProperty, "method ConfigKelpBle 's' '' " + kMethod,
                  "signal ConfiguredKelpBle (bs) 0", "end"}));
}

TEST_F(DbusObjects, AdvertMembersInTheirOrderWithSignaturesAndFlags) {
    BluetoothDbusObject::Advert advert(Shared());
    EXPECT_EQ(advert.Interface(), "com.quorbel.common.Bluetooth1.Advert");
    EXPECT_EQ(Members(advert), (std::vector<std::string>{"start", "property Advertising b " + kProperty,
                                                         "property AdvertSchema i " + kProperty, "end"}));
}

TEST_F(DbusObjects, ScannerMembersInTheirOrderWithSignaturesAndFlags) {
    BluetoothDbusObject::Scanner scanner(Shared());
    EXPECT_EQ(scanner.Interface(), "com.quorbel.common.Bluetooth1.Scanner");
    EXPECT_EQ(Members(scanner),
              (std::vector<std::string>{
                  "start", "property AutoScan b " + kProperty, "property AutoScanRateSecs i " + kProperty,
                  "read-only ScannedDevices s " + kProperty, "read-only RemoteCameras s " + kProperty,
                  "method Scan '' 's' " + kMethod, "method ReadKelpBle '' '' " + kMethod,
                  "signal DiscoveredRemoteCamera s 0", "signal NewKelpBleData s 0", "end"}));
}

TEST_F(DbusObjects, ErrorNamesAreValidDBusNames) {
    for (const char* name : {BluetoothDbus::kErrorReadMessageFailure, BluetoothDbus::kErrorDeviceNotFound,
                             BluetoothDbus::kErrorDeviceNotAKelpCam}) {
        EXPECT_EQ(std::string(name).find(' '), std::string::npos) << name;
        EXPECT_EQ(std::string(name).rfind("com.quorbel.common.Bluetooth1.Error.", 0), 0u) << name;
    }
}

TEST_F(DbusObjects, ARemoteCamerasAnnouncementThatReturnsZeroOrLessIsLoggedAsAFailure) {
    auto shared = Shared();
    for (const int result : {0, -5, 1}) {
        ScannerWithResult scanner(shared, result);
        Logging::Capture capture;
        controller->RemoteCamerasChanged().emit();
        EXPECT_EQ(scanner.calls, 1) << result;
        EXPECT_EQ(capture.Count("[SCANNER] failed to emit RemoteCams", LOG_ERR), result <= 0 ? 1u : 0u)
            << result;
    }
}

TEST_F(DbusObjects, AnObjectThatIsGoneHearsNoMoreNotifications) {
    auto shared = Shared();
    { ScannerWithResult scanner(shared, 1); }
    Logging::Capture capture;
    controller->RemoteCamerasChanged().emit();
    controller->ConfiguredCamera().emit(true, "{}");
    EXPECT_TRUE(capture.Lines().empty());
}
