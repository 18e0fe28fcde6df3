# Applications and windows: desktop entries, /proc, the session bus, and what window managers say.
pkg_check_modules(XCB_RES REQUIRED IMPORTED_TARGET xcb-res)
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)

vesko_library(vesko_linux_applications
  SOURCES
    application_identity.cpp
    desktop_entries.cpp
    desktop_entry.cpp
    detached_process.cpp
    linux_applications.cpp
    process_facts.cpp
    session_bus.cpp
    x11_session.cpp
    x11_window_action.cpp
    x11_window_system.cpp
    x11_windows.cpp
  LIBS vesko_linux_system vesko_linux_x11)
target_link_libraries(vesko_linux_applications PRIVATE
  fmt::fmt PkgConfig::SYSTEMD PkgConfig::XCB_RES)
