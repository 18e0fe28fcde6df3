#include "state/daemon_environment.h"

#include <gtest/gtest.h>

#include "support/temporary_directory.h"

namespace vesko {
namespace {

class DaemonEnvironment : public ::testing::Test {
 protected:
  void writeInfo(PropertyList::Dictionary info) {
    support::writeFile(home / "V.app/Contents/Info.plist", PropertyList(std::move(info)).toXml());
    bundle = Bundle::at(home / "V.app");
  }
  void writeAgent(const std::string& label, PropertyList content) {
    support::writeFile(directories.launchAgents / (label + ".plist"), content.toXml());
  }
  DaemonLaunchInputs inputs() const {
    return {.ownEnvironment = own,
            .bundle = bundle,
            .directories = directories,
            .executable = "/opt/V.app/Contents/MacOS/V",
            .processId = 4711,
            .relayUrlDefault = relayDefault,
            .computerName = computerName,
            .hostName = "host.LOCAL",
            .pairingCode = std::nullopt,
            .grants = {}};
  }

  support::TemporaryDirectory home;
  Directories directories = Directories::under(home.path(), "com.vesko.companion-kit");
  Bundle bundle = Bundle::at(home / "V.app");
  Environment own;
  std::optional<std::string> relayDefault;
  std::string computerName;
};

TEST_F(DaemonEnvironment, relayUrlComesFromTheFirstSourceThatHasOne) {
  const std::string builtIn = relayUrl(inputs());
  EXPECT_TRUE(builtIn.starts_with("wss://") && builtIn.ends_with("/device")) << builtIn;
  writeInfo({{"VeskoRelayURL", ""}});
  EXPECT_EQ(relayUrl(inputs()), builtIn);
  writeInfo({{"VeskoRelayURL", "wss://info/device"}});
  EXPECT_EQ(relayUrl(inputs()), "wss://info/device");
  own["VESKOKIT_RELAY_URL"] = "wss://own/device";
  EXPECT_EQ(relayUrl(inputs()), "wss://own/device");
  relayDefault = "";
  EXPECT_EQ(relayUrl(inputs()), "") << "any string in the defaults wins, the empty one too";
}

TEST_F(DaemonEnvironment, deviceNames) {
  struct Case {
    std::string own, computer, expected;
  };
  std::string hundredUmlauts;
  std::string eightyUmlauts;
  for (int i = 0; i < 100; ++i) (i < 80 ? eightyUmlauts : hundredUmlauts) += "\xC3\xA4";
  hundredUmlauts.insert(0, eightyUmlauts);
  for (const auto& [name, computer, expected] : {
           Case{"", "Studio.local", "Studio"},
           Case{"", "  My Mac.LoCaL", "My Mac"},
           Case{"", "local", "local"},
           Case{"", "", "host"},
           Case{"  Desk.local ", "Studio", "Desk.local"},
           Case{" \t", "Studio", "Studio"},
           Case{"", hundredUmlauts, eightyUmlauts},
           Case{std::string(100, 'x'), "", std::string(80, 'x')},
       }) {
    SCOPED_TRACE(name + "/" + computer);
    own["VESKOKIT_DEVICE_NAME"] = name;
    computerName = computer;
    EXPECT_EQ(deviceName(inputs()), expected);
  }
}

TEST_F(DaemonEnvironment, launchAgentsMatchByTheirFirstArgument) {
  using Array = PropertyList::Array;
  using Dictionary = PropertyList::Dictionary;
  const std::string executable = "/opt/V.app/Contents/MacOS/V";
  const auto find = [&](std::optional<std::string> identifier) {
    return launchAgentLabel(directories.launchAgents, identifier, executable);
  };
  EXPECT_EQ(find("com.x"), std::nullopt);
  writeAgent("com.vesko.companion-app",
             Dictionary{{"ProgramArguments", Array{executable, "--background"}}});
  EXPECT_EQ(find("com.x"), "com.vesko.companion-app");
  EXPECT_EQ(find(std::nullopt), "com.vesko.companion-app");
  for (const PropertyList& broken :
       {PropertyList(Dictionary{{"ProgramArguments", Array{}}}),
        PropertyList(Dictionary{{"ProgramArguments", "text"}}),
        PropertyList(Dictionary{{"ProgramArguments", Array{"/usr/bin/open", executable}}}),
        PropertyList(Array{})}) {
    writeAgent("com.x", broken);
    EXPECT_EQ(find("com.x"), "com.vesko.companion-app");
  }
  writeAgent("com.x", Dictionary{{"ProgramArguments", Array{executable}}});
  EXPECT_EQ(find("com.x"), "com.x");
  EXPECT_EQ(launchAgentLabel(directories.launchAgents, "com.x", ""), std::nullopt);
}

TEST_F(DaemonEnvironment, inheritedValuesNeverReachALaunchWithoutThem) {
  for (const char* name :
       {"VESKOKIT_PAIRING_CODE", "VESKOKIT_LAUNCHD_LABEL", "VESKOKIT_CONTACTS_SOURCE",
        "VESKOKIT_CONTACTS_FILE", "VESKOKIT_GRANTED_DIRS", "VESKOKIT_PHOTOS_LIBRARY"})
    own[name] = "inherited";
  own["PATH"] = "/bin";
  const Environment bare = daemonEnvironment(inputs());
  const Environment expected{
      {"PATH", "/bin"},
      {"VESKOKIT_RELAY_URL", relayUrl(inputs())},
      {"VESKOKIT_VERSION", "0.0.0"},
      {"VESKOKIT_DEVICE_NAME", "host"},
      {"VESKOKIT_KEYCHAIN_SERVICE", "com.vesko.companion-kit"},
      {"VESKOKIT_STATE_DIR", (home / "Library/Application Support/VeskoKit").native()},
      {"VESKOKIT_CACHE_DIR", (home / "Library/Caches/VeskoKit").native()},
      {"VESKOKIT_PARENT_PID", "4711"},
  };
  EXPECT_EQ(bare, expected);
}

TEST_F(DaemonEnvironment, grantsAndDevelopmentBuilds) {
  writeInfo({{"CFBundleIdentifier", "com.vesko.companion-kit.dev"},
             {"CFBundleShortVersionString", "3.1"}});
  directories = Directories::under(home.path(), bundle.identifier());
  auto launch = inputs();
  launch.pairingCode = "ABCD2345";
  launch.grants = {.contacts = true,
                   .contactsFile = "/state/contacts.json",
                   .folders = {"/a", "/b c"},
                   .photosLibrary = "/p.photoslibrary"};
  Environment environment = daemonEnvironment(launch);
  EXPECT_EQ(environment["VESKOKIT_VERSION"], "3.1");
  EXPECT_EQ(environment["VESKOKIT_KEYCHAIN_SERVICE"], "com.vesko.companion-kit.dev");
  EXPECT_TRUE(environment["VESKOKIT_STATE_DIR"].ends_with("Application Support/VeskoKit-Dev"));
  EXPECT_TRUE(environment["VESKOKIT_CACHE_DIR"].ends_with("Caches/VeskoKit-Dev"));
  EXPECT_TRUE(directories.logs.native().ends_with("Logs/veskokit-dev"));
  EXPECT_EQ(environment["VESKOKIT_PAIRING_CODE"], "ABCD2345");
  EXPECT_EQ(environment["VESKOKIT_CONTACTS_SOURCE"], "handoff");
  EXPECT_EQ(environment["VESKOKIT_CONTACTS_FILE"], "/state/contacts.json");
  EXPECT_EQ(environment["VESKOKIT_GRANTED_DIRS"], "/a\n/b c");
  EXPECT_EQ(environment["VESKOKIT_PHOTOS_LIBRARY"], "/p.photoslibrary");
}

}  // namespace
}  // namespace vesko
