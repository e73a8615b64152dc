#include "daemon/ServiceStatus.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Outcome = BluetoothController::ScanOutcome;
using Phase = Daemon::StatusFacts::Phase;

Daemon::StatusFacts Serving() {
    Daemon::StatusFacts facts;
    facts.phase = Phase::Serving;
    facts.advertising = true;
    facts.advertSchema = 4;
    facts.autoScan = true;
    facts.autoScanRateSecs = 30;
    facts.devicesKnown = 6;
    facts.lastScan = Outcome::Succeeded;
    return facts;
}

TEST(ServiceStatus, ServingNamesEachPartInOrder) {
    EXPECT_EQ(Daemon::StatusText(Serving()),
              "Serving; advertising schema 4; auto-scan every 30 s; 6 devices known; last scan ok");
}

TEST(ServiceStatus, SwitchedOffPartsAndEachScanOutcomeHaveTheirWords) {
    Daemon::StatusFacts facts = Serving();
    facts.advertising = false;
    facts.autoScan = false;
    facts.devicesKnown = 1;
    facts.lastScan = Outcome::Failed;
    EXPECT_EQ(Daemon::StatusText(facts),
              "Serving; advertising off; auto-scan off; 1 device known; last scan failed");
    facts.devicesKnown = 0;
    facts.lastScan = Outcome::Skipped;
    EXPECT_EQ(Daemon::StatusText(facts),
              "Serving; advertising off; auto-scan off; 0 devices known; last scan skipped, camera busy");
    facts.lastScan = Outcome::None;
    EXPECT_EQ(Daemon::StatusText(facts),
              "Serving; advertising off; auto-scan off; 0 devices known; no scan yet");
}

TEST(ServiceStatus, PhasesBeforeServing) {
    Daemon::StatusFacts facts = Serving();
    facts.phase = Phase::WaitingForHci0;
    EXPECT_EQ(Daemon::StatusText(facts), "Waiting for hci0");
    facts.phase = Phase::WaitingForBus;
    EXPECT_EQ(Daemon::StatusText(facts),
              "Waiting for the bus or its name; advertising schema 4; auto-scan every 30 s; 6 devices known; "
              "last scan ok");
    facts.phase = Phase::NotServed;
    EXPECT_EQ(Daemon::StatusText(facts).rfind("Not serving: the D-Bus service failed to start; ", 0), 0u);
    facts.phase = Phase::ControllerFailed;
    EXPECT_EQ(Daemon::StatusText(facts).rfind("Not serving: controller failed to initialise; ", 0), 0u);
}

TEST(ServiceStatus, AReporterSendsATextOnlyWhenItChanges) {
    std::vector<std::string> sent;
    Daemon::StatusReporter reporter([&sent](const std::string& message) { sent.push_back(message); });
    reporter.Report("Waiting for hci0");
    reporter.Report("Waiting for hci0");
    reporter.Report("Serving; advertising off");
    reporter.Report("Serving; advertising off");
    reporter.Report("Waiting for hci0");
    EXPECT_EQ(sent, (std::vector<std::string>{"STATUS=Waiting for hci0", "STATUS=Serving; advertising off",
                                              "STATUS=Waiting for hci0"}));
}

}  // namespace
