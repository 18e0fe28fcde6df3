pkg_check_modules(XCB_CAPTURE REQUIRED IMPORTED_TARGET
  xcb-composite xcb-damage xcb-randr xcb-shm xcb-xfixes)

vesko_library(vesko_linux_capture
  SOURCES
    x11_pixels.cpp
    x11_screen_source.cpp
    x11_window_capture.cpp
  LIBS vesko_linux_x11 PkgConfig::XCB_CAPTURE)
