# The main loop, child processes, host names and the user's consents. No display is needed.
pkg_check_modules(GLIB REQUIRED IMPORTED_TARGET glib-2.0)

vesko_library(vesko_linux_system
  SOURCES
    consent_store.cpp
    glib_main_loop.cpp
    host_names.cpp
    inherited_children.cpp
    linux_child.cpp
    linux_permission_requests.cpp
    linux_process_host.cpp
    privacy_window_mark.cpp
    process_identity.cpp
  LIBS vesko_base)
target_link_libraries(vesko_linux_system PRIVATE fmt::fmt PkgConfig::GLIB)
