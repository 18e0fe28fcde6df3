# What the X server and window managers say of windows, by a deadline.
pkg_check_modules(XCB_WINDOWS REQUIRED IMPORTED_TARGET xcb-randr xcb-res)

vesko_library(vesko_linux_windows
  SOURCES
    x11_session.cpp
    x11_window_action.cpp
    x11_window_system.cpp
    x11_windows.cpp
  LIBS vesko_linux_x11)
target_link_libraries(vesko_linux_windows PRIVATE PkgConfig::XCB_WINDOWS)
