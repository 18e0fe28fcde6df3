#include <unistd.h>

#include "helper/helper.h"

int main() {
  vesko::HelperReporter reporter(STDOUT_FILENO, STDERR_FILENO);
  auto settings = vesko::HelperSettings::fromEnvironment();
  if (!settings) {
    reporter.log("ERROR " + settings.error());
    return 1;
  }
  const auto ended = vesko::runHelper(*settings, STDIN_FILENO, reporter);
  if (!ended) {
    reporter.log("ERROR " + ended.error());
    return 1;
  }
  return 0;
}
