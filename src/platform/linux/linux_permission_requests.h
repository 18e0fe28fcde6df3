// Asks the user through vesko-privacy, the bundle's program for it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "base/main_loop.h"
#include "platform/linux/consent_store.h"
#include "platform/permission_requests.h"
#include "platform/process_host.h"

namespace vesko {

/// Main thread. What it is made from outlives it. A question ends with this process; the settings
/// window is the user's own and stays.
class LinuxPermissionRequests : public PermissionRequests {
 public:
  struct Setup {
    MainLoop& loop;
    ProcessHost& processes;
    ConsentStore& consents;
    std::filesystem::path program;
    /// The program gets it without the secrets that it may hold for the daemon.
    Environment environment;
  };

  explicit LinuxPermissionRequests(Setup setup);
  ~LinuxPermissionRequests() override;

  void requestAccessibility(PermissionCallback<bool> done) override;
  void requestScreenCapture(PermissionCallback<bool> done) override;
  void requestPhotos(PermissionCallback<PhotosPermission> done) override;
  void requestContacts(PermissionCallback<ContactsPermission> done) override;
  void requestAutomation(AutomationTarget target,
                         PermissionCallback<AutomationStatus> done) override;
  void openSettings(std::string_view page,
                    std::move_only_function<void(std::string)> failed) override;
  void cancel() override;

 private:
  /// The program's exit code, or why it gave none.
  using Ended = std::move_only_function<void(std::expected<int, std::string>)>;

  struct Run {
    std::unique_ptr<ChildProcess> process;
    std::string output;
    Ended ended;
  };

  template <class Status>
  void ask(Consent consent, PermissionCallback<Status> done,
           Status (*read)(LinuxPermissionProbes&));
  void run(std::vector<std::string> arguments, Ended ended);
  void finish(std::uint64_t id, std::expected<int, std::string> result);

  Setup setup_;
  LinuxPermissionProbes probes_;
  std::uint64_t lastRun_ = 0;
  std::map<std::uint64_t, Run> runs_;
  /// Work that is still posted does nothing once this is gone.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace vesko
