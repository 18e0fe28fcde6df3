# Applications: desktop entries, /proc, the session bus and their windows.
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
  LIBS vesko_linux_system vesko_linux_windows)
target_link_libraries(vesko_linux_applications PRIVATE
  fmt::fmt PkgConfig::SYSTEMD)
