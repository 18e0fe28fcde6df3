# What the desktop offers, for those who look after it.
pkg_check_modules(XCB_REPORT REQUIRED IMPORTED_TARGET xcb-randr)

vesko_library(vesko_linux_report
  SOURCES
    bus_report.cpp
    display_report.cpp
  LIBS vesko_linux_x11 vesko_linux_accessibility PkgConfig::XCB_REPORT)
