#include "platform/linux/consent_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "base/file.h"
#include "support/temporary_directory.h"

namespace vesko {
namespace {

namespace fs = std::filesystem;

struct ConsentStoreTest : testing::Test {
  support::TemporaryDirectory directory;
  const fs::path file = directory / "new/deep/consents.plist";
  ConsentStore store{file};
};

TEST_F(ConsentStoreTest, keepsEveryAnswerForTheUserAlone) {
  for (const auto& [consent, word] : json::EnumNames<Consent>::values) {
    SCOPED_TRACE(word);
    EXPECT_EQ(store.state(consent), ConsentState::notDetermined);
    for (const auto state : {ConsentState::granted, ConsentState::denied,
                             ConsentState::notDetermined, ConsentState::denied}) {
      ASSERT_TRUE(store.set(consent, state));
      EXPECT_EQ(store.state(consent), state);
      EXPECT_EQ(ConsentStore(file).state(consent), state);
    }
  }
  EXPECT_EQ(support::modeOf(file), 0600U);
  EXPECT_EQ(support::modeOf(file.parent_path()), 0700U);
  EXPECT_EQ(support::modeOf(directory / "new"), 0700U);
}

TEST_F(ConsentStoreTest, seesEveryChangeOfAnotherWriter) {
  ConsentStore writer(file);
  // The two entries swap their values, so that the size stays; the writes follow each other within
  // the clock's resolution.
  for (int round = 0; round < 50; ++round) {
    const bool even = round % 2 == 0;
    ASSERT_TRUE(writer.set(Consent::photos, even ? ConsentState::granted : ConsentState::denied));
    ASSERT_TRUE(writer.set(Consent::contacts, even ? ConsentState::denied : ConsentState::granted));
    ASSERT_EQ(store.state(Consent::photos), even ? ConsentState::granted : ConsentState::denied);
  }
  fs::remove(file);
  EXPECT_EQ(store.state(Consent::photos), ConsentState::notDetermined);
  EXPECT_EQ(store.problem(), "");
}

TEST_F(ConsentStoreTest, keepsEntriesThatItDoesNotKnow) {
  ASSERT_TRUE(createDirectories(file.parent_path(), 0700));
  const PropertyList foreign(PropertyList::Dictionary{{"later", "granted"}, {"photos", true}});
  ASSERT_TRUE(replaceFile(file, foreign.toXml(), 0600));
  EXPECT_EQ(store.state(Consent::photos), ConsentState::notDetermined);
  ASSERT_TRUE(store.set(Consent::contacts, ConsentState::granted));
  const auto list = PropertyList::parse(readFile(file, 65536).value());
  ASSERT_TRUE(list);
  EXPECT_EQ(*list->find("later"), PropertyList("granted"));
  EXPECT_FALSE(fs::exists(file.string() + ".damaged"));
}

TEST_F(ConsentStoreTest, aFileThatCannotBeTrustedGrantsNothingAndIsKeptAside) {
  const auto spoil = [&](int how) {
    switch (how) {
      case 0:
        return replaceFile(file, "<plist><dict><key>photos</key>", 0600).has_value();
      case 1:
        return replaceFile(file, PropertyList(PropertyList::Array{"photos"}).toXml(), 0600)
            .has_value();
      case 2:
        return ::chmod(file.c_str(), 0620) == 0;
      case 3:
        return ::chmod(file.c_str(), 0602) == 0;
      case 4:
        fs::rename(file, directory / "elsewhere");
        return ::symlink((directory / "elsewhere").c_str(), file.c_str()) == 0;
      case 5:
        return replaceFile(file, std::string(PropertyList::maxBytes + 1, ' '), 0600).has_value();
      default:
        // Only root can give a file away; for everybody else this case is the second again.
        return ::chmod(file.c_str(), 0622) == 0 &&
               (::geteuid() != 0 ||
                (::chown(file.c_str(), 1, 1) == 0 && ::chmod(file.c_str(), 0600) == 0));
    }
  };
  for (int how = 0; how <= 6; ++how) {
    SCOPED_TRACE(how);
    ASSERT_TRUE(store.set(Consent::photos, ConsentState::granted));
    ASSERT_EQ(store.state(Consent::photos), ConsentState::granted);
    ASSERT_TRUE(spoil(how));
    EXPECT_EQ(store.state(Consent::photos), ConsentState::notDetermined);
    EXPECT_NE(store.problem(), "");
    ASSERT_TRUE(store.set(Consent::contacts, ConsentState::granted));
    EXPECT_TRUE(fs::exists(fs::symlink_status(file.string() + ".damaged")));
    EXPECT_EQ(store.problem(), "");
    EXPECT_EQ(store.state(Consent::contacts), ConsentState::granted);
    EXPECT_EQ(store.state(Consent::photos), ConsentState::notDetermined);
    EXPECT_EQ(support::modeOf(file), 0600U);
    fs::remove(file.string() + ".damaged");
  }
}

TEST_F(ConsentStoreTest, aChangeThatCannotBeSavedIsAnErrorAndChangesNothing) {
  ASSERT_TRUE(replaceFile(directory / "plain", "", 0600));
  ConsentStore below(directory / "plain/consents.plist");
  const auto result = below.set(Consent::photos, ConsentState::granted);
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error(), "Not a directory");
  EXPECT_EQ(below.state(Consent::photos), ConsentState::notDetermined);
}

// Each process owns one entry: whenever it finds another value there than its own last one, the
// other process has lost its change.
TEST_F(ConsentStoreTest, processesDoNotLoseEachOthersChanges) {
  std::vector<pid_t> writers;
  for (const auto consent : {Consent::photos, Consent::contacts, Consent::accessibility}) {
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid > 0) {
      writers.push_back(pid);
      continue;
    }
    ConsentStore own(file);
    ConsentState last = ConsentState::notDetermined;
    for (int round = 0; round < 40; ++round) {
      if (own.state(consent) != last) std::_Exit(1);
      last = round % 2 == 0 ? ConsentState::granted : ConsentState::denied;
      if (!own.set(consent, last)) std::_Exit(2);
    }
    std::_Exit(0);
  }
  for (const pid_t pid : writers) {
    int status = -1;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(store.state(Consent::photos), ConsentState::denied);
  EXPECT_EQ(store.state(Consent::accessibility), ConsentState::denied);
}

TEST_F(ConsentStoreTest, servesProbesOfManyThreads) {
  LinuxPermissionProbes probes(store);
  std::atomic<bool> done = false;
  std::vector<std::jthread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      // The first grant is the screen's: nobody may ever see the second without it.
      while (!done) EXPECT_FALSE(probes.accessibilityTrusted() && !probes.screenCaptureAllowed());
    });
  }
  EXPECT_FALSE(probes.screenCaptureAllowed());
  EXPECT_TRUE(store.set(Consent::screenRecording, ConsentState::granted));
  EXPECT_TRUE(probes.screenCaptureAllowed());
  EXPECT_FALSE(probes.accessibilityTrusted());
  EXPECT_TRUE(store.set(Consent::accessibility, ConsentState::granted));
  EXPECT_TRUE(probes.accessibilityTrusted());
  EXPECT_EQ(probes.automation(AutomationTarget::messages).kind,
            AutomationStatus::Kind::notDetermined);
  EXPECT_TRUE(store.set(Consent::messagesAutomation, ConsentState::denied));
  EXPECT_EQ(probes.automation(AutomationTarget::messages).kind, AutomationStatus::Kind::denied);
  EXPECT_EQ(probes.photos(), PhotosPermission::notDetermined);
  EXPECT_TRUE(store.set(Consent::photos, ConsentState::granted));
  EXPECT_EQ(probes.photos(), PhotosPermission::full);
  done = true;
}

}  // namespace
}  // namespace vesko
