// Host names of a Linux machine: PRETTY_HOSTNAME of machine-info(5), and gethostname().
#pragma once

#include <filesystem>

#include "platform/host_names.h"

namespace vesko {

class LinuxHostNames : public HostNames {
 public:
  explicit LinuxHostNames(std::filesystem::path machineInfo = "/etc/machine-info")
      : machineInfo_(std::move(machineInfo)) {}

  std::string computerName() override;
  std::string hostName() override;

 private:
  const std::filesystem::path machineInfo_;
};

}  // namespace vesko
